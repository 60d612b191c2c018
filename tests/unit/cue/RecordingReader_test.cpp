#include "cue/RecordingReader.h"

#include <gtest/gtest.h>

#include <limits>

#include "cue/CueError.h"
#include "unit/cue/recordings.h"
#include "unit/support/temporary_file.h"

using packets::dmx;
using recordings::Datagram;
using recordings::delay;
using recordings::file_of;
using recordings::read;
using recordings::Reading;

namespace {

const std::string kDmx = dmx("slot");  // 22 bytes

/// Reads the file of these datagrams and expects them back.
void expect_recovered(const std::vector<Datagram>& datagrams) {
  const std::string file = file_of(datagrams);
  const Reading reading = read(file);
  ASSERT_FALSE(reading.damage) << reading.damage->what << " at " << reading.damage->offset << " of "
                               << testing::PrintToString(file);
  std::vector<Datagram> expected = datagrams;
  if (!expected.empty()) expected.front().second = 0;
  ASSERT_EQ(reading.datagrams, expected);
}

void expect_damage(const Reading& reading, std::uint64_t offset, std::uint64_t good_end,
                   const std::string& what) {
  ASSERT_TRUE(reading.damage);
  EXPECT_EQ(reading.damage->what, what);
  EXPECT_EQ(reading.damage->offset, offset);
  EXPECT_EQ(reading.damage->good_end, good_end);
}

TEST(RecordingReader, ReadsAnEmptyRecording) {
  expect_recovered({});
}

TEST(RecordingReader, TellsBytesPauseTimeAndOffsetOfEachDatagram) {
  const Reading reading = read(dmx("one") + delay(7) + dmx("three") + delay(0) + dmx(""));
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{dmx("one"), 0}, {dmx("three"), 7}, {dmx(""), 0}}));
  EXPECT_EQ(reading.times, (std::vector<std::int64_t>{0, 7, 7}));
  EXPECT_EQ(reading.offsets, (std::vector<std::uint64_t>{0, 39, 80}));
  EXPECT_FALSE(reading.damage);
}

TEST(RecordingReader, ReadsARecordingInPortionsOfAnySize) {
  std::vector<Datagram> datagrams;
  for (int i = 0; i < 300; ++i) datagrams.emplace_back(dmx(std::string(static_cast<std::size_t>(i), 'x')), i);
  for (const std::size_t portion : {std::size_t{1}, std::size_t{17}, std::size_t{4096}}) {
    cue::RecordingReader reader(recordings::source_of(file_of(datagrams), portion), "show.cue");
    Reading reading;
    recordings::read_on(reader, reading);
    EXPECT_FALSE(reading.damage);
    EXPECT_EQ(reading.datagrams, datagrams);
  }
}

TEST(RecordingReader, ReadsAFileLargerThanItsBuffer) {
  std::vector<Datagram> datagrams;
  for (int i = 0; i < 3000; ++i) datagrams.emplace_back(dmx(std::string(512, static_cast<char>(i))), i);
  expect_recovered(datagrams);
}

TEST(RecordingReader, KeepsBytesBehindAnArtDmxInItsDatagram) {
  expect_recovered({{kDmx + std::string(508, '\0'), 0}, {kDmx + "x", 5}, {kDmx + packets::poll(), 6}});
}

TEST(RecordingReader, KeepsBytesBeforeAnArtDmxInItsDatagram) {
  expect_recovered({{"junk" + kDmx, 0}, {"junk" + kDmx, 5}, {packets::poll() + kDmx, 5}});
}

TEST(RecordingReader, KeepsSeveralPacketsOfOneDatagramTogether) {
  expect_recovered({{kDmx + kDmx, 0}, {kDmx + "x" + kDmx, 5}, {kDmx, 5}});
}

TEST(RecordingReader, KeepsTheLongestDatagram) {
  const std::string longest = kDmx + std::string(8191 - kDmx.size(), 'x');
  expect_recovered({{longest, 0}, {longest, 5}, {longest, 6}});
}

TEST(RecordingReader, TakesNoDelayRecordOutOfSlots) {
  expect_recovered({{dmx(delay(5)), 0}, {dmx("x" + delay(5) + kDmx), 1}, {dmx(kDmx + delay(5) + kDmx), 2}});
}

TEST(RecordingReader, LeavesADelayRecordBehindTheArtDmxToItsDatagram) {
  expect_recovered(
      {{kDmx + delay(5), 0}, {kDmx + delay(5) + delay(6), 1}, {kDmx + "x" + delay(5) + "x", 2}, {kDmx, 3}});
}

TEST(RecordingReader, FindsADelayRecordBehindAHalfMatchedIdentifier) {
  expect_recovered({{kDmx + "Art-Ne", 0}, {kDmx + "A" + delay(5) + "A", 1}, {kDmx, 2}});
}

TEST(RecordingReader, DoesNotTakeANegativePauseForTheEndOfADatagram) {
  expect_recovered({{kDmx + delay(-1) + kDmx, 0}, {kDmx, 5}});
  expect_recovered({{kDmx + delay(std::numeric_limits<std::int64_t>::min()), 0}, {kDmx, 5}});
}

TEST(RecordingReader, DoesNotTakeAPauseBeyondAllTimeForTheEndOfADatagram) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  expect_recovered({{kDmx, 0}, {kDmx, kMost}, {kDmx, 0}});
  expect_recovered({{kDmx, 0}, {kDmx + delay(kMost) + kDmx, 1}, {kDmx, 2}});
}

TEST(RecordingReader, EndsADatagramInAPollReplyThatItCuts) {
  const std::string aligned = dmx(std::string(494, 'x'));  // 512 bytes
  expect_recovered(
      {{aligned + packets::poll_reply(100), 0}, {aligned + packets::poll_reply(), 1}, {kDmx, 2}});
}

TEST(RecordingReader, FindsEveryEndOfADatagramWithAPollReplyThatTheRecorderTakes) {
  int cut = 0;
  // The OpCode of the reply ends in the last bytes of the first portion of 512 bytes, or in the first of the
  // second.
  for (std::size_t slots = 480; slots <= 496; ++slots) {
    for (std::size_t size = 10; size <= 239; ++size) {
      for (const char* tail : {"", "tail", "Art-Net"}) {
        const std::string datagram = dmx(std::string(slots, 'x')) + packets::poll_reply(size) + tail;
        if (!cue::shape_of(recordings::bytes_of(datagram), datagram.size()).recordable()) continue;
        cut += size < 239 ? 1 : 0;
        ASSERT_NO_FATAL_FAILURE(expect_recovered({{datagram, 0}, {datagram, 1}, {kDmx, 2}}));
      }
    }
  }
  EXPECT_GT(cut, 2000);
}

TEST(RecordingReader, TellsOfADelayRecordInsideADatagram) {
  const Reading reading = read(kDmx + delay(5) + kDmx + "x" + delay(6) + delay(7) + kDmx);
  EXPECT_EQ(reading.inner_delays, std::vector<std::uint64_t>{22 + 18 + 23});
}

TEST(RecordingReader, ReadsADelayRecordAtTheBeginningAsBytesOfTheFirstDatagram) {
  const Reading reading = read(delay(5) + kDmx + delay(6) + kDmx);
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{delay(5) + kDmx, 0}, {kDmx, 6}}));
  EXPECT_EQ(reading.inner_delays, std::vector<std::uint64_t>{0});
}

TEST(RecordingReader, SplitsADatagramThatIsARecordingItself) {
  EXPECT_EQ(read(kDmx + delay(5) + kDmx).datagrams, (std::vector<Datagram>{{kDmx, 0}, {kDmx, 5}}));
}

TEST(RecordingReader, RecoversWhateverTheRecorderWrites) {
  recordings::Chance chance(2);
  int recovered = 0;
  for (int i = 0; i < 3000; ++i) {
    std::vector<Datagram> datagrams;
    for (unsigned n = 1 + chance.below(6); n > 0; --n) {
      const std::string datagram = chance.datagram();
      const auto* const bytes = recordings::bytes_of(datagram);
      if (!cue::shape_of(bytes, datagram.size()).recordable() || datagram.size() > kLongestDatagram) continue;
      // A datagram that holds a delay record and then an ArtDmx can be read in two ways: it is left out.
      bool two_ways = false;
      for (std::size_t at = 0; at + 18 <= datagram.size(); ++at) {
        if (!cue::begins_delay(bytes + at) || cue::shape_of(bytes, at).truncated) continue;
        const cue::DatagramShape rest = cue::shape_of(bytes + at + 18, datagram.size() - at - 18);
        two_ways = two_ways || rest.truncated || rest.dmx_count > 0;
      }
      if (!two_ways) datagrams.emplace_back(datagram, chance.pause());
    }
    datagrams.emplace_back(kDmx, chance.pause());  // and so is the end of the file
    ASSERT_NO_FATAL_FAILURE(expect_recovered(datagrams));
    recovered += static_cast<int>(datagrams.size());
  }
  EXPECT_GT(recovered, 6000);
}

TEST(RecordingReader, SaysWhereACutOffRecordingBreaks) {
  const std::string file = kDmx + delay(5) + kDmx + delay(6) + kDmx;
  for (std::size_t size = 1; size < file.size(); ++size) {
    SCOPED_TRACE(size);
    const Reading reading = read(file.substr(0, size));
    const std::size_t whole = size < 22 ? 0 : (size - 22) / 40 + 1;  // datagrams that are not cut off
    ASSERT_EQ(reading.datagrams.size(), whole);
    const std::size_t good_end = whole == 0 ? 0 : 22 + (whole - 1) * 40;
    if (size == good_end) {
      EXPECT_FALSE(reading.damage);
    } else if (whole == 0) {
      expect_damage(reading, 0, 0,
                    size < 8 ? "no ArtDmx up to the end of the file" : "cut off within a datagram");
    } else if (size < good_end + 18) {
      expect_damage(reading, good_end, good_end, "cut off within a delay record");
    } else {
      expect_damage(reading, good_end + 18, good_end,
                    size == good_end + 18 ? "cut off behind a delay record" : "cut off within a datagram");
    }
  }
}

TEST(RecordingReader, SaysWhereAForeignFileBreaks) {
  expect_damage(read("#!/bin/sh\n"), 0, 0, "no ArtDmx up to the end of the file");
  expect_damage(read(std::string(100000, 'x')), 0, 0, "no end of a datagram within 8191 bytes");
  expect_damage(read(packets::poll()), 0, 0, "no ArtDmx up to the end of the file");
}

TEST(RecordingReader, SaysThatADatagramIsTooLong) {
  const std::string too_long = kDmx + std::string(8192 - kDmx.size(), 'x');
  expect_damage(read(kDmx + delay(5) + too_long + delay(5) + kDmx), 40, 22,
                "no end of a datagram within 8191 bytes");
  expect_damage(read(too_long), 0, 0, "no end of a datagram within 8191 bytes");
}

TEST(RecordingReader, TakesAnyEndWhenADatagramWouldBecomeTooLong) {
  std::string file = kDmx;
  for (int i = 0; i < 500; ++i) file += delay(i);
  const Reading reading = read(file + kDmx);
  ASSERT_FALSE(reading.datagrams.empty());
  EXPECT_EQ(reading.datagrams.front(), (Datagram{kDmx, 0}));
}

TEST(RecordingReader, GoesOnBehindADamage) {
  const std::string rubbish(20000, '\x55');
  cue::RecordingReader reader =
      recordings::reader_of(kDmx + delay(5) + kDmx + delay(6) + rubbish + delay(7) + kDmx + delay(8) + kDmx);
  Reading reading;
  recordings::read_on(reader, reading);
  expect_damage(reading, 80, 62, "no whole datagram of at most 8191 bytes");
  ASSERT_TRUE(reader.resume());
  recordings::read_on(reader, reading);
  EXPECT_FALSE(reading.damage);
  // The pause across the damage is that of the delay record after it: the reader cannot trust the one before.
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{kDmx, 0}, {kDmx, 5}, {kDmx, 7}, {kDmx, 8}}));
  EXPECT_EQ(reading.times, (std::vector<std::int64_t>{0, 5, 12, 20}));
}

TEST(RecordingReader, FindsTheFirstDatagramBehindABrokenBeginning) {
  cue::RecordingReader reader =
      recordings::reader_of(std::string(9000, 'x') + delay(7) + kDmx + delay(8) + kDmx);
  Reading reading;
  recordings::read_on(reader, reading);
  expect_damage(reading, 0, 0, "no end of a datagram within 8191 bytes");
  ASSERT_TRUE(reader.resume());
  recordings::read_on(reader, reading);
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{kDmx, 0}, {kDmx, 8}}));
}

TEST(RecordingReader, FindsNothingBehindADamageWhenNothingFollows) {
  cue::RecordingReader reader = recordings::reader_of(kDmx + delay(5) + std::string(300000, 'A'));
  Reading reading;
  recordings::read_on(reader, reading);
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{kDmx, 0}}));
  EXPECT_FALSE(reader.resume());
  cue::Record record;
  EXPECT_FALSE(reader.next(record));
}

TEST(RecordingReader, ReadsAFile) {
  const unit::TemporaryFile file(kDmx + delay(5) + kDmx);
  cue::RecordingReader reader(file.path());
  Reading reading;
  recordings::read_on(reader, reading);
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{kDmx, 0}, {kDmx, 5}}));
  EXPECT_EQ(reader.name(), file.path());
}

TEST(RecordingReader, NamesAFileThatItCannotRead) {
  try {
    const cue::RecordingReader reader("/nowhere/show.cue");
    FAIL() << "a file that is not there was opened";
  } catch (const cue::CueError& error) {
    EXPECT_STREQ(error.what(), "/nowhere/show.cue: No such file or directory");
  }
  cue::RecordingReader directory("/tmp");
  cue::Record record;
  try {
    directory.next(record);
    FAIL() << "a directory was read";
  } catch (const cue::CueError& error) {
    EXPECT_STREQ(error.what(), "/tmp: Is a directory");
  }
}

}  // namespace
