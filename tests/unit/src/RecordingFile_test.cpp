#include "src/RecordingFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "unit/support/lease_holder.h"
#include "unit/support/room.h"
#include "unit/support/temporary_file.h"

namespace {

using Kept = RecordingFile::Kept;
using unit::LeaseHolder;
using unit::Room;

constexpr qint64 kPlenty = 1000000;

QString text(const std::string& path) {
  return QString::fromStdString(path);
}

std::string content_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(RecordingFileOpen, MakesAFileAndEmptiesOneThatIsThere) {
  const unit::TemporaryFile file("old content");
  const std::string made = file.path() + "_made";
  for (const std::string& path : {file.path(), made}) {
    auto recording = RecordingFile::open(text(path));
    ASSERT_NE(recording, nullptr) << path;
    EXPECT_EQ(recording->name().toStdString(), path);
    EXPECT_EQ(recording->size_on_disk(), 0);
    EXPECT_EQ(recording->append({}, "new"), Kept::Yes);
    EXPECT_EQ(content_of(path), "");
    recording.reset();
    EXPECT_EQ(content_of(path), "new");
  }
  unlink(made.c_str());
}

TEST(RecordingFileOpen, KeepsTheNameAsItWasGiven) {
  const unit::TemporaryFile file("");
  const std::string name = "/tmp/../tmp//" + file.path().substr(5);
  const auto recording = RecordingFile::open(text(name));
  ASSERT_NE(recording, nullptr);
  EXPECT_EQ(recording->name().toStdString(), name);
}

/// A named pipe with a reader that reads when it is told to.
class PipeReader {
public:
  PipeReader() {
    if (mkfifo(path.c_str(), 0600) != 0) abort();
  }
  ~PipeReader() {
    close_end();
    unlink(path.c_str());
  }
  PipeReader(const PipeReader&) = delete;
  PipeReader& operator=(const PipeReader&) = delete;
  PipeReader(PipeReader&&) = delete;
  PipeReader& operator=(PipeReader&&) = delete;

  void open_end() { fd = open(path.c_str(), O_RDONLY | O_NONBLOCK); }
  void close_end() {
    if (fd != -1) close(fd);
    fd = -1;
  }

  /// What is in the pipe.
  std::string read_all() const {
    std::string all;
    char part[4096];
    for (ssize_t size = 1; size > 0;) {
      size = read(fd, part, sizeof part);
      if (size > 0) all.append(part, static_cast<std::size_t>(size));
    }
    return all;
  }

private:
  const unit::TemporaryFile beside{""};
  int fd = -1;

public:
  const std::string path = beside.path() + "_pipe";
};

TEST(RecordingFileOpen, RefusesANamedPipeThatNobodyReads) {
  const PipeReader pipe;
  EXPECT_EQ(RecordingFile::open(text(pipe.path)), nullptr);
}

TEST(RecordingFile, GoesIntoANamedPipeThatIsRead) {
  PipeReader pipe;
  pipe.open_end();
  auto recording = RecordingFile::open(text(pipe.path));
  ASSERT_NE(recording, nullptr);
  EXPECT_EQ(recording->append({}, "first"), Kept::Yes);
  EXPECT_EQ(recording->append("delay", "second"), Kept::Yes);
  EXPECT_EQ(recording->flush(), 0U);
  EXPECT_EQ(recording->size_on_disk(), 0);
  EXPECT_EQ(pipe.read_all(), "firstdelaysecond");
}

TEST(RecordingFile, DropsWholeRecordsWhileTheReaderOfAPipeIsSlow) {
  PipeReader pipe;
  pipe.open_end();
  const auto recording = RecordingFile::open(text(pipe.path));
  ASSERT_NE(recording, nullptr);
  std::string kept;
  std::string read;
  int dropped = 0;
  for (int i = 0; i < 300; ++i) {
    const std::string datagram(1000 + static_cast<std::size_t>(i), static_cast<char>('a' + i % 26));
    if (recording->append("delay", datagram) == Kept::Yes)
      kept += "delay" + datagram;
    else
      ++dropped;
    if (i % 100 == 99) read += pipe.read_all();
  }
  EXPECT_EQ(recording->flush(), 0U);
  read += pipe.read_all();
  EXPECT_GT(dropped, 0);
  EXPECT_TRUE(read == kept);
}

TEST(RecordingFile, OutlivesTheReaderOfAPipe) {
  std::signal(SIGPIPE, SIG_IGN);
  PipeReader pipe;
  pipe.open_end();
  const auto recording = RecordingFile::open(text(pipe.path));
  ASSERT_NE(recording, nullptr);
  pipe.close_end();
  EXPECT_EQ(recording->append({}, std::string(16000, 'a')), Kept::Yes);
  EXPECT_EQ(recording->append({}, std::string(16000, 'b')), Kept::No);
  pipe.open_end();
  EXPECT_EQ(recording->append({}, std::string(16000, 'c')), Kept::Yes);
  EXPECT_EQ(recording->flush(), 0U);
  EXPECT_TRUE(pipe.read_all() == std::string(16000, 'a') + std::string(16000, 'c'));
}

TEST(RecordingFileOpen, WaitsForALeaseThatIsGivenUp) {
  const unit::TemporaryFile file("old content");
  const LeaseHolder holder(file.path(), LeaseHolder::GivesItUp);
  ASSERT_TRUE(holder.holds);
  EXPECT_NE(RecordingFile::open(text(file.path())), nullptr);
  EXPECT_EQ(content_of(file.path()), "");
}

TEST(RecordingFileOpen, RefusesAFileWhoseLeaseIsKept) {
  const unit::TemporaryFile file("old content");
  {
    const LeaseHolder holder(file.path(), LeaseHolder::KeepsIt);
    ASSERT_TRUE(holder.holds);
    EXPECT_EQ(RecordingFile::open(text(file.path())), nullptr);
  }
  EXPECT_EQ(content_of(file.path()), "old content");
}

TEST(RecordingFileOpen, RefusesWhatCannotBeAFile) {
  for (const char* const path : {"/", "/tmp", "/does/not/exist", ""})
    EXPECT_EQ(RecordingFile::open(QString::fromUtf8(path)), nullptr) << path;
}

/// One record for the file, and its fate.
struct Step {
  qint64 room;                  // largest size of the file on this disk, bytes
  char name;                    // fills the record
  std::size_t delay, datagram;  // bytes
  Kept kept;
  qint64 on_disk;  // afterwards
};

struct Course {
  const char* what;
  std::vector<Step> steps;
  qint64 room_at_flush;
  std::size_t lost;
  std::string in_file;  // names of the records, after the flush
};

const std::vector<Course> kCourses = {
    {"nothing is recorded", {}, kPlenty, 0, ""},
    {"little is written by the flush alone",
     {{kPlenty, 'a', 0, 530, Kept::Yes, 0}, {kPlenty, 'b', 18, 530, Kept::Yes, 0}},
     kPlenty,
     0,
     "ab"},
    {"16 KiB are gathered, no byte more",
     {{kPlenty, 'a', 0, 8191, Kept::Yes, 0},
      {kPlenty, 'b', 2, 8191, Kept::Yes, 0},
      {kPlenty, 'c', 0, 1, Kept::Yes, 16384}},
     kPlenty,
     0,
     "abc"},
    {"a record that does not fit waits for the next write",
     {{kPlenty, 'a', 0, 8000, Kept::Yes, 0},
      {kPlenty, 'b', 18, 8000, Kept::Yes, 0},
      {kPlenty, 'c', 18, 8000, Kept::Yes, 16018}},
     kPlenty,
     0,
     "abc"},
    {"a disk without room keeps what was gathered first, until there is room",
     {{0, 'a', 0, 8000, Kept::Yes, 0},
      {0, 'b', 18, 8000, Kept::Yes, 0},
      {0, 'c', 18, 348, Kept::Yes, 0},
      {0, 'd', 18, 348, Kept::No, 0},
      {kPlenty, 'e', 18, 348, Kept::Yes, 16384}},
     kPlenty,
     0,
     "abce"},
    {"once a record was dropped, shorter ones that would fit are dropped, too, until the disk takes "
     "something",
     {{0, 'a', 0, 8000, Kept::Yes, 0},
      {0, 'b', 18, 8000, Kept::Yes, 0},
      {0, 'c', 18, 8000, Kept::No, 0},
      {0, 'd', 18, 2, Kept::No, 0},
      {0, 'e', 18, 8000, Kept::No, 0},
      {1, 'f', 18, 2, Kept::Yes, 1},
      {1, 'g', 18, 8000, Kept::No, 1},
      {1, 'h', 18, 2, Kept::No, 1},
      {kPlenty, 'i', 18, 2, Kept::Yes, 16038}},
     kPlenty,
     0,
     "abfi"},
    {"a disk that takes a part is given the rest once there is room",
     {{5000, 'a', 0, 8000, Kept::Yes, 0},
      {5000, 'b', 18, 8000, Kept::Yes, 0},
      {5000, 'c', 18, 8000, Kept::No, 5000},
      {5000, 'd', 18, 8000, Kept::No, 5000},
      {kPlenty, 'e', 18, 8000, Kept::Yes, 16018}},
     kPlenty,
     0,
     "abe"},
    {"room that comes little by little lets in what fits in the buffer then",
     {{100, 'a', 0, 8000, Kept::Yes, 0},
      {100, 'b', 18, 8000, Kept::Yes, 0},
      {100, 'c', 18, 8000, Kept::No, 100},
      {7000, 'd', 18, 8000, Kept::No, 7000},
      {7700, 'e', 18, 8000, Kept::Yes, 7700},
      {20000, 'f', 18, 8000, Kept::Yes, 20000}},
     kPlenty,
     0,
     "abef"},
    {"a disk that stays full from the first byte on gets nothing",
     {{0, 'a', 0, 530, Kept::Yes, 0}, {0, 'b', 18, 530, Kept::Yes, 0}},
     0,
     2,
     ""},
    {"a record that is written in part when the disk stays full is cut off again",
     {{kPlenty, 'a', 0, 530, Kept::Yes, 0},
      {kPlenty, 'b', 18, 530, Kept::Yes, 0},
      {kPlenty, 'c', 18, 530, Kept::Yes, 0}},
     1000,
     2,
     "a"},
    {"a delay without its datagram is cut off again",
     {{kPlenty, 'a', 0, 530, Kept::Yes, 0}, {kPlenty, 'b', 18, 530, Kept::Yes, 0}},
     530 + 18,
     1,
     "a"},
    {"a disk that is full after a whole record keeps it",
     {{kPlenty, 'a', 0, 530, Kept::Yes, 0}, {kPlenty, 'b', 18, 530, Kept::Yes, 0}},
     530,
     1,
     "a"},
    {"a record cut by one write and cut again by the next is cut off whole",
     {{100, 'a', 0, 8000, Kept::Yes, 0},
      {100, 'b', 18, 8000, Kept::Yes, 0},
      {9000, 'c', 18, 8000, Kept::Yes, 9000},
      {9500, 'd', 18, 8000, Kept::No, 9500}},
     9600,
     2,
     "a"},
    {"what was cut by one write counts as kept once the next has completed it",
     {{9000, 'a', 0, 8000, Kept::Yes, 0},
      {9000, 'b', 18, 8000, Kept::Yes, 0},
      {9000, 'c', 18, 8000, Kept::Yes, 9000}},
     16018 + 10,
     1,
     "ab"},
};

TEST(RecordingFile, HoldsWholeRecordsWhateverTheDiskTakes) {
  for (const Course& course : kCourses) {
    SCOPED_TRACE(course.what);
    const unit::TemporaryFile file("");
    auto recording = RecordingFile::open(text(file.path()));
    ASSERT_NE(recording, nullptr);
    std::map<char, std::string> records;
    for (const Step& step : course.steps) {
      const std::string delay(step.delay, step.name);
      const std::string datagram(step.datagram, step.name);
      records[step.name] = delay + datagram;
      const auto kept = [&] {
        const Room room(step.room);
        return recording->append(delay, datagram);
      }();
      EXPECT_EQ(kept, step.kept) << step.name;
      EXPECT_EQ(recording->size_on_disk(), step.on_disk) << step.name;
    }
    const auto lost = [&] {
      const Room room(course.room_at_flush);
      return recording->flush();
    }();
    std::string expected;
    for (const char name : course.in_file) expected += records[name];
    EXPECT_EQ(lost, course.lost);
    EXPECT_EQ(recording->size_on_disk(), static_cast<qint64>(expected.size()));
    EXPECT_TRUE(content_of(file.path()) == expected);
    recording.reset();
    EXPECT_TRUE(content_of(file.path()) == expected) << "given up means not written later either";
  }
}

TEST(RecordingFile, GoesOnAfterAFlushThatCutARecordOff) {
  const unit::TemporaryFile file("");
  const auto recording = RecordingFile::open(text(file.path()));
  ASSERT_NE(recording, nullptr);
  recording->append({}, "first");
  recording->append("delay", "second");
  {
    const Room room(12);
    EXPECT_EQ(recording->flush(), 1U);
  }
  recording->append("delay", "third");
  EXPECT_EQ(recording->flush(), 0U);
  EXPECT_EQ(content_of(file.path()), "firstdelaythird");
}

TEST(RecordingFile, WritesWhatWasGatheredWhenItIsDestroyed) {
  const unit::TemporaryFile file("");
  auto recording = RecordingFile::open(text(file.path()));
  ASSERT_NE(recording, nullptr);
  recording->append({}, "first");
  recording->append("delay", "second");
  recording.reset();
  EXPECT_EQ(content_of(file.path()), "firstdelaysecond");
}

TEST(RecordingFile, TakesADeviceThatIsAlwaysFull) {
  const auto recording = RecordingFile::open(QStringLiteral("/dev/full"));
  ASSERT_NE(recording, nullptr);
  EXPECT_EQ(recording->append({}, std::string(8000, 'a')), Kept::Yes);
  EXPECT_EQ(recording->append("delay", std::string(8191, 'b')), Kept::Yes);
  EXPECT_EQ(recording->append("delay", std::string(8191, 'c')), Kept::No);
  EXPECT_EQ(recording->flush(), 2U);
  EXPECT_EQ(recording->size_on_disk(), 0);
}

}  // namespace
