#include "src/RecordingFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "unit/support/lease_holder.h"
#include "unit/support/room.h"
#include "unit/support/temporary_file.h"

namespace {

/// Calls of sync_file_range: offset, bytes, flags.
using Told = std::tuple<off64_t, off64_t, unsigned int>;
std::vector<Told> told;

}  // namespace

// The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" int __real_sync_file_range(int fd, off64_t offset, off64_t size, unsigned int flags);
extern "C" int __wrap_sync_file_range(int fd, off64_t offset, off64_t size, unsigned int flags) {
  told.emplace_back(offset, size, flags);
  return __real_sync_file_range(fd, offset, size, flags);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using unit::LeaseHolder;
using unit::Room;

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
    const auto recording = RecordingFile::open(text(path));
    ASSERT_NE(recording, nullptr) << path;
    EXPECT_EQ(recording->name().toStdString(), path);
    EXPECT_EQ(recording->size(), 0);
    EXPECT_EQ(recording->write("new"), 3);
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
  const auto recording = RecordingFile::open(text(pipe.path));
  ASSERT_NE(recording, nullptr);
  EXPECT_EQ(recording->write("some bytes"), 10);
  recording->cut(3);
  EXPECT_EQ(recording->size(), 0);
  EXPECT_EQ(pipe.read_all(), "some bytes");
}

TEST(RecordingFile, NeverWaitsForTheReaderOfAPipe) {
  PipeReader pipe;
  pipe.open_end();
  const auto recording = RecordingFile::open(text(pipe.path));
  ASSERT_NE(recording, nullptr);
  const std::string bytes(1 << 20, 'a');
  const ssize_t taken = recording->write(bytes);
  EXPECT_GT(taken, 0);
  EXPECT_EQ(recording->write(bytes), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(pipe.read_all().size(), static_cast<std::size_t>(taken));
  EXPECT_GT(recording->write(bytes), 0);
}

TEST(RecordingFile, OutlivesTheReaderOfAPipe) {
  std::signal(SIGPIPE, SIG_IGN);
  PipeReader pipe;
  pipe.open_end();
  const auto recording = RecordingFile::open(text(pipe.path));
  ASSERT_NE(recording, nullptr);
  pipe.close_end();
  EXPECT_EQ(recording->write("nobody hears"), -1);
  EXPECT_EQ(errno, EPIPE);
  pipe.open_end();
  EXPECT_EQ(recording->write("this is heard"), 13);
  EXPECT_EQ(pipe.read_all(), "this is heard");
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

TEST(RecordingFile, TakesWhatThereIsRoomForAndSaysWhyNoMore) {
  const unit::TemporaryFile file("");
  const auto recording = RecordingFile::open(text(file.path()));
  ASSERT_NE(recording, nullptr);
  {
    const Room room(7);
    EXPECT_EQ(recording->write("0123456789"), 7);
    EXPECT_EQ(recording->write("789"), -1);
    EXPECT_EQ(errno, EFBIG);
  }
  EXPECT_EQ(recording->write("789"), 3);
  EXPECT_EQ(recording->size(), 10);
  recording->cut(4);
  EXPECT_EQ(content_of(file.path()), "012345");
  EXPECT_EQ(recording->write("abc"), 3);
  EXPECT_EQ(content_of(file.path()), "012345abc");
}

TEST(RecordingFile, HoldsWhateverItIsGivenThroughManyPieces) {
  const unit::TemporaryFile file("");
  const auto recording = RecordingFile::open(text(file.path()));
  ASSERT_NE(recording, nullptr);
  std::string expected;
  for (int i = 0; i < 40; ++i) {
    const std::string bytes(100000 + static_cast<std::size_t>(i), static_cast<char>('a' + i % 26));
    ASSERT_EQ(recording->write(bytes), static_cast<ssize_t>(bytes.size()));
    expected += bytes;
  }
  EXPECT_EQ(recording->size(), static_cast<qint64>(expected.size()));
  EXPECT_TRUE(content_of(file.path()) == expected);
}

TEST(RecordingFile, TellsTheDiskToTakeWholePiecesAndWaitsForNone) {
  constexpr off64_t kPiece = 1 << 20;
  const unit::TemporaryFile file("");
  const auto recording = RecordingFile::open(text(file.path()));
  ASSERT_NE(recording, nullptr);
  told.clear();
  // Pieces that end with a write, within one, and two within one.
  for (const off64_t size : {kPiece - 1, off64_t{1}, kPiece + 1, kPiece - 2, 2 * kPiece, off64_t{1}})
    ASSERT_EQ(recording->write(std::string(static_cast<std::size_t>(size), 'a')), size);
  const std::vector<Told> expected = {{0, kPiece, SYNC_FILE_RANGE_WRITE},
                                      {kPiece, kPiece, SYNC_FILE_RANGE_WRITE},
                                      {2 * kPiece, 2 * kPiece, SYNC_FILE_RANGE_WRITE},
                                      {4 * kPiece, kPiece, SYNC_FILE_RANGE_WRITE}};
  EXPECT_EQ(told, expected);
}

TEST(RecordingFile, SaysThatADeviceIsFull) {
  const auto recording = RecordingFile::open(QStringLiteral("/dev/full"));
  ASSERT_NE(recording, nullptr);
  EXPECT_EQ(recording->write("bytes"), -1);
  EXPECT_EQ(errno, ENOSPC);
  recording->cut(3);
  EXPECT_EQ(recording->size(), 0);
}

TEST(RecordingFile, IsTheSameByEachOfItsNames) {
  const unit::TemporaryFile file("");
  const std::string link = file.path() + "_link";
  ASSERT_EQ(symlink(file.path().c_str(), link.c_str()), 0);
  const auto recording = RecordingFile::open(text(link));
  ASSERT_NE(recording, nullptr);
  for (const std::string& path : {file.path(), link}) {
    const auto identity = FileIdentity::of(text(path));
    EXPECT_TRUE(identity && *identity == recording->identity()) << path;
  }
  EXPECT_FALSE(*FileIdentity::of(QStringLiteral("/dev/null")) == recording->identity());
  EXPECT_FALSE(FileIdentity::of(QStringLiteral("/does/not/exist")));
  unlink(link.c_str());
}

/// The descriptor of this process for a file.
int descriptor_of(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (std::filesystem::read_symlink(entry.path(), ignored) == path)
      return std::stoi(entry.path().filename());
  }
  return -1;
}

TEST(RecordingFile, GrowsBeyond2And4GiB) {
  const unit::TemporaryFile file("");
  const auto recording = RecordingFile::open(text(file.path()));
  ASSERT_NE(recording, nullptr);
  const int fd = descriptor_of(file.path());
  for (const qint64 border : {qint64{1} << 31, qint64{1} << 32}) {
    // What lies before takes no room.
    ASSERT_EQ(lseek(fd, border - 3, SEEK_SET), border - 3);
    EXPECT_EQ(recording->write("across"), 6);
    EXPECT_EQ(recording->write("beyond"), 6);
    EXPECT_EQ(recording->size(), border + 9);
    std::ifstream read(file.path(), std::ios::binary);
    read.seekg(border - 3);
    std::string found(12, ' ');
    read.read(found.data(), 12);
    EXPECT_EQ(found, "acrossbeyond");
  }
}

TEST(RecordingFile, CountsBeyond4GiBWhatTheDiskIsToldToTake) {
  constexpr std::size_t kPortion = 1 << 30;
  // Never touched, so it takes no memory.
  void* const bytes = mmap(nullptr, kPortion, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(bytes, MAP_FAILED);
  const auto recording = RecordingFile::open(QStringLiteral("/dev/null"));
  ASSERT_NE(recording, nullptr);
  told.clear();
  std::vector<Told> expected;
  for (off64_t i = 0; i < 5; ++i) {
    ASSERT_EQ(recording->write({static_cast<const char*>(bytes), kPortion}), static_cast<ssize_t>(kPortion));
    expected.emplace_back(i << 30, kPortion, SYNC_FILE_RANGE_WRITE);
  }
  EXPECT_EQ(told, expected);
  munmap(bytes, kPortion);
}

TEST(FileIdentity, IsThatOfAFileOf2040) {
  const unit::TemporaryFile file("");
  constexpr time_t k2040 = 2'208'988'800;
  const timespec times[2] = {{k2040, 0}, {k2040, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.path().c_str(), times, 0), 0);
  EXPECT_TRUE(FileIdentity::of(text(file.path())));
}

}  // namespace
