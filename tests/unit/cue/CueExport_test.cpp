#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "cue/CueCsv.h"
#include "cue/CueError.h"
#include "cue/CueInfo.h"
#include "cue/CuePcap.h"
#include "cue/CuePlot.h"
#include "cue/Png.h"
#include "unit/cue/directory.h"
#include "unit/cue/recordings.h"

using cue::kSecond;
using packets::byte;
using packets::dmx;
using packets::high_first;
using packets::low_first;
using packets::text;
using recordings::delay;
using recordings::file_of;

namespace {

constexpr std::int64_t kMs = 1'000'000;

template <typename Action>
std::string error_of(Action&& action) {
  try {
    action();
  } catch (const cue::CueError& error) {
    return error.what();
  }
  return "no error";
}

std::string low_first_32(unsigned value) {
  return low_first(value) + low_first(value >> 16U);
}

/// Head of a pcap file with nanoseconds.
std::string pcap_head(unsigned link_type = 1) {
  return low_first_32(0xa1b23c4d) + low_first(2) + low_first(4) + low_first_32(0) + low_first_32(0) +
         low_first_32(262144) + low_first_32(link_type);
}

/// A captured frame. @param wire_size  0: as captured
std::string frame(const std::string& bytes, unsigned seconds = 0, unsigned nanoseconds = 0,
                  std::size_t wire_size = 0) {
  return low_first_32(seconds) + low_first_32(nanoseconds) +
         low_first_32(static_cast<unsigned>(bytes.size())) +
         low_first_32(static_cast<unsigned>(wire_size == 0 ? bytes.size() : wire_size)) + bytes;
}

/// An IPv4 packet with a UDP datagram. @param fragment  flags and offset
std::string ip(const std::string& payload, unsigned port = 6454, unsigned fragment = 0,
               const std::string& options = "") {
  const auto udp_size = static_cast<unsigned>(8 + payload.size());
  const auto header = static_cast<unsigned>(20 + options.size());
  return byte(0x40 | header / 4) + byte(0) + high_first(header + udp_size) + high_first(0) +
         high_first(fragment) + byte(64) + byte(17) + high_first(0) + text("\x0A\0\0\1\x0A\0\0\2", 8) +
         options + high_first(40000) + high_first(port) + high_first(udp_size) + high_first(0) + payload;
}

std::string ethernet(const std::string& packet, const std::string& tags = "") {
  return std::string(12, '\x02') + tags + high_first(0x0800) + packet;
}

class CueImport : public testing::Test {
protected:
  const unit::Directory directory;
  std::string report;
  std::string errors;
  int code = 0;

  /// The recording made of a capture.
  std::string import(const std::string& capture) {
    const std::string path = directory.write("in.pcap", capture);
    std::ostringstream out;
    std::ostringstream err;
    code = cue::run_import(path, 6454, directory / "out.cue", out, err);
    report = out.str();
    errors = err.str();
    return directory.content("out.cue");
  }
};

TEST(CueExport, WritesACaptureWithNanoseconds) {
  const unit::Directory directory;
  const std::string show =
      directory.write("show.cue", file_of({{dmx("abcd"), 0}, {dmx("e"), 1'000'000'007}}));
  std::ostringstream out;
  cue::export_pcap(show, directory / "out.pcap", out);
  const auto headers = [](unsigned size, unsigned checksum) {
    return std::string(6, '\xFF') + text("\2\0\0\0\0\1", 6) + high_first(0x0800) + text("\x45\0", 2) +
           high_first(28 + size) + text("\0\0\x40\0\x40\x11", 6) + high_first(checksum) +
           text("\2\0\0\1\2\xFF\xFF\xFF", 8) + high_first(6454) + high_first(6454) + high_first(8 + size) +
           high_first(0);
  };
  EXPECT_EQ(directory.content("out.pcap"), pcap_head() + frame(headers(22, 0x35BC) + dmx("abcd")) +
                                               frame(headers(19, 0x35BF) + dmx("e"), 1, 7));
  EXPECT_EQ(out.str(), directory / "out.pcap" + ": 2 datagrams\n");
}

TEST(CueExport, RefusesATimeThatACaptureCannotTell) {
  const unit::Directory directory;
  const std::string show =
      directory.write("show.cue", file_of({{dmx("a"), 0}, {dmx("b"), 4'294'967'296 * kSecond}}));
  std::ostringstream out;
  EXPECT_EQ(error_of([&] { cue::export_pcap(show, directory / "out.pcap", out); }),
            show + ": byte 37: later than a capture can tell");
  EXPECT_EQ(directory.names(), std::vector<std::string>{"show.cue"});
}

TEST_F(CueImport, IsTheInverseOfTheExport) {
  recordings::Chance chance(4);
  std::vector<recordings::Datagram> datagrams;
  for (int i = 0; i < 300; ++i)
    datagrams.emplace_back(chance.dmx() + (i % 3 == 0 ? "tail" : ""), chance.pause());
  const std::string file = file_of(datagrams);
  std::ostringstream out;
  cue::export_pcap(directory.write("show.cue", file), directory / "show.pcap", out);
  EXPECT_EQ(import(directory.content("show.pcap")), file);
}

TEST_F(CueImport, TakesWhatTheRecorderWouldRecord) {
  const std::string recorded =
      import(pcap_head() + frame(ethernet(ip(dmx("a"))), 7, 5) +                      // wanted
             frame(ethernet(ip(packets::poll())), 8, 5) +                             // no ArtDmx
             frame(ethernet(ip(dmx("b"), 5568)), 8, 6) +                              // another port
             frame(ethernet(ip(dmx("c"), 6454, 0x2000)), 8, 7) +                      // a fragment
             frame(ethernet(ip(dmx("d"))).substr(0, 50), 8, 8, 61) +                  // cut off
             frame("short", 8, 8) + frame(ethernet("x"), 8, 9) +                      // broken
             frame(ethernet(ip(dmx("e")), text("\x81\0\0\5", 4)), 8, 5) +             // a VLAN
             frame(ethernet(ip(dmx("f"), 6454, 0x4000, "opts")) + "padding", 8, 6));  // options
  EXPECT_EQ(recorded, dmx("a") + delay(kSecond) + dmx("e") + delay(1) + dmx("f"));
  EXPECT_EQ(
      report,
      directory / "out.cue" +
          ": 3 datagrams, 1.000 s, 1 without a whole ArtDmx left out, 1 fragments left out, 1 cut off by the "
          "capture left out\n");
  EXPECT_EQ(code, 0);
}

TEST_F(CueImport, TakesAFrameThatLiesBeforeItsPredecessorForSimultaneous) {
  EXPECT_EQ(import(pcap_head() + frame(ethernet(ip(dmx("a"))), 7) + frame(ethernet(ip(dmx("b"))), 5) +
                   frame(ethernet(ip(dmx("c"))), 8)),
            dmx("a") + delay(0) + dmx("b") + delay(kSecond) + dmx("c"));
}

TEST_F(CueImport, ReadsTheUsualLinkLayers) {
  const std::string packet = ip(dmx("a"));
  EXPECT_EQ(import(pcap_head(101) + frame(packet)), dmx("a"));
  EXPECT_EQ(import(pcap_head(228) + frame(packet)), dmx("a"));
  EXPECT_EQ(import(pcap_head(113) + frame(std::string(14, '\0') + high_first(0x0800) + packet)), dmx("a"));
  EXPECT_EQ(import(pcap_head(276) + frame(high_first(0x0800) + std::string(18, '\0') + packet)), dmx("a"));
  EXPECT_EQ(import(pcap_head(0) + frame(low_first_32(2) + packet)), dmx("a"));
  EXPECT_EQ(import(pcap_head(108) + frame(text("\0\0\0\2", 4) + packet)), dmx("a"));
}

TEST_F(CueImport, KeepsWhatIsGoodOfACaptureThatBreaksOff) {
  EXPECT_EQ(import(pcap_head() + frame(ethernet(ip(dmx("a")))) + "abc"), dmx("a"));
  EXPECT_EQ(code, 1);
  EXPECT_EQ(errors.rfind("kadrel-cue: " + directory.path() + "/in.pcap: ", 0), 0U) << errors;
}

TEST_F(CueImport, RefusesWhatIsNoCaptureOfIp) {
  EXPECT_NE(error_of([this] { import("no capture at all, but long enough"); }).find("unknown file format"),
            std::string::npos);
  EXPECT_EQ(error_of([this] { import(pcap_head(105)); }),
            directory / "in.pcap" + ": frames of link type 105 are not understood");
  EXPECT_EQ(directory.names(), std::vector<std::string>{"in.pcap"});
}

TEST_F(CueImport, SurvivesAnyFrame) {
  recordings::Chance chance(5);
  const std::string whole = ethernet(ip(dmx("a"), 6454, 0, "opts"), text("\x81\0\0\5", 4));
  std::string capture = pcap_head();
  for (int i = 0; i < 5000; ++i) {
    std::string bytes = whole;
    for (unsigned n = chance.below(4); n > 0; --n)
      bytes[chance.below(46)] = static_cast<char>(chance.below(256));
    bytes.resize(chance.below(static_cast<unsigned>(bytes.size()) + 1));
    capture += frame(bytes);
  }
  const auto reading = recordings::read(import(capture));
  EXPECT_FALSE(reading.damage);
}

TEST(CueCsv, WritesTheSlotsOfAUniverseOverTime) {
  const unit::Directory directory;
  const std::string show = directory.write(
      "show.cue",
      file_of({{dmx("\x01\x02\x03", 4), 0}, {dmx("x", 5), 7}, {dmx(text("\xFF\0", 2), 4), 1'000'000'000}}));
  std::ostringstream out;
  cue::export_csv(show, 4, directory / "out.csv", out);
  EXPECT_EQ(directory.content("out.csv"),
            "time_s,slot1,slot2,slot3\n0.000000000,1,2,3\n1.000000007,255,0,\n");
  EXPECT_EQ(out.str(), directory / "out.csv" + ": universe 5, 2 lines\n");
}

TEST(CueCsv, ChoosesTheOnlyUniverseAndNoOther) {
  const unit::Directory directory;
  const std::string one = directory.write("one.cue", dmx("a", 4));
  const std::string two = directory.write("two.cue", file_of({{dmx("a", 4), 0}, {dmx("a", 5), 1}}));
  const std::string none = directory.write("none.cue", "");
  std::ostringstream out;
  cue::export_csv(one, std::nullopt, directory / "out.csv", out);
  EXPECT_EQ(directory.content("out.csv"), "time_s,slot1\n0.000000000,97\n");
  const auto error = [&](const std::string& file, std::optional<std::uint16_t> universe) {
    return error_of([&] { cue::export_csv(file, universe, directory / "out.csv", out); });
  };
  EXPECT_EQ(error(two, std::nullopt), two + ": holds 2 universes; choose one with --universe");
  EXPECT_EQ(error(two, 6), two + ": holds no universe 7");
  EXPECT_EQ(error(none, std::nullopt), none + ": holds no universe");
}

TEST(Png, IsAPngOfItsPixels) {
  cue::Palette palette{};
  palette[1] = {1, 2, 3};
  const std::string png = cue::make_png(3, 2, {0, 1, 0, 1, 0, 1}, palette);
  EXPECT_EQ(png.substr(0, 33),
            text("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\0\3\0\0\0\2\x08\x03\0\0\0\xAA\xAA\x96(", 33));
  EXPECT_EQ(png.substr(33, 14), text("\0\0\3\0PLTE\0\0\0\1\2\3", 14));
  EXPECT_EQ(png.substr(png.size() - 12), text("\0\0\0\0IEND\xae\x42\x60\x82", 12));
}

class CuePlot : public testing::Test {
protected:
  const unit::Directory directory;
  cue::PlotOptions options;

  void record(const std::vector<recordings::Datagram>& datagrams) {
    options.file = directory.write("a<b>&.cue", file_of(datagrams));
    options.output = directory / "out.svg";
  }

  std::string plot() {
    std::ostringstream out;
    EXPECT_EQ(cue::run_plot(options, out), 0);
    return directory.content("out.svg");
  }

  static int count(const std::string& svg, const std::string& what) {
    int found = 0;
    for (std::size_t at = svg.find(what); at != std::string::npos; at = svg.find(what, at + 1)) ++found;
    return found;
  }
};

TEST_F(CuePlot, DrawsABandForEachUniverse) {
  record({{dmx("ab", 0), 0}, {dmx("ab", 6), 0}, {dmx("ab", 0), 2 * kSecond}});
  const std::string svg = plot();
  EXPECT_EQ(count(svg, "<image "), 2);
  EXPECT_NE(svg.find(">a&lt;b&gt;&amp;.cue</text>"), std::string::npos);
  EXPECT_NE(svg.find(">2.000 s, 3 datagrams, 2 universes</text>"), std::string::npos);
  EXPECT_NE(svg.find(">7</text>"), std::string::npos);
  EXPECT_NE(svg.find(">0.5 Hz</text>"), std::string::npos);
  EXPECT_NE(svg.find(">1.2 s</text>"), std::string::npos);
  EXPECT_EQ(svg.rfind("</svg>\n"), svg.size() - 7);
}

TEST_F(CuePlot, DrawsTheSlotsOfOneUniverse) {
  record({{dmx("abcd", 0), 0}, {dmx("ab", 6), 0}, {dmx("abcd", 0), 2 * kSecond}});
  options.port_address = 0;
  const std::string svg = plot();
  EXPECT_EQ(count(svg, "<image "), 1);
  EXPECT_NE(svg.find(">universe 1</text>"), std::string::npos);
  EXPECT_NE(svg.find(">4</text>"), std::string::npos);
}

TEST_F(CuePlot, DrawsAPart) {
  record({{dmx("a", 0), 0}, {dmx("b", 1), kSecond}, {dmx("c", 0), 20 * kMs}, {dmx("d", 2), 3 * kSecond}});
  options.selection.start = kSecond;
  options.selection.stop = 2 * kSecond;
  options.selection.only = cue::parse_universes("1-2");
  const std::string svg = plot();
  EXPECT_EQ(count(svg, "<image "), 2);
  EXPECT_NE(svg.find("; shown from 1.000 s to 2.000 s</text>"), std::string::npos);
}

TEST_F(CuePlot, DrawsManyUniversesAndRefusesTooMany) {
  std::vector<recordings::Datagram> datagrams;
  for (unsigned universe = 0; universe < 512; ++universe) datagrams.emplace_back(dmx("a", universe), kMs);
  record(datagrams);
  EXPECT_EQ(count(plot(), "<image "), 512);
  datagrams.emplace_back(dmx("a", 512), kMs);
  record(datagrams);
  EXPECT_EQ(error_of([this] { plot(); }),
            options.file + ": holds 513 universes; choose at most 512 with --only");
}

TEST_F(CuePlot, RefusesToDrawNothing) {
  record({});
  EXPECT_EQ(error_of([this] { plot(); }), options.file + ": holds nothing to draw");
  options.port_address = 3;
  EXPECT_EQ(error_of([this] { plot(); }), options.file + ": holds no universe 4");
}

TEST_F(CuePlot, DrawsOneDatagramAndTheLongestTime) {
  record({{dmx("", 0), 0}});
  EXPECT_EQ(count(plot(), "<image "), 1);
  record({{dmx("a", 0), 0}, {dmx("a", 0), std::numeric_limits<std::int64_t>::max()}});
  EXPECT_EQ(count(plot(), "<image "), 1);
}

}  // namespace
