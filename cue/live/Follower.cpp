#include "cue/live/Follower.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "cue/CueError.h"
#include "cue/Import.h"

namespace cue {
namespace {

// Bytes by which a file is known again: the pauses of some datagrams, in nanoseconds, are in them.
constexpr std::size_t kFront = 4096;

// Bytes that one call passes without a datagram, so that damage of any length keeps nobody waiting.
constexpr std::size_t kMostPassed = std::size_t{4} << 20;

/// The file, and how far it has been read.
class GrowingFile {
public:
  explicit GrowingFile(const std::string& file_path) : path(file_path), fd(open_regular(file_path)) {
    if (fd == -1) throw file_error(path, errno);
    const struct stat opened = status();
    if (!S_ISREG(opened.st_mode)) {
      close(fd);
      throw CueError(path + ": not a regular file");
    }
  }
  ~GrowingFile() { close(fd); }
  GrowingFile(const GrowingFile&) = delete;
  GrowingFile& operator=(const GrowingFile&) = delete;
  GrowingFile(GrowingFile&&) = delete;
  GrowingFile& operator=(GrowingFile&&) = delete;

  const std::string& name() const { return path; }

  std::uint64_t size() const { return static_cast<std::uint64_t>(status().st_size); }

  /// Goes on where the call before ended. @return 0 when there is nothing by now
  std::size_t read(std::uint8_t* bytes, std::size_t wanted) {
    const std::size_t count = read_at(bytes, wanted, offset);
    if (front.size() < kFront)
      front.insert(front.end(), bytes, bytes + std::min(count, kFront - front.size()));
    offset += count;
    return count;
  }

  /// The first bytes that there are by now, at most @p wanted of them.
  std::vector<std::uint8_t> peek(std::size_t wanted) const {
    std::vector<std::uint8_t> bytes(wanted);
    bytes.resize(read_at(bytes.data(), wanted, 0));
    return bytes;
  }

  bool is_replaced() const {
    struct stat named {};
    if (stat(path.c_str(), &named) == -1) return true;
    const struct stat own = status();
    if (named.st_dev != own.st_dev || named.st_ino != own.st_ino || size() < offset) return true;
    return peek(front.size()) != front;
  }

private:
  /// Does not wait for the writer of a pipe. @return -1 with errno
  static int open_regular(const std::string& path) {
    return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  }

  struct stat status() const {
    struct stat now {};
    if (fstat(fd, &now) == -1) throw file_error(path, errno);
    return now;
  }

  std::size_t read_at(std::uint8_t* bytes, std::size_t wanted, std::uint64_t at) const {
    for (;;) {
      const ssize_t count = pread(fd, bytes, wanted, static_cast<off_t>(at));
      if (count >= 0) return static_cast<std::size_t>(count);
      if (errno != EINTR) throw file_error(path, errno);
    }
  }

  // Constant after construction.
  std::string path;
  int fd;

  std::uint64_t offset = 0;
  std::vector<std::uint8_t> front;  // the first bytes that were read
};

}  // namespace

class Follower::Parts {
public:
  explicit Parts(const std::string& path)
      : file(path),
        reader([this](std::uint8_t* bytes, std::size_t size) { return read(bytes, size); }, path) {
    const std::string kind = foreign_kind(file.peek(kForeignFront));
    if (!kind.empty()) throw CueError(path + ": " + kind);
    reader.follow();
  }

  bool next(Record& record) {
    allowed = kMostPassed;
    interrupted = false;
    while (!reader.next(record)) {
      if (!reader.damage()) return false;
      if (!passing_damage) ++damages;
      passing_damage = true;
      if (!reader.resume()) return false;
      passing_damage = false;
    }
    return true;
  }

  void finish() {
    finished = true;
    reader.finish();
  }

  GrowingFile file;
  RecordingReader reader;
  std::uint64_t damages = 0;
  bool interrupted = false;  // the last next() ended before the end of the file

private:
  /// The reader takes an end of what it may read now for that of the file by now, and goes on there. One
  /// that does not expect more would end for good.
  std::size_t read(std::uint8_t* bytes, std::size_t size) {
    if (allowed == 0 && !finished) {
      interrupted = true;
      return 0;
    }
    const std::size_t count = file.read(bytes, finished ? size : std::min(size, allowed));
    allowed -= std::min(count, allowed);
    return count;
  }

  bool passing_damage = false;  // the last damage is counted and not passed yet
  bool finished = false;
  std::size_t allowed = kMostPassed;  // bytes of the file
};

Follower::Follower(const std::string& path) : parts(std::make_unique<Parts>(path)) {}

Follower::~Follower() = default;

bool Follower::next(Record& record) {
  return parts->next(record);
}

bool Follower::is_interrupted() const {
  return parts->interrupted;
}

void Follower::finish() {
  parts->finish();
}

std::uint64_t Follower::size() const {
  return parts->file.size();
}

std::uint64_t Follower::damages() const {
  return parts->damages;
}

std::uint64_t Follower::damaged_bytes() const {
  return parts->reader.lost_bytes();
}

bool Follower::is_replaced() const {
  return parts->file.is_replaced();
}

}  // namespace cue
