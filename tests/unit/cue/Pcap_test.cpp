#include "cue/Pcap.h"

#include <gtest/gtest.h>

#include "cue/Time.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"

using cue::kSecond;
using packets::byte;
using packets::dmx;
using packets::high_first;
using packets::low_first;
using packets::text;
using recordings::delay;
using recordings::file_of;
using unit::error_of;

namespace {

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

class PcapImport : public testing::Test {
protected:
  const unit::Directory directory;
  cue::Imported imported;

  /// The recording made of a capture.
  std::string import(const std::string& capture) {
    const std::string path = directory.write("in.pcap", capture);
    cue::Output output(directory / "out.cue");
    output.replace = true;
    imported = cue::import_pcap(path, 6454, output);
    return directory.content("out.cue");
  }
};

TEST(PcapExport, WritesACaptureWithNanoseconds) {
  const unit::Directory directory;
  const std::string show =
      directory.write("show.cue", file_of({{dmx("abcd"), 0}, {dmx("e"), 1'000'000'007}}));
  EXPECT_EQ(cue::export_pcap(show, directory / "out.pcap"), 2U);
  const auto headers = [](unsigned size, unsigned checksum) {
    return std::string(6, '\xFF') + text("\2\0\0\0\0\1", 6) + high_first(0x0800) + text("\x45\0", 2) +
           high_first(28 + size) + text("\0\0\x40\0\x40\x11", 6) + high_first(checksum) +
           text("\2\0\0\1\2\xFF\xFF\xFF", 8) + high_first(6454) + high_first(6454) + high_first(8 + size) +
           high_first(0);
  };
  EXPECT_EQ(directory.content("out.pcap"), pcap_head() + frame(headers(22, 0x35BC) + dmx("abcd")) +
                                               frame(headers(19, 0x35BF) + dmx("e"), 1, 7));
}

TEST(PcapExport, RefusesATimeThatACaptureCannotTell) {
  const unit::Directory directory;
  const std::string show =
      directory.write("show.cue", file_of({{dmx("a"), 0}, {dmx("b"), 4'294'967'296 * kSecond}}));
  EXPECT_EQ(error_of([&] { cue::export_pcap(show, directory / "out.pcap"); }),
            show + ": byte 37: later than a capture can tell");
  EXPECT_EQ(directory.names(), std::vector<std::string>{"show.cue"});
}

TEST_F(PcapImport, IsTheInverseOfTheExport) {
  recordings::Chance chance(4);
  std::vector<recordings::Datagram> datagrams;
  for (int i = 0; i < 300; ++i)
    datagrams.emplace_back(chance.dmx() + (i % 3 == 0 ? "tail" : ""), chance.pause());
  const std::string file = file_of(datagrams);
  cue::export_pcap(directory.write("show.cue", file), directory / "show.pcap");
  EXPECT_EQ(import(directory.content("show.pcap")), file);
}

TEST_F(PcapImport, TakesWhatTheRecorderWouldRecord) {
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
  EXPECT_EQ(imported.datagrams, 3U);
  EXPECT_EQ(imported.duration, kSecond + 1);
  EXPECT_EQ(imported.refused, 1U);
  EXPECT_EQ(imported.fragments, 1U);
  EXPECT_EQ(imported.cut_off, 1U);
  EXPECT_EQ(imported.error, "");
}

TEST_F(PcapImport, TakesAFrameThatLiesBeforeItsPredecessorForSimultaneous) {
  EXPECT_EQ(import(pcap_head() + frame(ethernet(ip(dmx("a"))), 7) + frame(ethernet(ip(dmx("b"))), 5) +
                   frame(ethernet(ip(dmx("c"))), 8)),
            dmx("a") + delay(0) + dmx("b") + delay(kSecond) + dmx("c"));
}

TEST_F(PcapImport, ReadsTheUsualLinkLayers) {
  const std::string packet = ip(dmx("a"));
  EXPECT_EQ(import(pcap_head(101) + frame(packet)), dmx("a"));
  EXPECT_EQ(import(pcap_head(228) + frame(packet)), dmx("a"));
  EXPECT_EQ(import(pcap_head(113) + frame(std::string(14, '\0') + high_first(0x0800) + packet)), dmx("a"));
  EXPECT_EQ(import(pcap_head(276) + frame(high_first(0x0800) + std::string(18, '\0') + packet)), dmx("a"));
  EXPECT_EQ(import(pcap_head(0) + frame(low_first_32(2) + packet)), dmx("a"));
  EXPECT_EQ(import(pcap_head(108) + frame(text("\0\0\0\2", 4) + packet)), dmx("a"));
}

TEST_F(PcapImport, KeepsWhatIsGoodOfACaptureThatBreaksOff) {
  EXPECT_EQ(import(pcap_head() + frame(ethernet(ip(dmx("a")))) + "abc"), dmx("a"));
  EXPECT_NE(imported.error, "");
}

TEST_F(PcapImport, RefusesWhatIsNoCaptureOfIp) {
  EXPECT_NE(error_of([this] { import("no capture at all, but long enough"); }).find("unknown file format"),
            std::string::npos);
  EXPECT_EQ(error_of([this] { import(pcap_head(105)); }),
            directory / "in.pcap" + ": frames of link type 105 are not understood");
  EXPECT_EQ(directory.names(), std::vector<std::string>{"in.pcap"});
}

TEST_F(PcapImport, SurvivesAnyFrame) {
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

}  // namespace
