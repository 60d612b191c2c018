#include "cue/RecordingReader.h"

#include <gtest/gtest.h>

#include <limits>

#include "cue/CueError.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
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

TEST(RecordingReader, KeepsWhatASenderAddsToAnArtDmx) {
  expect_recovered({{dmx("odd") + '\0', 0}, {dmx("five5") + std::string(3, '\0'), 1}, {kDmx, 2}});
  expect_recovered({{kDmx + std::string(508, '\0'), 0}, {kDmx + std::string(508, 'x'), 5}});
  expect_recovered({{dmx("odd") + '\0' + kDmx, 0}, {kDmx, 5}});
}

TEST(RecordingReader, KeepsSeveralPacketsOfOneDatagramTogether) {
  expect_recovered({{kDmx + kDmx, 0}, {kDmx + kDmx + kDmx, 5}, {kDmx, 5}});
  expect_recovered({{kDmx + packets::poll(), 0}, {packets::poll() + std::string(8, 'x') + kDmx, 5}});
  expect_recovered({{kDmx + packets::unknown(0x5200) + packets::high_first(14) + "..", 0}, {kDmx, 5}});
}

TEST(RecordingReader, KeepsTheLongestDatagram) {
  std::string longest;
  while (longest.size() + 530 + 18 <= 8191) longest += dmx(std::string(512, 'x'));
  longest += dmx(std::string(8191 - longest.size() - 18, 'x'));
  ASSERT_EQ(longest.size(), 8191U);
  expect_recovered({{longest, 0}, {longest, 5}, {longest, 6}});
}

TEST(RecordingReader, TakesNoDelayRecordOutOfSlots) {
  expect_recovered({{dmx(delay(5)), 0}, {dmx("x" + delay(5) + kDmx), 1}, {dmx(kDmx + delay(5) + kDmx), 2}});
}

TEST(RecordingReader, EndsADatagramInAPollReplyThatItCuts) {
  const std::string aligned = dmx(std::string(494, 'x'));  // 512 bytes
  expect_recovered(
      {{aligned + packets::poll_reply(100), 0}, {aligned + packets::poll_reply(), 1}, {kDmx, 2}});
}

TEST(RecordingReader, RefusesWhatTheRecorderDoesNotTake) {
  // The parser reads the poll reply over the beginning of the ArtDmx.
  const std::string datagram = kDmx + packets::poll_reply(100) + kDmx;
  const Reading reading = read(datagram + delay(5) + kDmx);
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{kDmx, 0}}));
  expect_damage(reading, 22, 22, "bytes that belong to no packet");
}

TEST(RecordingReader, TakesTheLongestPauses) {
  expect_recovered({{kDmx, 0}, {kDmx, kLongestPause}, {kDmx, 0}, {kDmx, kLongestPause}});
}

TEST(RecordingReader, TakesNoDamagedRecordForTheRestOfABuffer) {
  for (std::size_t first = 0; first < 8; ++first) {
    for (std::size_t second = 0; second < 8; ++second) {
      std::string id = packets::identifier();
      id[first] = 'x';
      id[second] = 'x';
      for (const std::size_t at : {std::size_t{0}, std::size_t{300}, std::size_t{500}}) {
        std::string rest(508, 'A');
        rest.replace(at, 8, id);
        EXPECT_TRUE(read(kDmx + rest + delay(5) + kDmx).damage) << first << " " << second << " " << at;
      }
    }
  }
}

struct DamageCase {
  const char* what;
  std::string file;
  std::vector<Datagram> good;
  std::string text;  // of the first damage
};

TEST(RecordingReader, FindsWhatNoSenderSends) {
  constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
  const std::vector<Datagram> two{{kDmx, 0}, {kDmx, 5}};
  const std::string unknown = "bytes that belong to no packet";
  const std::string impossible = "a delay record with a pause that is not possible";
  const std::vector<DamageCase> cases{
      {"bytes before an ArtDmx", "junk" + kDmx + delay(5) + kDmx, two, unknown},
      {"bytes after an ArtDmx", kDmx + "x" + delay(5) + kDmx, two, unknown},
      {"bytes between two", kDmx + "x" + kDmx + delay(5) + kDmx, {{kDmx, 0}, {kDmx, 0}, {kDmx, 5}}, unknown},
      {"bytes after the last", kDmx + delay(5) + kDmx + "xx", two, unknown},
      {"four zeros after one", kDmx + std::string(4, '\0') + delay(5) + kDmx, two,
       "zeros where a record should be"},
      {"zeros after the last", kDmx + delay(5) + kDmx + std::string(8192, '\0'), two,
       "zeros where a record should be"},
      {"a delay record at the beginning", delay(7) + kDmx + delay(5) + kDmx, two, unknown},
      {"two delay records", kDmx + delay(2) + delay(3) + kDmx, two, unknown},
      {"a delay record and no ArtDmx", kDmx + delay(2) + "broken" + delay(3) + kDmx, two, unknown},
      {"an ArtDmx of 513 slots", kDmx + delay(2) + packets::dmx_announcing(513, "slots") + delay(3) + kDmx,
       two, unknown},
      {"kadrel's own OpCodes", kDmx + packets::oem_vfps() + delay(5) + kDmx, two, "a damaged delay record"},
      {"an end in the beginning of an identifier", kDmx + "Art-Ne" + delay(5) + kDmx, two, unknown},
      {"a negative pause", kDmx + delay(5 | kLeast) + kDmx, two, impossible},
      {"the least pause", kDmx + delay(kLeast) + kDmx, {{kDmx, 0}, {kDmx, 0}}, impossible},
      {"a pause of -1", kDmx + delay(-1) + kDmx, {{kDmx, 0}, {kDmx, 0}}, impossible},
      {"a pause of more than 366 days",
       kDmx + delay(5) + kDmx + delay(kLongestPause + 1) + kDmx,
       {{kDmx, 0}, {kDmx, 5}, {kDmx, 0}},
       impossible},
      {"pauses of more than 366 days together",
       kDmx + delay(kLongestPause) + "broken" + delay(5) + kDmx,
       {{kDmx, 0}, {kDmx, kLongestPause}},
       unknown},
  };
  for (const DamageCase& damage : cases) {
    SCOPED_TRACE(damage.what);
    cue::RecordingReader reader = recordings::reader_of(damage.file);
    Reading reading;
    recordings::read_over(reader, reading);
    EXPECT_EQ(reading.datagrams, damage.good);
    ASSERT_EQ(reading.damages.size(), 1U);
    EXPECT_EQ(reading.damages.front().what, damage.text);
  }
}

TEST(RecordingReader, AnArtDmxThatLostItsEndTakesNoDatagramWithIt) {
  const std::vector<Datagram> small(6, {kDmx, 5});
  const std::string full = dmx(std::string(512, 'x'));
  const std::string rest = file_of(small) + delay(7) + full + delay(8) + kDmx;
  for (const std::size_t kept : {18U, 100U, 400U, 500U, 529U}) {
    cue::RecordingReader reader =
        recordings::reader_of(kDmx + delay(3) + full.substr(0, kept) + delay(4) + rest);
    Reading reading;
    recordings::read_over(reader, reading);
    ASSERT_EQ(reading.datagrams.size(), 9U) << kept;
    EXPECT_EQ(reading.datagrams[1], (Datagram{kDmx, 7}));
    ASSERT_EQ(reading.damages.size(), 1U);
    EXPECT_EQ(reading.damages.front().what, "a datagram that runs into the next one");
    EXPECT_EQ(reading.damages.front().offset, 40U);
    EXPECT_EQ(reader.lost_bytes(), kept);
  }
}

TEST(RecordingReader, ADelayRecordInTheSlotsBeforeDamageIsNoDatagramLost) {
  const std::string holder = dmx("slots" + delay(5) + kDmx);
  EXPECT_EQ(read(holder + std::string(4096, '\0')).datagrams, (std::vector<Datagram>{{holder, 0}}));
}

TEST(RecordingReader, NamesAFileOfAnotherProgram) {
  const unit::Directory directory;
  try {
    const cue::RecordingReader reader(directory.write("show", "\xD4\xC3\xB2\xA1" + kDmx));
    FAIL() << "a capture was taken for a recording";
  } catch (const cue::CueError& error) {
    EXPECT_EQ(error.what(), directory / "show: a capture, see kadrel-cue import");
  }
}

TEST(RecordingReader, SplitsADatagramThatIsARecordingItself) {
  EXPECT_EQ(read(kDmx + delay(5) + kDmx).datagrams, (std::vector<Datagram>{{kDmx, 0}, {kDmx, 5}}));
}

// The model: whatever senders send is read as it was sent; whatever damage is done to the file is told, or
// leaves every datagram where it was.

std::vector<Datagram> show(recordings::Chance& chance, unsigned datagrams) {
  std::vector<Datagram> made;
  for (unsigned n = datagrams; n > 0; --n) made.emplace_back(chance.sent(), chance.pause());
  return made;
}

/// Offsets of the delay records of the file of these datagrams.
std::vector<std::size_t> delays_of(const std::vector<Datagram>& datagrams) {
  std::vector<std::size_t> offsets;
  std::size_t at = 0;
  for (const Datagram& datagram : datagrams) {
    if (at > 0) offsets.push_back(at - 18);
    at += datagram.first.size() + 18;
  }
  return offsets;
}

Reading read_whole(const std::string& file) {
  cue::RecordingReader reader = recordings::reader_of(file);
  Reading reading;
  recordings::read_over(reader, reading);
  return reading;
}

/// The bytes of the datagrams.
std::vector<std::string> bytes_of_all(const std::vector<Datagram>& datagrams) {
  std::vector<std::string> bytes;
  for (const Datagram& datagram : datagrams) bytes.push_back(datagram.first);
  return bytes;
}

TEST(RecordingReader, RecoversWhateverSendersSend) {
  recordings::Chance chance(2);
  for (int i = 0; i < 1000; ++i) ASSERT_NO_FATAL_FAILURE(expect_recovered(show(chance, 1 + chance.below(6))));
}

TEST(RecordingReader, SeesEveryFlippedBitInTheHeaderOfADelayRecordAndLosesNoDatagram) {
  recordings::Chance chance(6);
  for (int i = 0; i < 10; ++i) {
    const std::vector<Datagram> sent = show(chance, 5);
    const std::string file = file_of(sent);
    for (const std::size_t at : delays_of(sent)) {
      for (std::size_t bit = 0; bit < 80; ++bit) {
        std::string damaged = file;
        damaged[at + bit / 8] = static_cast<char>(damaged[at + bit / 8] ^ 1 << bit % 8);
        const Reading reading = read_whole(damaged);
        ASSERT_EQ(reading.damages.size(), 1U) << bit << " of " << testing::PrintToString(file);
        ASSERT_EQ(bytes_of_all(reading.datagrams), bytes_of_all(sent)) << bit;
        ASSERT_EQ(reading.datagrams.back().second, sent.back().second);
      }
    }
  }
}

TEST(RecordingReader, LosesNoDatagramByAFlippedBitInAPauseAndSeesThoseOfMoreThanAYear) {
  recordings::Chance chance(7);
  for (int i = 0; i < 10; ++i) {
    const std::vector<Datagram> sent = show(chance, 5);
    const std::string file = file_of(sent);
    for (const std::size_t at : delays_of(sent)) {
      for (std::size_t bit = 80; bit < 144; ++bit) {
        std::string damaged = file;
        damaged[at + bit / 8] = static_cast<char>(damaged[at + bit / 8] ^ 1 << bit % 8);
        const Reading reading = read_whole(damaged);
        ASSERT_EQ(bytes_of_all(reading.datagrams), bytes_of_all(sent)) << bit;
        ASSERT_EQ(reading.damages.size(), bit < 135 ? 0U : 1U) << bit;
      }
    }
  }
}

TEST(RecordingReader, SeesAZeroedPageWhereverItHidesADatagram) {
  recordings::Chance chance(8);
  for (int i = 0; i < 30; ++i) {
    const std::vector<Datagram> sent = show(chance, 60);
    const std::string file = file_of(sent);
    const std::vector<std::size_t> delays = delays_of(sent);
    for (std::size_t page = 0; page + 4096 < file.size(); page += 512) {
      std::string damaged = file;
      std::fill_n(damaged.begin() + static_cast<std::ptrdiff_t>(page), 4096, '\0');
      const Reading reading = read_whole(damaged);
      ASSERT_FALSE(reading.damages.empty()) << page << " of " << testing::PrintToString(file);
      // Every datagram that the page does not touch is there.
      std::size_t untouched = 0;
      for (std::size_t n = 0, at = 0; n < sent.size(); at += sent[n].first.size() + 18, ++n)
        untouched += at >= page + 4096 || at + sent[n].first.size() <= page ? 1 : 0;
      ASSERT_GE(reading.datagrams.size(), untouched) << page;
    }
  }
}

TEST(RecordingReader, SeesZerosAfterTheLastDatagramBeyondWhatASenderAdds) {
  recordings::Chance chance(9);
  for (int i = 0; i < 100; ++i) {
    std::vector<Datagram> sent = show(chance, 2);
    sent.emplace_back(chance.dmx(), 5);
    const std::size_t last = sent.back().first.size();
    for (const std::size_t zeros : {1U, 3U, 4U, 17U, 18U, 512U, 4096U, 8192U, 20000U}) {
      const Reading reading = read_whole(file_of(sent) + std::string(zeros, '\0'));
      ASSERT_EQ(reading.damages.empty(), zeros <= 3 || last + zeros == 530) << last << "+" << zeros;
      ASSERT_EQ(reading.datagrams.size(), sent.size());
      ASSERT_EQ(reading.datagrams.back().first.substr(0, last), sent.back().first);
    }
  }
}

TEST(RecordingReader, SeesEveryCutButThatBehindAPacket) {
  recordings::Chance chance(10);
  for (int i = 0; i < 60; ++i) {
    std::vector<Datagram> sent;
    for (int n = 0; n < 4; ++n) sent.emplace_back(chance.dmx(), 5);
    const std::string file = file_of(sent);
    std::size_t end = 0;    // of the last whole datagram
    std::size_t whole = 0;  // datagrams
    for (std::size_t size = 1; size <= file.size(); ++size) {
      const std::size_t next_end = (whole == 0 ? 0 : end + 18) + (whole < 4 ? sent[whole].first.size() : 1);
      if (size == next_end) {
        end = size;
        ++whole;
      }
      const Reading reading = read_whole(file.substr(0, size));
      ASSERT_EQ(reading.damages.empty(), size == end) << size;
      ASSERT_EQ(reading.datagrams.size(), whole) << size;
    }
  }
}

/// Whether the file is read as the one that was written: the same datagrams at the same places.
bool same_places(const Reading& reading, const std::vector<Datagram>& sent) {
  if (reading.datagrams.size() != sent.size()) return false;
  std::size_t at = 0;
  for (std::size_t n = 0; n < sent.size(); at += sent[n].first.size() + 18, ++n)
    if (reading.offsets[n] != at || reading.datagrams[n].first.size() != sent[n].first.size()) return false;
  return true;
}

TEST(RecordingReader, TellsOfRandomDamageOrReadsEveryDatagramInItsPlace) {
  recordings::Chance chance(11);
  int seen = 0;
  for (int i = 0; i < 20000; ++i) {
    std::vector<Datagram> sent;
    for (int n = 0; n < 6; ++n)
      sent.emplace_back(dmx(std::string(512, static_cast<char>(chance.below(256)))), 5);
    std::string damaged = file_of(sent);
    const unsigned burst = 1 + chance.below(200);
    const unsigned at = chance.below(static_cast<unsigned>(damaged.size()) - burst);
    for (unsigned n = 0; n < burst; ++n) damaged[at + n] = static_cast<char>(chance.below(256));
    const Reading reading = read_whole(damaged);
    ASSERT_TRUE(!reading.damages.empty() || same_places(reading, sent)) << at << "+" << burst;
    seen += reading.damages.empty() ? 0 : 1;
  }
  EXPECT_GT(seen, 1000);
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
      expect_damage(reading, 0, 0, "cut off within a datagram");
    } else if (size < good_end + 18) {
      expect_damage(reading, good_end, good_end, "cut off within a delay record");
    } else {
      expect_damage(reading, good_end + 18, good_end,
                    size == good_end + 18 ? "cut off behind a delay record" : "cut off within a datagram");
    }
  }
}

TEST(RecordingReader, SaysWhereAForeignFileBreaks) {
  expect_damage(read("#!/bin/sh\n"), 0, 0, "bytes that belong to no packet");
  expect_damage(read(std::string(100000, '\0')), 0, 0, "zeros where a record should be");
  expect_damage(read(packets::poll()), 0, 0, "cut off within a datagram");
}

TEST(RecordingReader, SaysThatADatagramIsTooLong) {
  std::string packets;
  for (int i = 0; i < 16; ++i) packets += dmx(std::string(512, 'x'));
  const Reading reading = read(packets + delay(5) + kDmx);
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{packets.substr(0, 15 * 530), 0}}));
  expect_damage(reading, 15 * 530, 15 * 530, "no end of a datagram within 8191 bytes");
}

TEST(RecordingReader, ReadsOnAfterADatagramThatIsTooLong) {
  std::string packets;
  for (int i = 0; i < 3000; ++i) packets += dmx("");
  const Reading reading = read_whole(packets + delay(5) + kDmx);
  EXPECT_EQ(reading.datagrams.front().first.size(), 8190U);
  EXPECT_EQ(reading.datagrams.back(), (Datagram{kDmx, 5}));
}

TEST(RecordingReader, TakesNoArtDmxOutOfTheSlotsOfADamagedOne) {
  std::string broken = dmx("x" + dmx("inner", 7) + "x");
  broken[0] = 'a';
  const Reading reading = read_whole(kDmx + delay(5) + broken + delay(6) + kDmx);
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{kDmx, 0}, {kDmx, 11}}));
}

TEST(RecordingReader, TakesNoDamagedDelayRecordOutOfWhatIsBeforeTheDamage) {
  // Identifier and OpCode of a delay record begin in good bytes, and an ArtDmx is where its pause would end.
  const std::string header = delay(0).substr(0, 10);
  const std::string broken = kDmx + "this is no end of a datagram";
  const std::string in_slots = dmx(header) + std::string(8, 'x') + broken;
  Reading reading = read_whole(in_slots);
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{dmx(header), 0}}));

  const std::int64_t identifier = 0x0000'654E'2D74'7241;  // "Art-Ne", and two bytes that differ
  const std::string in_pause = kDmx + delay(identifier) + header.substr(8) + std::string(8, 'x') + broken;
  reading = read_whole(in_pause);
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{kDmx, 0}}));
}

TEST(RecordingReader, CountsTheBytesThatAreLost) {
  std::string broken = kDmx;
  broken[0] = 'a';
  const std::vector<std::pair<std::string, std::uint64_t>> cases{
      {kDmx + delay(5) + broken + delay(6) + kDmx, 22},
      {kDmx + delay(-1) + kDmx, 0},
      {kDmx + std::string(18, 'x') + kDmx, 18},
      {kDmx + "brt-Net" + delay(5).substr(7) + kDmx, 0},
      {kDmx + "xx" + "brt-Net" + delay(5).substr(7) + kDmx, 2},
      {kDmx + std::string(9000, '\0'), 9000},
      {std::string(9000, '\0') + delay(5) + kDmx, 9000}};
  for (const auto& [file, lost] : cases) {
    cue::RecordingReader reader = recordings::reader_of(file);
    Reading reading;
    recordings::read_over(reader, reading);
    EXPECT_EQ(reader.lost_bytes(), lost) << testing::PrintToString(file);
  }
}

TEST(RecordingReader, FindsADamagedDelayRecordInPortionsOfAnySize) {
  std::string file;
  for (int i = 0; i < 400; ++i) file += dmx(std::string(512, 'x')) + "Art-Nut" + delay(5).substr(7);
  file += kDmx;
  for (const std::size_t portion : {std::size_t{1}, std::size_t{1000}, std::size_t{1} << 20U}) {
    cue::RecordingReader reader(recordings::source_of(file, portion), "show.cue", 0);
    Reading reading;
    recordings::read_over(reader, reading);
    EXPECT_EQ(reading.datagrams.size(), 401U);
    EXPECT_EQ(reading.times.back(), 400 * 5);
    EXPECT_EQ(reader.lost_bytes(), 0U);
  }
}

TEST(RecordingReader, GoesOnBehindADamage) {
  const std::string rubbish(20000, '\x55');
  cue::RecordingReader reader =
      recordings::reader_of(kDmx + delay(5) + kDmx + delay(6) + rubbish + delay(7) + kDmx + delay(8) + kDmx);
  Reading reading;
  recordings::read_on(reader, reading);
  expect_damage(reading, 80, 62, "bytes that belong to no packet");
  ASSERT_TRUE(reader.resume());
  recordings::read_on(reader, reading);
  EXPECT_FALSE(reading.damage);
  // The pause across the damage is that of the delay records before and after it.
  EXPECT_EQ(reading.datagrams, (std::vector<Datagram>{{kDmx, 0}, {kDmx, 5}, {kDmx, 13}, {kDmx, 8}}));
  EXPECT_EQ(reading.times, (std::vector<std::int64_t>{0, 5, 18, 26}));
}

TEST(RecordingReader, PassesOverRowsOfPacketsThatEndBadly) {
  std::string row;
  for (int i = 0; i < 300; ++i) row += dmx("ab") + (i % 7 == 0 ? std::string(2, '\0') : "");
  // The second row is within the slots of a packet of the first.
  const std::string file = dmx("a") + "junk" + row + dmx(row.substr(0, 500)) + row + "junk" + row + "junk" +
                           delay(9) + dmx("z") + delay(5) + dmx("y");
  cue::RecordingReader reader(recordings::source_of(file, 4096), "show.cue");
  std::vector<std::string> found;
  cue::Record record;
  do {
    while (reader.next(record)) found.emplace_back(reinterpret_cast<const char*>(record.data), record.size);
  } while (reader.resume());
  EXPECT_EQ(found, (std::vector<std::string>{dmx("a"), dmx("z"), dmx("y")}));
  EXPECT_EQ(reader.lost_bytes(), file.size() - found.size() * dmx("a").size() - 2 * delay(1).size());
}

TEST(RecordingReader, FindsTheFirstDatagramBehindABrokenBeginning) {
  cue::RecordingReader reader =
      recordings::reader_of(std::string(9000, 'x') + delay(7) + kDmx + delay(8) + kDmx);
  Reading reading;
  recordings::read_on(reader, reading);
  expect_damage(reading, 0, 0, "bytes that belong to no packet");
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
  EXPECT_EQ(unit::error_of([] { cue::RecordingReader("/nowhere/show.cue"); }),
            "/nowhere/show.cue: No such file or directory");
  EXPECT_EQ(unit::error_of([] { cue::RecordingReader("/tmp"); }), "/tmp: Is a directory");
}

}  // namespace
