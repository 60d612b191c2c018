#include "cue/Pcap.h"

#include <gtest/gtest.h>

#include "cue/CueError.h"
#include "cue/Import.h"
#include "cue/Time.h"
#include "unit/cue/captures.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"
#include "unit/cue/sacn.h"

using captures::frame;
using captures::high_first;
using captures::pcap_head;
using captures::text;
using cue::kSecond;
using packets::dmx;
using recordings::file_of;
using unit::error_of;

namespace {

/// Headers that the exports write.
std::string headers(unsigned size, unsigned checksum) {
  return std::string(6, '\xFF') + text("\2\0\0\0\0\1", 6) + high_first(0x0800) + text("\x45\0", 2) +
         high_first(28 + size) + text("\0\0\x40\0\x40\x11", 6) + high_first(checksum) +
         text("\2\0\0\1\2\xFF\xFF\xFF", 8) + high_first(6454) + high_first(6454) + high_first(8 + size) +
         high_first(0);
}

class PcapExport : public testing::Test {
protected:
  const unit::Directory directory;
  cue::Exported exported;

  /// Import of the export of a recording.
  std::string through(cue::Exported (*write)(const cue::Input&, const cue::Output&, const cue::OnDamage&),
                      const std::string& recording) {
    exported = write(directory.write("show.cue", recording), directory / "show.pcap", {});
    cue::import_recording(directory / "show.pcap", {}, directory / "back.cue");
    return directory.content("back.cue");
  }
};

TEST_F(PcapExport, WritesACaptureWithNanoseconds) {
  const std::string show =
      directory.write("show.cue", file_of({{dmx("abcd"), 0}, {dmx("e"), 1'000'000'007}}));
  exported = cue::export_pcap(show, directory / "out.pcap");
  EXPECT_EQ(exported.datagrams, 2U);
  EXPECT_EQ(exported.losses, std::vector<std::string>{});
  EXPECT_EQ(directory.content("out.pcap"), pcap_head() + frame(headers(22, 0x35BC) + dmx("abcd")) +
                                               frame(headers(19, 0x35BF) + dmx("e"), 1, 7));
}

TEST_F(PcapExport, RefusesATimeThatACaptureCannotTell) {
  // A capture has 32 bits for seconds, 136 years; a pause has a year at most.
  const std::string show =
      directory.write("show.cue", file_of(std::vector<recordings::Datagram>(138, {dmx("a"), kLongestPause})));
  EXPECT_EQ(error_of([&] { cue::export_pcap(show, directory / "out.pcap"); }),
            show + ": byte 5032: later than a capture can tell");
  EXPECT_EQ(directory.names(), std::vector<std::string>{"show.cue"});
}

TEST_F(PcapExport, GoesOnBehindDamageThatIsPassedOver) {
  const std::string show = directory.write("show.cue", file_of({{dmx("a"), 0}, {dmx("b"), 1}}) + "Art-Ne");
  EXPECT_NE(error_of([&] { cue::export_pcap(show, directory / "out.pcap"); }), "no error");
  int damages = 0;
  const auto pass_over = [&damages](const auto&, const auto&) { ++damages; };
  EXPECT_EQ(cue::export_pcap(show, directory / "out.pcap", pass_over).datagrams, 2U);
  EXPECT_EQ(cue::export_pcap_sacn(show, directory / "sacn.pcap", pass_over).datagrams, 2U);
  EXPECT_EQ(damages, 2);
}

TEST_F(PcapExport, ComesBackByteForByte) {
  recordings::Chance chance(4);
  std::vector<recordings::Datagram> datagrams;
  for (int i = 0; i < 300; ++i)
    datagrams.emplace_back(chance.dmx() + (i % 3 == 0 ? packets::poll() : ""), chance.pause());
  const std::string file = file_of(datagrams);
  EXPECT_EQ(through(cue::export_pcap, file), file);
}

TEST_F(PcapExport, WritesE131ToTheGroupOfEachUniverse) {
  const std::string show = directory.write(
      "show.cue", file_of({{dmx("abcd", 0, 255) + dmx("e", 0x3FFE), 0}, {dmx("f", 0, 1), 1'000'000'007}}));
  exported = cue::export_pcap_sacn(show, directory / "out.pcap");
  EXPECT_EQ(exported.datagrams, 3U);
  const auto packet = [](const std::string& levels, unsigned universe, unsigned sequence) {
    return sacn::data({levels, universe, sequence, 100, 0, 0, 0,
                       text("kadrel\x80"
                            "c\x80"
                            "export\1",
                            16),
                       "kadrel-cue"});
  };
  const auto to_group = [](const std::string& payload, unsigned group, unsigned checksum) {
    std::string bytes = headers(static_cast<unsigned>(payload.size()), checksum) + payload;
    bytes.replace(0, 6, text("\x01\x00\x5E\x7F", 4) + high_first(group));
    bytes.replace(30, 4, text("\xEF\xFF", 2) + high_first(group));
    bytes.replace(34, 4, high_first(5568) + high_first(5568));
    return bytes;
  };
  EXPECT_EQ(directory.content("out.pcap"), pcap_head() + frame(to_group(packet("abcd", 1, 255), 1, 0x484E)) +
                                               frame(to_group(packet("e", 0x3FFF, 1), 0x3FFF, 0x853)) +
                                               frame(to_group(packet("f", 1, 0), 1, 0x4851), 1, 7));
}

TEST_F(PcapExport, ComesBackFromE131InLevelsNumbersAndPauses) {
  recordings::Chance chance(5);
  std::vector<recordings::Datagram> datagrams;
  for (int i = 0; i < 2000; ++i)
    datagrams.emplace_back(dmx(std::string(1 + chance.below(512), static_cast<char>(chance.below(256))),
                               chance.below(20), 1 + chance.below(255)),
                           chance.pause());
  const std::string file = file_of(datagrams);
  EXPECT_EQ(through(cue::export_pcap_sacn, file), file);
  EXPECT_EQ(exported.datagrams, 2000U);
  EXPECT_EQ(exported.losses, std::vector<std::string>{});
}

TEST_F(PcapExport, SaysWhatE131DoesNotHold) {
  std::string with_physical = dmx("a", 3, 7);
  with_physical[13] = 2;
  EXPECT_EQ(
      through(cue::export_pcap_sacn, file_of({{dmx("a", 63999, 1), 0},
                                              {dmx("b", 63998, 1) + packets::poll(), 1},
                                              {dmx("", 1, 1), 2},
                                              {dmx("c", 2) + dmx("d", 2), 3},
                                              {with_physical, 4}})),
      file_of({{dmx("b", 63998, 1), 0}, {dmx("c", 2, 1), 5}, {dmx("d", 2, 2), 0}, {dmx("a", 3, 7), 4}}));
  const std::vector<std::string> losses = {"1 packet of universes above 63999 left out",
                                           "1 packet without slots left out",
                                           "1 datagram with more than ArtDmx packets: the rest left out",
                                           "1 packet with a physical port, which E1.31 does not tell",
                                           "2 packets of senders that do not count: counted"};
  EXPECT_EQ(exported.losses, losses);
}

TEST(PcapReader, ReadsTimesUntil2106) {
  for (const unsigned seconds : {0U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
    const std::string file = pcap_head() + frame("x", seconds, 999'999'999);
    const auto frames = cue::open_pcap(recordings::source_of(file), "in.pcap");
    cue::Frame found;
    ASSERT_TRUE(frames->next(found));
    EXPECT_EQ(found.time, seconds * std::int64_t{1'000'000'000} + 999'999'999);
  }
}

TEST(PcapReader, PassesTheFailureOfItsSourceOn) {
  const std::string head = pcap_head() + frame("x");
  std::size_t left = head.size();
  const auto source = [&](std::uint8_t* bytes, std::size_t size) {
    if (left == 0) throw cue::CueError("the disk is gone");
    const std::size_t count = std::min(left, size);
    memcpy(bytes, head.data() + head.size() - left, count);
    left -= count;
    return count;
  };
  const auto frames = cue::open_pcap(source, "in.pcap");
  cue::Frame found;
  EXPECT_TRUE(frames->next(found));
  EXPECT_EQ(error_of([&] { frames->next(found); }), "the disk is gone");
  left = 0;
  EXPECT_EQ(error_of([&] { cue::open_pcap(source, "in.pcap"); }), "the disk is gone");
}

TEST(PcapReader, RefusesAHeadThatLibpcapDoesNotKnow) {
  std::string head = pcap_head();
  head[4] = 9;  // version
  EXPECT_NE(error_of([&] { cue::open_pcap(recordings::source_of(head), "in.pcap"); }).find("in.pcap: "),
            std::string::npos);
}

TEST(PcapReader, IsRecognisedByItsMagicNumber) {
  const auto begins = [](const std::string& head) {
    return cue::begins_pcap(recordings::bytes_of(head), head.size());
  };
  EXPECT_TRUE(begins(text("\xD4\xC3\xB2\xA1", 4)));
  EXPECT_TRUE(begins(text("\xA1\xB2\x3C\x4D", 4)));
  EXPECT_FALSE(begins(text("\xA1\xB2\x3C", 3)));
  EXPECT_FALSE(begins("Art-Net"));
}

}  // namespace
