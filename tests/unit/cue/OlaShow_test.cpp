#include <gtest/gtest.h>

#include <limits>

#include "cue/OlaShowReader.h"
#include "cue/OlaShowWriter.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/foreign.h"
#include "unit/cue/recordings.h"

using packets::text;
using recordings::Datagram;
using recordings::file_of;
using unit::error_of;
using unit::Foreign;
using unit::numbered_dmx;
using unit::replaced;

namespace {

constexpr std::int64_t kMs = 1'000'000;

Foreign read(const std::string& show) {
  return unit::read_all(*cue::open_ola_show(recordings::source_of(show), "show"));
}

struct Written {
  std::string show;
  std::uint64_t frames = 0;
  std::vector<std::string> losses;
};

Written write(const std::vector<Datagram>& datagrams,
              cue::OlaShowVersion version = cue::OlaShowVersion::One) {
  const unit::Directory directory;
  const cue::ExportedOlaShow written = cue::export_ola_show(directory.write("show.cue", file_of(datagrams)),
                                                            replaced(directory / "out"), version);
  return {directory.content("out"), written.frames, written.losses};
}

TEST(OlaShow, HoldsAFrameForEachArtDmxAndThePausesBetween) {
  const Written written = write({{numbered_dmx(text("\0\x01\xFF", 3), 0, 0), 0},
                                 {numbered_dmx("\x0A", 7, 0), 25 * kMs},
                                 {numbered_dmx("\x14", 32767, 0), 0}});
  EXPECT_EQ(written.show, "OLA Show\n1 0,1,255\n25\n8 10\n0\n32768 20\n");
  EXPECT_EQ(written.frames, 3U);
  EXPECT_TRUE(written.losses.empty());
}

TEST(OlaShow, LetsNoErrorOfRoundedTimesAddUp) {
  std::vector<Datagram> datagrams(4, {numbered_dmx("a", 0, 0), 22'600'000});
  const Written written = write(datagrams);
  // 0, 22.6, 45.2, 67.8 ms.
  EXPECT_EQ(written.show, "OLA Show\n1 97\n23\n1 97\n22\n1 97\n23\n1 97\n");
  EXPECT_EQ(written.losses, std::vector<std::string>{"the times of 3 datagrams below 1 ms"});
}

TEST(OlaShow, HoldsTimesSinceTheFirstFrameInVersion2) {
  const std::vector<Datagram> datagrams = {{numbered_dmx("", 0, 1), 0},
                                           {numbered_dmx("a", 0, 1), 400 * kMs},
                                           {numbered_dmx("b", 1, 1), 999 * kMs},
                                           {numbered_dmx("c", 0, 2), 61'001 * kMs}};
  const std::string show = write(datagrams, cue::OlaShowVersion::Two).show;
  EXPECT_EQ(show, "OLA Show V2\n1 97\n0 999\n2 98\n62 0\n1 99\n");
  const Foreign back = read(show);
  EXPECT_EQ(back.datagrams,
            (std::vector<Datagram>{{numbered_dmx("a", 0, 1), 0}, datagrams[2], datagrams[3]}));
}

TEST(OlaShow, SaysWhatItDoesNotHold) {
  std::string with_port = numbered_dmx("a", 0, 1);
  with_port[13] = 3;
  const Written written = write({{with_port + numbered_dmx("b", 1, 9) + packets::poll(), 0},
                                 {numbered_dmx("", 0, 0) + packets::poll(), kMs}});
  EXPECT_EQ(written.show, "OLA Show\n1 97\n0\n2 98\n");
  const std::vector<std::string> expected = {
      "1 ArtDmx without slots", "the sequence numbers of 2 ArtDmx", "the physical ports of 1 ArtDmx",
      "that 1 datagram held several ArtDmx", "28 bytes outside of ArtDmx"};
  EXPECT_EQ(written.losses, expected);
}

TEST(OlaShow, IsNotWrittenWithoutAFrameOrBeyondAPauseThatItCanTell) {
  const unit::Directory directory;
  const auto error = [&](const std::string& recording) {
    const std::string show = directory.write("show.cue", recording);
    return error_of(
        [&] { cue::export_ola_show(show, replaced(directory / "out"), cue::OlaShowVersion::One); });
  };
  EXPECT_EQ(error(""), directory / "show.cue: holds no levels");
  EXPECT_EQ(error(numbered_dmx("", 0, 0)), directory / "show.cue: holds no levels");
  constexpr std::int64_t kLongest = std::int64_t{0xFFFFFFFF} * kMs;
  EXPECT_EQ(error(file_of({{numbered_dmx("a", 0, 0), 0}, {numbered_dmx("b", 0, 0), kLongest}})), "no error");
  EXPECT_EQ(error(file_of({{numbered_dmx("a", 0, 0), 0}, {numbered_dmx("b", 0, 0), kLongest + kMs}})),
            directory / "show.cue: byte 37: after a pause longer than an OLA show can tell");
}

TEST(OlaShow, GoesOnBehindDamageWhenAskedTo) {
  const unit::Directory directory;
  const std::string damaged = directory.write(
      "show.cue",
      file_of({{numbered_dmx("a", 0, 0), 0}, {numbered_dmx("b", 0, 0), 2 * kMs}, {"Art-Net", kMs}}));
  EXPECT_NE(
      error_of([&] { cue::export_ola_show(damaged, replaced(directory / "out"), cue::OlaShowVersion::One); }),
      "no error");
  int damages = 0;
  const auto count = [&](const cue::RecordingReader&, const cue::Damage&) { ++damages; };
  EXPECT_EQ(
      cue::export_ola_show(damaged, replaced(directory / "out"), cue::OlaShowVersion::One, count).frames, 2U);
  EXPECT_EQ(damages, 1);
}

TEST(OlaShow, ComesBackByteForByteWhereTheFormatHoldsAll) {
  recordings::Chance chance(7);
  for (int round = 0; round < 50; ++round) {
    std::vector<unsigned> sequences(4, 0);
    std::vector<Datagram> datagrams;
    for (unsigned n = 1 + chance.below(300); n > 0; --n) {
      const unsigned universe = chance.below(4);
      sequences[universe] = sequences[universe] % 255 + 1;
      std::string levels;
      for (unsigned slots = 1 + chance.below(512); slots > 0; --slots)
        levels += static_cast<char>(chance.below(256));
      datagrams.emplace_back(numbered_dmx(levels, universe * 8191, sequences[universe]),
                             datagrams.empty() ? 0 : std::int64_t{chance.below(5000)} * kMs);
    }
    const Foreign back = read(write(datagrams).show);
    ASSERT_EQ(back.datagrams, datagrams);
    EXPECT_EQ(back.breaks_off, "");
    EXPECT_TRUE(back.losses.empty());
  }
}

TEST(OlaShowReader, KnowsAShowByItsFirstLine) {
  const auto is_show = [](const std::string& head) {
    return cue::is_ola_show(recordings::bytes_of(head), head.size());
  };
  EXPECT_TRUE(is_show("OLA Show\n"));
  EXPECT_TRUE(is_show("OLA Show V2\r\n"));
  EXPECT_FALSE(is_show("OLA Sho"));
  EXPECT_FALSE(is_show("PSEQ...."));
  for (const char* const other : {"", "OLA Show V3\n", "OLA Shows\n"})
    EXPECT_EQ(error_of([&] { read(other); }), "show: not an OLA show");
  EXPECT_TRUE(read("OLA Show").datagrams.empty());
}

TEST(OlaShowReader, IsGenerousInWhatItReads) {
  const std::vector<Datagram> expected = {{numbered_dmx("\x01\x02", 0, 1), 0},
                                          {numbered_dmx(text("\x04\0\x05", 3), 0, 2), 40 * kMs},
                                          {numbered_dmx("\x06", 1, 1), 0}};
  EXPECT_EQ(read("OLA Show\n1 1,2\n40\n1 4,0,5\n0\n2 6\n").datagrams, expected);
  EXPECT_EQ(read("OLA Show\r\n1 1,2\r\n40\r\n1 4,0,5\r\n0\r\n2 6\r\n").datagrams, expected);
  EXPECT_EQ(read("OLA Show \n\n1  1, 2 \n 40\t\n\n01 4,,005\n0\n2\t6").datagrams, expected);
  EXPECT_EQ(read("OLA Show\n1 1,2\n15\n25\n1 4,,5\n2 6\n7\n").datagrams, expected)
      << "pauses too many, or missing";
  EXPECT_EQ(read("OLA Show\n5\n1 7\n").datagrams,
            (std::vector<Datagram>{{numbered_dmx("\x07", 0, 1), 5 * kMs}}));
}

TEST(OlaShowReader, ReadsTheTimesOfVersion2) {
  const std::vector<Datagram> expected = {{numbered_dmx("\x01", 0, 1), 0},
                                          {numbered_dmx("\x02", 0, 2), 500 * kMs},
                                          {numbered_dmx("\x03", 0, 3), 1500 * kMs}};
  EXPECT_EQ(read("OLA Show V2\n1 1\n0 500\n1 2\n2 0\n1 3\n").datagrams, expected);
  EXPECT_EQ(read("OLA Show V2\r\n1 1\r\n0 500\r\n1 2\r\n2 0\r\n1 3\r\n2 10\r\n").datagrams, expected);
  EXPECT_EQ(read("OLA Show V2\n1 1\n0 500000\n1 2\n2 000\n1 3\n").datagrams, expected)
      << "a number from 1000 on: these are microseconds";
  EXPECT_EQ(read("OLA Show V2\n1 1\n0 500\n1 2\n0 400\n1 3\n").datagrams,
            (std::vector<Datagram>{{numbered_dmx("\x01", 0, 1), 0},
                                   {numbered_dmx("\x02", 0, 2), 500 * kMs},
                                   {numbered_dmx("\x03", 0, 3), 0}}))
      << "a time that goes back";
  EXPECT_EQ(read("OLA Show V2\n1 1\n0 500\n9 2000\n").breaks_off, "line 4 is not a frame");
}

TEST(OlaShowReader, LeavesOutUniversesWithoutANumberHereAndFramesWithoutLevels) {
  const Foreign found = read("OLA Show\n0 1\n1\n65536 2\n1\n65537 3\n1\n4294967295 3\n1\n5 \n1\n1 6\n");
  EXPECT_EQ(found.datagrams, (std::vector<Datagram>{{numbered_dmx("\x02", 65535, 1), kMs},
                                                    {numbered_dmx("\x06", 0, 1), 4 * kMs}}));
  EXPECT_EQ(found.losses,
            (std::vector<std::string>{"3 frames of universe 0 or above 65536", "1 frame without levels"}));
  EXPECT_EQ(found.breaks_off, "");
}

TEST(OlaShowReader, NamesTheLineWhereAShowBreaksOff) {
  const auto broken = [](const std::string& lines) {
    const Foreign found = read("OLA Show\n1 1\n" + lines);
    EXPECT_EQ(found.datagrams.size(), 1U);
    return found.breaks_off;
  };
  EXPECT_EQ(broken("x\n1 2\n"), "line 3 is neither a frame nor a pause");
  EXPECT_EQ(broken("-5\n1 2\n"), "line 3 is neither a frame nor a pause");
  EXPECT_EQ(broken("9223372036855\n1 2\n"), "line 3 is neither a frame nor a pause") << "292 years";
  EXPECT_EQ(broken("9223372036854\n9\n1 2\n"), "line 4 is neither a frame nor a pause") << "in sum";
  EXPECT_EQ(broken("1 256\n1 2\n"), "line 3 is not a frame");
  EXPECT_EQ(broken("1 99999999999999999999\n"), "line 3 is not a frame");
  EXPECT_EQ(broken("1 1,x\n"), "line 3 is not a frame");
  EXPECT_EQ(broken("1 1 2\n"), "line 3 is not a frame");
  EXPECT_EQ(broken("x 1\n"), "line 3 is not a frame");
  EXPECT_EQ(broken("4294967296 1\n"), "line 3 is not a frame");
  std::string many = "1 0";
  for (int slot = 2; slot <= 512; ++slot) many += ",0";
  EXPECT_EQ(read("OLA Show\n" + many + "\n").datagrams,
            (std::vector<Datagram>{{numbered_dmx(std::string(512, '\0'), 0, 1), 0}}));
  EXPECT_EQ(broken(many + ",0\n"), "line 3 is not a frame");
  EXPECT_EQ(broken("5\n1 " + std::string(9000, '0') + "\n"), "line 4 is too long");
  EXPECT_EQ(broken(std::string(200'000, '1')), "line 3 is too long") << "without an end";
  EXPECT_EQ(read("OLA Show V2\n1 1\nx 5\n1 2\n").breaks_off, "line 3 is not a time");
  EXPECT_EQ(read("OLA Show V2\n1 1\n5\n1 2\n").breaks_off, "line 3 is not a time");
  EXPECT_EQ(read("OLA Show V2\n1 1\n9223372036 999\n1 2\n").breaks_off, "line 3 is not a time");
}

TEST(OlaShowReader, HoldsLinesAcrossTheBoundsOfItsBuffer) {
  std::string show = "OLA Show\n";
  std::vector<Datagram> expected;
  for (unsigned n = 0; n < 20'000; ++n) {
    show += "1 " + std::to_string(n % 256) + ",7\n1\n";
    expected.emplace_back(numbered_dmx({static_cast<char>(n % 256), 7}, 0, n % 255 + 1), n == 0 ? 0 : kMs);
  }
  EXPECT_EQ(read(show).datagrams, expected);
}

}  // namespace
