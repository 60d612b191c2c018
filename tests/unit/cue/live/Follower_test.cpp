#include "cue/live/Follower.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "cue/GoodRecords.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"
#include "unit/cue/refused_call.h"
#include "unit/support/emulator.h"

using packets::dmx;
using recordings::Chance;
using recordings::Datagram;
using recordings::delay;
using recordings::file_of;
using unit::error_of;

namespace {

const std::string kDmx = dmx("slot");  // 22 bytes

/// One delivered record.
struct Read {
  std::string bytes;
  std::int64_t pause = 0;
  std::int64_t time = 0;
  std::uint64_t offset = 0;

  bool operator==(const Read& other) const {
    return bytes == other.bytes && pause == other.pause && time == other.time && offset == other.offset;
  }
};

struct Reading {
  std::vector<Read> records;
  std::uint64_t damages = 0;
  std::uint64_t damaged_bytes = 0;
};

/// Takes all that there is by now.
template <typename Records>
std::size_t drain(Records& records, Reading& reading) {
  const std::size_t before = reading.records.size();
  cue::Record record;
  while (records.next(record)) {
    reading.records.push_back({std::string(reinterpret_cast<const char*>(record.data), record.size),
                               record.pause, record.time, record.offset});
  }
  return reading.records.size() - before;
}

/// What the reader of whole files reads.
Reading read_whole(const std::string& path) {
  Reading reading;
  cue::GoodRecords records(
      path, [&reading](const cue::RecordingReader&, const cue::Damage&) { ++reading.damages; });
  drain(records, reading);
  reading.damaged_bytes = records.reader().lost_bytes();
  return reading;
}

/// A file that a recorder writes, and its follower.
class Recording {
public:
  explicit Recording(const std::string& front = {}) {
    write(front);
    follower.emplace(path);
  }

  void write(const std::string& bytes) {
    out << bytes;
    out.flush();
  }

  /// @return datagrams that came by these bytes
  std::size_t grow(const std::string& bytes) {
    write(bytes);
    return drain(*follower, reading);
  }

  Reading finish() {
    follower->finish();
    drain(*follower, reading);
    reading.damages = follower->damages();
    reading.damaged_bytes = follower->damaged_bytes();
    return reading;
  }

  unit::Directory directory;
  std::string path = directory / "show.cue";
  std::optional<cue::Follower> follower;
  Reading reading;

private:
  std::ofstream out{path, std::ios::binary};
};

/// Expects the same of a file that grows by portions of these sizes as of the whole file.
template <typename Portion>
void expect_same(const std::string& file, Portion&& portion) {
  Recording recording;
  for (std::size_t at = 0; at < file.size();) {
    const std::size_t size = std::min<std::size_t>(portion(), file.size() - at);
    recording.grow(file.substr(at, size));
    at += size;
  }
  const Reading followed = recording.finish();
  const Reading whole = read_whole(recording.path);
  ASSERT_EQ(followed.records.size(), whole.records.size());
  ASSERT_TRUE(followed.records == whole.records);
  ASSERT_EQ(followed.damages, whole.damages);
  ASSERT_EQ(followed.damaged_bytes, whole.damaged_bytes);
  ASSERT_EQ(recording.follower->size(), file.size());
  ASSERT_FALSE(recording.follower->is_replaced());
}

/// A recording as senders make it, with @p wounds damaged places.
std::string made_up(Chance& chance, unsigned wounds) {
  std::vector<Datagram> datagrams;
  for (unsigned n = chance.below(60); n > 0; --n) datagrams.emplace_back(chance.sent(), chance.pause());
  std::string file = file_of(datagrams);
  for (unsigned n = wounds; n > 0 && !file.empty(); --n) {
    const unsigned at = chance.below(static_cast<unsigned>(file.size()));
    switch (chance.below(5)) {
      case 0:
        file[at] = static_cast<char>(static_cast<unsigned char>(file[at]) ^ 1U << chance.below(8));
        break;
      case 1:
        file.insert(at, chance.anything());
        break;
      case 2:
        file.erase(at, chance.below(700));
        break;
      case 3:
        file.insert(at, std::string(chance.below(20000), chance.below(2) == 0 ? '\0' : 'A'));
        break;
      default: {
        const std::size_t size = std::min<std::size_t>(file.size() - at, chance.below(4096));
        file.replace(at, size, std::string(size, '\0'));
      }
    }
  }
  if (wounds > 0 && chance.below(3) == 0) file += chance.anything();
  return file;
}

TEST(Follower, DeliversADatagramWhenTheNextOneIsWritten) {
  Recording recording(kDmx);
  EXPECT_EQ(recording.grow(""), 0U);
  EXPECT_EQ(recording.grow(delay(7) + dmx("second")), 1U);
  EXPECT_EQ(recording.grow(delay(5) + dmx("third")), 1U);
  EXPECT_EQ(recording.grow(""), 0U);
  const Reading reading = recording.finish();
  const std::vector<Read> expected{{kDmx, 0, 0, 0}, {dmx("second"), 7, 7, 40}, {dmx("third"), 5, 12, 82}};
  EXPECT_TRUE(reading.records == expected);
  EXPECT_EQ(reading.damages, 0U);
}

TEST(Follower, DeliversOneDatagramLateWhateverSendersSend) {
  Chance chance(4);
  Recording recording(chance.sent());
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(recording.grow(delay(chance.pause()) + chance.sent()), 1U) << i;
  EXPECT_EQ(recording.finish().records.size(), 2001U);
  EXPECT_EQ(recording.reading.damages, 0U);
}

TEST(Follower, WaitsForADelayRecordThatIsCutByAPortion) {
  const std::string next = delay(5) + kDmx;
  Recording recording(kDmx);
  for (std::size_t at = 0; at < next.size(); ++at)
    EXPECT_EQ(recording.grow(next.substr(at, 1)), at + 1 == delay(5).size() ? 1U : 0U) << at;
  EXPECT_EQ(recording.finish().records.size(), 2U);
}

TEST(Follower, ReadsAFileThatIsThereBeforeItAndOneWithoutAnything) {
  Recording recording(kDmx + delay(1) + kDmx);
  EXPECT_EQ(recording.finish().records.size(), 2U);
  EXPECT_EQ(recording.grow(""), 0U);
  Recording empty;
  EXPECT_EQ(empty.grow(""), 0U);
  EXPECT_EQ(empty.finish().records.size(), 0U);
  EXPECT_EQ(empty.reading.damages, 0U);
}

TEST(Follower, ReadsTheSameBytesInPortionsOfEverySize) {
  Chance chance(5);
  std::string file = file_of({{chance.sent(), 0}, {chance.sent(), 3}, {chance.sent(), 4}, {kDmx, 5}});
  const std::string damaged = file + "x" + delay(5) + kDmx + delay(6) + kDmx + delay(-7) + kDmx + delay(8);
  for (std::size_t portion = 1; portion < 80; ++portion) {
    expect_same(file, [portion] { return portion; });
    expect_same(damaged, [portion] { return portion; });
  }
}

TEST(Follower, ReadsWhatTheReaderOfWholeFilesReads) {
  Chance chance(6);
  std::uint64_t damaged = 0;
  for (int i = 0; i < 500; ++i) {
    const unsigned wounds = chance.below(6);
    const std::string file = made_up(chance, wounds);
    const unsigned most = i % 3 == 0 ? 60 : i % 3 == 1 ? 3000 : 40000;
    SCOPED_TRACE(i);
    ASSERT_NO_FATAL_FAILURE(expect_same(file, [&] { return 1 + chance.below(most); }));
    damaged += wounds > 0 ? 1 : 0;
  }
  EXPECT_GT(damaged, 300U);
}

TEST(Follower, CountsACutThatCostsNoBytes) {
  Recording recording(kDmx + delay(5));
  EXPECT_EQ(recording.grow(""), 1U);
  EXPECT_EQ(recording.follower->damages(), 0U);  // the rest may come yet
  const Reading reading = recording.finish();
  EXPECT_EQ(reading.damages, 1U);
  EXPECT_EQ(reading.damaged_bytes, 0U);
}

TEST(Follower, GoesOnAfterGarbageWithinTheReachOfAStep) {
  Recording recording(kDmx + delay(5) + std::string(100000, 'x'));
  EXPECT_EQ(recording.grow(""), 1U);
  EXPECT_EQ(recording.follower->damages(), 1U);
  EXPECT_GT(recording.follower->damaged_bytes(), 99000U);
  // A delay record shows that they are good ones again.
  EXPECT_EQ(recording.grow(delay(6) + kDmx), 0U);
  EXPECT_EQ(recording.grow(delay(7) + kDmx), 1U);
  EXPECT_EQ(recording.follower->damaged_bytes(), 100000U);
  EXPECT_EQ(recording.reading.records.back().pause, 11);
}

TEST(Follower, PassesLongDamageInPortions) {
  constexpr std::size_t kDamage = std::size_t{20} << 20;
  Recording recording(kDmx + delay(5) + std::string(kDamage, 'x') + delay(6) + kDmx + delay(7) + kDmx);
  cue::Record record;
  ASSERT_TRUE(recording.follower->next(record));
  EXPECT_FALSE(recording.follower->is_interrupted());
  int portions = 0;
  while (!recording.follower->next(record)) {
    ASSERT_TRUE(recording.follower->is_interrupted());
    ++portions;
  }
  EXPECT_EQ(portions, 4);
  EXPECT_FALSE(recording.follower->is_interrupted());
  EXPECT_EQ(recording.follower->damages(), 1U);
  EXPECT_EQ(recording.follower->damaged_bytes(), kDamage);
  // What has ended is read without a pause.
  Recording ended(kDmx + delay(5) + std::string(kDamage, 'x') + delay(6) + kDmx);
  EXPECT_EQ(ended.finish().records.size(), 2U);
}

TEST(Follower, IsNeverMoreThanTheReachOfAStepBehind) {
  // A packet whose end no good record shows.
  const std::string strange = kDmx + "no packet of a sender";
  std::size_t delivered = 0;
  std::size_t written = 0;
  Recording recording;
  for (int i = 0; i < 500; ++i) {
    const std::string next = (i > 0 ? delay(1) : "") + (i % 5 == 4 ? strange : kDmx);
    written += next.size();
    for (std::size_t n = recording.grow(next); n > 0; --n) {
      const Read& read = recording.reading.records[delivered++];
      EXPECT_EQ(read.bytes, kDmx);
    }
    const std::uint64_t reached = delivered > 0 ? recording.reading.records.back().offset : 0;
    ASSERT_LT(written - reached, 17000U) << i;
  }
  EXPECT_GT(delivered, 100U);
  EXPECT_EQ(recording.finish().records.size(), 500U);
}

TEST(Follower, KeepsUpWithAWriter) {
  Chance chance(7);
  std::vector<Datagram> datagrams;
  for (int i = 0; i < 3000; ++i) datagrams.emplace_back(chance.sent(), i == 0 ? 0 : chance.pause());
  const std::string file = file_of(datagrams);
  Recording recording;
  std::atomic<bool> written{false};
  std::thread writer([&] {
    for (std::size_t at = 0; at < file.size(); at += 7777) recording.write(file.substr(at, 7777));
    written = true;
  });
  while (!written) drain(*recording.follower, recording.reading);
  writer.join();
  const Reading reading = recording.finish();
  ASSERT_EQ(reading.records.size(), datagrams.size());
  for (std::size_t i = 0; i < datagrams.size(); ++i) {
    ASSERT_EQ(reading.records[i].bytes, datagrams[i].first);
    ASSERT_EQ(reading.records[i].pause, datagrams[i].second);
  }
  EXPECT_EQ(reading.damages, 0U);
}

TEST(Follower, SeesThatItsFileIsEmptied) {
  Recording recording(kDmx + delay(5) + kDmx);
  EXPECT_FALSE(recording.follower->is_replaced());
  recording.grow("");
  EXPECT_FALSE(recording.follower->is_replaced());
  recording.directory.write("show.cue", kDmx);
  EXPECT_TRUE(recording.follower->is_replaced());
  EXPECT_EQ(recording.grow(""), 0U);
}

TEST(Follower, SeesThatItsFileIsCutOff) {
  Recording recording(kDmx + std::string(20000, 'x'));
  recording.grow("");
  ASSERT_EQ(truncate(recording.path.c_str(), 10000), 0);
  EXPECT_TRUE(recording.follower->is_replaced());
}

TEST(Follower, SeesThatItsFileIsEmptiedAndHasGrownAgain) {
  Recording recording(kDmx + delay(5) + kDmx);
  recording.grow("");
  recording.directory.write("show.cue", kDmx + delay(6) + kDmx + delay(7) + kDmx);
  EXPECT_TRUE(recording.follower->is_replaced());
}

TEST(Follower, SeesThatItsPathIsGoneOrBelongsToAnotherFile) {
  Recording recording(kDmx + delay(5) + kDmx);
  ASSERT_EQ(rename(recording.path.c_str(), (recording.directory / "other.cue").c_str()), 0);
  EXPECT_TRUE(recording.follower->is_replaced());
  recording.directory.write("show.cue", kDmx + delay(5) + kDmx);
  EXPECT_TRUE(recording.follower->is_replaced());
  // What it has opened can be read to the end.
  EXPECT_EQ(recording.finish().records.size(), 2U);
}

TEST(Follower, RefusesWhatIsNoRecording) {
  const unit::Directory directory;
  const auto error = [](const std::string& path) {
    return error_of([&] { const cue::Follower none(path); });
  };
  EXPECT_EQ(error(directory / "none.cue"), directory / "none.cue: No such file or directory");
  EXPECT_EQ(error(directory.path()), directory.path() + ": not a regular file");
  EXPECT_EQ(error("/dev/null"), "/dev/null: not a regular file");
  ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(error(directory / "pipe"), directory / "pipe: not a regular file");
  const std::string capture =
      directory.write("show.pcap", std::string("\xd4\xc3\xb2\xa1") + std::string(20, '\0'));
  EXPECT_EQ(error(capture), capture + ": a capture, see kadrel-cue import");
}

TEST(Follower, NamesAFileThatCannotBeRead) {
  NOT_UNDER_AN_EMULATOR("seccomp filters");
  Recording recording(kDmx);
  unit::with_refused({{SYS_pread64, EIO}}, [&] {
    cue::Record record;
    EXPECT_EQ(error_of([&] { recording.follower->next(record); }), recording.path + ": Input/output error");
  });
}

}  // namespace
