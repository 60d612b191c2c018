#include "src/GrabWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "artnet/ArtNetPackets.h"

/// The writer's inside: a test does the steps of its thread.
class GrabWriterProbe {
public:
  using Time = GrabWriter::Clock::time_point;

  static bool step(GrabWriter& writer, Time now) { return writer.step(now); }

  /// When the thread would do its next step.
  static Time due(GrabWriter& writer) {
    const kesto::MutexLock lock(writer.mutex);
    return writer.due();
  }
  static std::size_t memory(GrabWriter& writer) {
    const kesto::MutexLock lock(writer.mutex);
    return writer.budget.used * RecordBlock::kSize;
  }
};

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Time = GrabWriterProbe::Time;

constexpr std::size_t kMiB = 1 << 20;

/// A disk as the test wants it, with the file of one recording.
struct Disk {
  std::string content;
  bool closed = false;
  std::size_t room = SIZE_MAX;     // bytes that it takes
  std::size_t at_once = SIZE_MAX;  // of them, in one write
  int error = 0;                   // errno of a write without room
  int writes = 0;
  std::function<void()> while_it_writes = [] {};
  FileIdentity identity{1, 1};
};

class DiskFile : public RecordingSink {
public:
  explicit DiskFile(Disk& used) : disk(used) {}
  ~DiskFile() override { disk.closed = true; }
  DiskFile(const DiskFile&) = delete;
  DiskFile& operator=(const DiskFile&) = delete;
  DiskFile(DiskFile&&) = delete;
  DiskFile& operator=(DiskFile&&) = delete;

  ssize_t write(std::string_view bytes) override {
    ++disk.writes;
    // What the disk gets is decided before, as by a write that has begun.
    const std::size_t size = std::min({bytes.size(), disk.room, disk.at_once});
    disk.while_it_writes();
    if (size == 0) {
      errno = disk.error;
      return -1;
    }
    disk.content += bytes.substr(0, size);
    if (disk.room != SIZE_MAX) disk.room -= size;
    return static_cast<ssize_t>(size);
  }
  void cut(std::size_t size) override { disk.content.resize(disk.content.size() - size); }
  qint64 size() const override { return static_cast<qint64>(disk.content.size()); }
  QString name() const override { return QStringLiteral("cue"); }
  FileIdentity identity() const override { return disk.identity; }

private:
  Disk& disk;
};

bool never(std::size_t /*waiting*/) {
  return false;
}
bool always(std::size_t /*waiting*/) {
  return true;
}

std::string delay(std::int64_t pause) {
  const ArtOemVfpsNs record = make_delay_record(pause);
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

GrabWriter::Appended append_after(GrabWriter& writer, std::int64_t pause, const std::string& datagram) {
  const ArtOemVfpsNs record = make_delay_record(pause);
  return writer.append(&record, datagram);
}

/// A writer whose thread is the test.
class GrabWriterSteps : public testing::Test {
protected:
  void begin(Disk& used) { writer.begin(std::make_unique<DiskFile>(used)); }
  GrabWriter::Appended append(const std::string& datagram) { return writer.append(nullptr, datagram); }
  void step() { GrabWriterProbe::step(writer, now); }
  void step_until_idle() {
    while (GrabWriterProbe::step(writer, now)) {
    }
  }
  Time due() { return GrabWriterProbe::due(writer); }

  Time now = GrabWriter::Clock::now() + seconds(100);
  int concluded = 0;
  // A writer that is destroyed closes its files.
  Disk disk;
  Disk next;
  GrabWriter writer{kMiB, [this] { ++concluded; }};
};

TEST_F(GrabWriterSteps, WritesBeforeSixteenKiBHaveComeTogetherOrAfterASecond) {
  EXPECT_EQ(due(), Time::max());
  begin(disk);
  step();
  EXPECT_EQ(due(), now + seconds(1)) << "a look each second";
  for (const std::size_t size : {530U, 8191U, 5460U}) {
    // One more of this size would be too much.
    const std::size_t records = 16384 / size;
    for (std::size_t i = 0; i < records; ++i) {
      EXPECT_EQ(due(), now + seconds(1));
      append(std::string(size, 'a'));
    }
    EXPECT_EQ(due(), Time::min());
    now += milliseconds(300);
    step();
    EXPECT_EQ(due(), now + seconds(1));
  }
  EXPECT_EQ(disk.writes, 3);
}

TEST_F(GrabWriterSteps, WritesOnWhileMuchWaits) {
  begin(disk);
  for (int i = 0; i < 100; ++i) append(std::string(8000, 'a'));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(due(), Time::min());
    step();
  }
  EXPECT_EQ(disk.writes, 3) << "a block each";
}

TEST_F(GrabWriterSteps, TriesAgainSoonAfterAWriteThatFailed) {
  begin(disk);
  disk.room = 0;
  disk.error = ENOSPC;
  EXPECT_EQ(append("first").error, 0);
  step();
  EXPECT_EQ(due(), now + milliseconds(10));
  EXPECT_EQ(append("second").error, ENOSPC);
  disk.room = 3;
  step();
  EXPECT_EQ(disk.content, "fir");
  EXPECT_EQ(append("third").error, 0);
  step();
  disk.room = SIZE_MAX;
  step();
  EXPECT_EQ(append("fourth").error, 0);
  writer.end({});
  EXPECT_EQ(due(), Time::min());
  step_until_idle();
  EXPECT_EQ(disk.content, "firstsecondthirdfourth");
  EXPECT_EQ(due(), Time::max());
}

TEST_F(GrabWriterSteps, TakesASlowReaderForNoFailure) {
  begin(disk);
  disk.room = 0;
  disk.error = EAGAIN;
  append("first");
  step();
  EXPECT_EQ(due(), now + milliseconds(10));
  EXPECT_EQ(append("second").error, 0);
}

TEST_F(GrabWriterSteps, CompletesAFileAfterItsEnd) {
  begin(disk);
  append("first");
  GrabFigures figures;
  figures.packet_count = 1;
  figures.universe_ceiling = 7;
  figures.universes = {7};
  writer.end(std::move(figures));
  EXPECT_EQ(concluded, 0);
  step_until_idle();
  EXPECT_EQ(concluded, 1);
  EXPECT_TRUE(disk.closed);
  const auto grabs = writer.take_concluded();
  ASSERT_EQ(grabs.size(), 1U);
  EXPECT_EQ(grabs[0].summary.file_name, QStringLiteral("cue"));
  EXPECT_FALSE(grabs[0].summary.empty);
  EXPECT_EQ(grabs[0].summary.universe_ceiling, 7);
  EXPECT_EQ(grabs[0].dropped_at_end, 0U);
  EXPECT_TRUE(writer.take_concluded().empty());
}

/// The end of a recording whose file takes nothing more: tries at these milliseconds after it.
TEST_F(GrabWriterSteps, GivesAFileThatFailsOneLastTryAndASlowReaderASecond) {
  struct Row {
    int error;
    std::vector<int> times;
    std::vector<bool> completes;
  };
  for (const Row& row :
       std::vector<Row>{{ENOSPC, {0}, {true}}, {EAGAIN, {0, 500, 999, 1010}, {false, false, false, true}}}) {
    Disk full;
    full.room = 7;
    full.error = row.error;
    begin(full);
    append("first");
    append("second");
    step();
    step();
    writer.end({});
    const Time end = now;
    for (std::size_t i = 0; i < row.times.size(); ++i) {
      EXPECT_LE(due(), end + milliseconds(row.times[i]));
      GrabWriterProbe::step(writer, end + milliseconds(row.times[i]));
      EXPECT_EQ(full.closed, row.completes[i]) << row.times[i];
    }
    EXPECT_EQ(full.content, "first");
    const auto grabs = writer.take_concluded();
    ASSERT_EQ(grabs.size(), 1U);
    EXPECT_EQ(grabs[0].dropped_at_end, 1U);
  }
}

TEST_F(GrabWriterSteps, WaitsAsLongAsASlowReaderReads) {
  disk.error = EAGAIN;
  disk.room = 0;
  begin(disk);
  append("abcdef");
  writer.end({});
  for (const char letter : std::string("abcdef")) {
    step();
    now += milliseconds(999);
    EXPECT_FALSE(disk.closed);
    disk.room = 1;
    step();
    EXPECT_EQ(disk.content.back(), letter);
  }
  EXPECT_TRUE(disk.closed);
}

TEST_F(GrabWriterSteps, WaitsForASlowReaderNoLongerThanTenSecondsInAll) {
  disk.error = EAGAIN;
  disk.room = 0;
  begin(disk);
  append(std::string(100, 'a'));
  writer.end({});
  step();
  const Time refused = now;
  while (!disk.closed && now < refused + seconds(60)) {
    now += milliseconds(500);
    disk.room = 1;
    step();
    step();
  }
  EXPECT_EQ(now, refused + seconds(10));
  EXPECT_EQ(writer.take_concluded().front().dropped_at_end, 1U);
}

TEST_F(GrabWriterSteps, BeginsTheNextRecordingWhileOneIsCompleted) {
  next.identity = {1, 2};
  begin(disk);
  append("first");
  writer.end({});
  begin(next);
  append("second");
  EXPECT_EQ(due(), Time::min());
  step();
  EXPECT_TRUE(disk.closed);
  EXPECT_EQ(disk.content, "first");
  writer.wait_for_ended(never);
  step();
  EXPECT_EQ(next.content, "second");
  EXPECT_FALSE(next.closed);
}

TEST_F(GrabWriterSteps, WaitsForTheFileThatIsAskedFor) {
  next.identity = {1, 2};
  begin(disk);
  append("first");
  writer.end({});
  std::vector<std::size_t> asked;
  const auto patience = [&asked](std::size_t waiting) {
    asked.push_back(waiting);
    return asked.size() < 3;
  };
  writer.wait_for_ended(patience, FileIdentity{1, 2});
  EXPECT_TRUE(asked.empty()) << "another file";
  writer.wait_for_ended(patience, FileIdentity{1, 1});
  EXPECT_EQ(asked, (std::vector<std::size_t>{5, 5, 5}));
  begin(next);
  step_until_idle();
  writer.wait_for_ended(never);
}

TEST_F(GrabWriterSteps, GivesMemoryBack) {
  begin(disk);
  while (append(std::string(8000, 'a')).kept) {
  }
  EXPECT_EQ(GrabWriterProbe::memory(writer), kMiB);
  step_until_idle();
  EXPECT_EQ(GrabWriterProbe::memory(writer), RecordBlock::kSize);
  writer.end({});
  step_until_idle();
  EXPECT_EQ(GrabWriterProbe::memory(writer), 0U);
}

TEST_F(GrabWriterSteps, TellsWhatTheEndOfTheProcessGivesUp) {
  begin(disk);
  append("first");
  disk.while_it_writes = [this] {
    const GrabWriter::Finished finished = writer.finish(never);
    EXPECT_FALSE(finished.all);
    EXPECT_EQ(finished.given_up, 5U);
  };
  writer.end({});
  step();
  EXPECT_EQ(concluded, 0) << "nobody is there to hear it";
}

TEST_F(GrabWriterSteps, CountsTheBytesThatAFullDiskDidNotTakeAtTheEndOfTheProcess) {
  begin(disk);
  append("first");
  append("second");
  disk.room = 7;
  disk.error = ENOSPC;
  writer.start();
  const GrabWriter::Finished finished = writer.finish(always);
  EXPECT_TRUE(finished.all);
  EXPECT_EQ(finished.given_up, 6U) << "the part that fitted is cut off again";
  EXPECT_EQ(disk.content, "first");
  EXPECT_TRUE(writer.take_concluded().empty()) << "closed, not finalised";
}

/// What a recording must leave behind, kept as lists.
struct Model {
  Disk disk;
  std::vector<std::string> kept;
  bool ended = false;
};

/// Files that stall, fail, fill up and recover, in random orders. A stall is a write during which other
/// things happen.
class RandomOrders {
public:
  explicit RandomOrders(unsigned seed) : random(seed) {}

  void run() {
    for (int i = 0; i < 400; ++i) event(0);
    // Every disk recovers or not; then the process ends.
    while (!grabs.empty()) {
      if (chance(2)) recover(*grabs.front());
      if (!grabs.back()->ended) end();
      now += seconds(2);
      step();
      compare();
    }
    EXPECT_TRUE(writer.finish(never).all);
    EXPECT_EQ(GrabWriterProbe::memory(writer), 0U);
  }

  int dropped = 0;
  int given_up = 0;
  int stalls = 0;

private:
  static constexpr std::size_t kMemory = kMiB;

  unsigned pick(unsigned below) { return static_cast<unsigned>(random() % below); }
  bool chance(unsigned once_in) { return pick(once_in) == 0; }

  static void recover(Model& grab) {
    grab.disk.room = SIZE_MAX;
    grab.disk.at_once = SIZE_MAX;
  }

  void event(int depth) {
    switch (pick(10)) {
      case 0:
        if (grabs.empty() || grabs.back()->ended)
          begin(depth);
        else if (chance(4))
          end();
        break;
      case 1:
      case 2:
        if (depth == 0) {
          now += milliseconds(pick(1500));
          step();
        }
        break;
      case 3:
        if (!grabs.empty()) change(grabs[pick(static_cast<unsigned>(grabs.size()))]->disk);
        break;
      default:
        if (!grabs.empty() && !grabs.back()->ended) append();
        break;
    }
    if (depth == 0) compare();
  }

  void change(Disk& disk) {
    switch (pick(4)) {
      case 0:
        disk.room = 0;
        disk.error = chance(2) ? ENOSPC : EAGAIN;
        break;
      case 1:
        disk.room = pick(100000);
        disk.error = chance(2) ? EIO : EAGAIN;
        break;
      case 2:
        disk.at_once = 1 + pick(20000);
        break;
      default:
        disk.room = SIZE_MAX;
        disk.at_once = SIZE_MAX;
        break;
    }
  }

  void begin(int /*depth*/) {
    grabs.push_back(std::make_unique<Model>());
    Model& grab = *grabs.back();
    grab.disk.identity = {1, ++files};
    grab.disk.while_it_writes = [this] {
      if (!chance(5)) return;
      ++stalls;
      for (unsigned i = pick(60); i > 0; --i) event(1);
    };
    writer.begin(std::make_unique<DiskFile>(grab.disk));
  }

  void append() {
    // A burst: as much as the memory holds comes together now and then.
    for (unsigned i = chance(10) ? 120 : 1; i > 0; --i) {
      Model& grab = *grabs.back();
      const auto pause = static_cast<std::int64_t>(grab.kept.size());
      const std::string datagram(1 + pick(8191), static_cast<char>('a' + pick(26)));
      const std::size_t memory = GrabWriterProbe::memory(writer);
      const bool first = grab.kept.empty();
      if ((first ? writer.append(nullptr, datagram) : append_after(writer, pause, datagram)).kept) {
        grab.kept.push_back((first ? "" : delay(pause)) + datagram);
      } else {
        ++dropped;
        EXPECT_GT(memory, kMemory / 2) << "nothing is dropped while there is room";
      }
      EXPECT_LE(GrabWriterProbe::memory(writer), kMemory);
    }
  }

  void end() {
    Model& grab = *grabs.back();
    grab.ended = true;
    GrabFigures figures;
    figures.packet_count = static_cast<qint32>(grab.kept.size());
    // A universe for each record, so that the summary says which of them the file holds.
    for (qint32 i = 0; i < figures.packet_count; ++i) {
      figures.universes.insert(i);
      figures.first_records.push_back({i, i + 1});
      figures.universe_ceiling = i;
    }
    writer.end(std::move(figures));
  }

  void step() { GrabWriterProbe::step(writer, now); }

  void compare() {
    for (const ConcludedGrab& done : writer.take_concluded()) {
      ASSERT_FALSE(grabs.empty());
      Model& grab = *grabs.front();
      EXPECT_TRUE(grab.ended);
      EXPECT_TRUE(grab.disk.closed);
      ASSERT_LE(done.dropped_at_end, grab.kept.size());
      grab.kept.resize(grab.kept.size() - static_cast<std::size_t>(done.dropped_at_end));
      given_up += static_cast<int>(done.dropped_at_end);
      std::string expected;
      for (const std::string& record : grab.kept) expected += record;
      EXPECT_TRUE(grab.disk.content == expected) << "whole records, in order";
      EXPECT_EQ(done.summary.empty, expected.empty());
      EXPECT_EQ(done.summary.universes.size(), grab.kept.size());
      EXPECT_EQ(done.summary.universe_ceiling, static_cast<qint32>(grab.kept.size()) - 1);
      EXPECT_EQ(done.losses.writer, done.dropped_at_end);
      grabs.pop_front();
    }
    // What a file holds meanwhile is the beginning of what was kept.
    for (const auto& grab : grabs) {
      std::string all;
      for (const std::string& record : grab->kept) {
        if (all.size() >= grab->disk.content.size()) break;
        all += record;
      }
      EXPECT_TRUE(all.compare(0, grab->disk.content.size(), grab->disk.content) == 0);
    }
  }

  std::mt19937 random;
  Time now = GrabWriter::Clock::now() + seconds(100);
  ino_t files = 0;
  std::deque<std::unique_ptr<Model>> grabs;
  GrabWriter writer{kMemory, [] {}};
};

TEST(GrabWriter, KeepsWholeRecordsInEveryOrderOfStallsFailuresAndRecoveries) {
  int dropped = 0;
  int given_up = 0;
  int stalls = 0;
  for (unsigned seed = 0; seed < 60; ++seed) {
    SCOPED_TRACE(seed);
    RandomOrders orders(seed);
    orders.run();
    dropped += orders.dropped;
    given_up += orders.given_up;
    stalls += orders.stalls;
    if (testing::Test::HasFailure()) return;
  }
  EXPECT_GT(dropped, 200);
  EXPECT_GT(given_up, 20);
  EXPECT_GT(stalls, 100);
}

/// A gate that a disk waits at.
class Gate {
public:
  void pass() {
    std::unique_lock<std::mutex> lock(mutex);
    arrived = true;
    changed.notify_all();
    changed.wait(lock, [this] { return open; });
  }
  void wait_for_arrival() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return arrived; });
  }
  void let_pass() {
    const std::lock_guard<std::mutex> lock(mutex);
    open = true;
    changed.notify_all();
  }

private:
  std::mutex mutex;
  std::condition_variable changed;
  bool arrived = false;
  bool open = false;
};

TEST(GrabWriterThread, TakesRecordsWhileItsDiskStandsStill) {
  Disk disk;
  Gate gate;
  disk.while_it_writes = [&gate] { gate.pass(); };
  std::atomic<int> concluded{0};
  GrabWriter writer(32 * kMiB, [&concluded] { ++concluded; });
  writer.start();
  writer.begin(std::make_unique<DiskFile>(disk));
  std::string expected;
  for (int i = 0; i < 3000; ++i) {
    const std::string datagram(1 + static_cast<std::size_t>(i) * 7 % 8191, static_cast<char>('a' + i % 26));
    ASSERT_TRUE(append_after(writer, i, datagram).kept);
    expected += delay(i) + datagram;
    if (i == 1000) gate.wait_for_arrival();
  }
  writer.end({});
  gate.let_pass();
  writer.wait_for_ended(always);
  EXPECT_TRUE(disk.content == expected);
  EXPECT_TRUE(disk.closed);
  EXPECT_TRUE(writer.finish(always).all);
  EXPECT_EQ(concluded, 1);
}

TEST(GrabWriterThread, WritesALoneRecordWithoutBeingAsked) {
  Disk disk;
  Gate gate;
  gate.let_pass();
  disk.while_it_writes = [&gate] { gate.pass(); };
  GrabWriter writer(kMiB, [] {});
  writer.start();
  writer.begin(std::make_unique<DiskFile>(disk));
  writer.append(nullptr, "lone");
  gate.wait_for_arrival();
  EXPECT_TRUE(writer.finish(always).all);
  EXPECT_EQ(disk.content, "lone");
}

TEST(GrabWriterThread, WritesWhatSeveralRecordingsLeaveBehindInOrder) {
  constexpr int kGrabs = 200;
  std::vector<Disk> disks(kGrabs);
  std::atomic<int> concluded{0};
  GrabWriter writer(kMiB, [&concluded] { ++concluded; });
  writer.start();
  std::thread receiver([&] {
    for (Disk& disk : disks) {
      writer.begin(std::make_unique<DiskFile>(disk));
      for (int i = 0; i < 50; ++i) writer.append(nullptr, std::string(1000, static_cast<char>('a' + i % 26)));
      writer.end({});
    }
  });
  receiver.join();
  writer.wait_for_ended(always);
  EXPECT_EQ(concluded, kGrabs);
  EXPECT_EQ(writer.take_concluded().size(), static_cast<std::size_t>(kGrabs));
  for (const Disk& disk : disks) EXPECT_TRUE(disk.closed);
  EXPECT_TRUE(writer.finish(always).all);
}

}  // namespace
