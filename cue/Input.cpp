#include "cue/Input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "cue/CueError.h"

namespace cue {
namespace {

constexpr const char* kStandardInput = "-";

// Bytes that the disk reads ahead.
constexpr off_t kReadAhead = off_t{1} << 20;

class OpenFile {
public:
  OpenFile(int opened, std::string file_name, off_t offset, OnReading callback)
      : fd(opened), name(std::move(file_name)), on_reading(std::move(callback)), position(offset) {
    if (fd == -1) throw file_error(name, errno);
    if (offset > 0 && lseek(fd, offset, SEEK_SET) == -1) {
      const int error = errno;
      close(fd);
      throw file_error(name, error);
    }
    struct stat status {};
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode))
      whole = static_cast<std::uint64_t>(status.st_size);
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  }
  ~OpenFile() { close(fd); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  OpenFile(OpenFile&&) = delete;
  OpenFile& operator=(OpenFile&&) = delete;

  std::size_t read(std::uint8_t* bytes, std::size_t size) {
    for (;;) {
      const ssize_t count = ::read(fd, bytes, size);
      if (count >= 0) {
        // The disk reads the next part while this one is processed.
        position += count;
        if (count > 0) posix_fadvise(fd, position, kReadAhead, POSIX_FADV_WILLNEED);
        if (on_reading) on_reading({name, static_cast<std::uint64_t>(position), whole});
        return static_cast<std::size_t>(count);
      }
      if (errno != EINTR) throw file_error(name, errno);
    }
  }

private:
  int fd;
  std::string name;
  OnReading on_reading;
  off_t position;
  std::optional<std::uint64_t> whole;  // size of a regular file
};

int open_again(int fd) {
  return open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_RDONLY | O_CLOEXEC);
}

/// The standard input from where it stands; a regular file from its front, each time. Somebody else may have
/// opened one that this user may not open again; such a file can be read once.
int open_standard_input() {
  struct stat status {};
  if (fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode)) {
    const int again = open_again(STDIN_FILENO);
    if (again != -1 || errno != EACCES) return again;
    lseek(STDIN_FILENO, 0, SEEK_SET);
  }
  return fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
}

int unnamed_file() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
  const char* const wanted = getenv("TMPDIR");
  std::string name =
      std::string(wanted != nullptr && *wanted != '\0' ? wanted : "/tmp") + "/kadrel-cue.XXXXXX";
  const int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd == -1) throw file_error(name, errno);
  unlink(name.c_str());
  return fd;
}

/// A descriptor that is closed with its last owner.
std::shared_ptr<const int> shared(int fd) {
  return {new int(fd), [](const int* owned) {
            close(*owned);
            delete owned;
          }};
}

void write_all(int fd, const std::uint8_t* bytes, std::size_t size) {
  for (std::size_t written = 0; written < size;) {
    const ssize_t count = write(fd, bytes + written, size - written);
    if (count == -1 && errno == EINTR) continue;
    if (count == -1) throw file_error("temporary copy of the input", errno);
    written += static_cast<std::size_t>(count);
  }
}

}  // namespace

std::vector<std::uint8_t> peek(ByteSource& source, std::size_t size) {
  std::vector<std::uint8_t> front(size);
  std::size_t length = 0;
  while (length < size) {
    const std::size_t count = source(front.data() + length, size - length);
    if (count == 0) break;
    length += count;
  }
  front.resize(length);
  source = [front, given = std::size_t{0}, rest = std::move(source)](std::uint8_t* bytes,
                                                                     std::size_t wanted) mutable {
    if (given == front.size()) return rest(bytes, wanted);
    const std::size_t count = std::min(wanted, front.size() - given);
    std::copy_n(front.begin() + static_cast<std::ptrdiff_t>(given), count, bytes);
    given += count;
    return count;
  };
  return front;
}

Input::Input(std::string path)
    : file_path(std::move(path)), shown(file_path == kStandardInput ? "standard input" : file_path) {}

ByteSource Input::open(std::uint64_t offset) const {
  int fd = -1;
  if (kept)
    fd = open_again(*kept);
  else if (file_path == kStandardInput)
    fd = open_standard_input();
  else
    fd = ::open(file_path.c_str(), O_RDONLY | O_CLOEXEC);
  // Shared, because a std::function must be copyable.
  auto file = std::make_shared<OpenFile>(fd, shown, static_cast<off_t>(offset), on_reading);
  return [file](std::uint8_t* bytes, std::size_t size) { return file->read(bytes, size); };
}

bool Input::find(struct stat& status) const {
  return (file_path == kStandardInput ? fstat(STDIN_FILENO, &status) : stat(file_path.c_str(), &status)) == 0;
}

bool Input::is(const struct stat& status) const {
  struct stat own {};
  return find(own) && own.st_dev == status.st_dev && own.st_ino == status.st_ino;
}

void Input::keep() {
  if (kept) return;
  struct stat status {};
  if (!find(status)) throw file_error(shown, errno);
  if (S_ISDIR(status.st_mode)) return;
  if (S_ISREG(status.st_mode)) {
    const bool named = file_path != kStandardInput;
    const int fd = named ? ::open(file_path.c_str(), O_RDONLY | O_CLOEXEC) : open_again(STDIN_FILENO);
    if (fd == -1 && named) throw file_error(shown, errno);
    if (fd != -1) {
      kept = shared(fd);
      return;
    }
  }
  keep(open());
}

void Input::keep(const ByteSource& source) {
  const std::shared_ptr<const int> copy = shared(unnamed_file());
  std::array<std::uint8_t, std::size_t{64} * 1024> bytes{};
  while (const std::size_t count = source(bytes.data(), bytes.size())) write_all(*copy, bytes.data(), count);
  kept = copy;
}

}  // namespace cue
