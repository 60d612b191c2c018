#include "tools/ReservedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "cue/CueError.h"
#include "tools/RecordWords.h"

namespace kadrel_cue {
namespace {

constexpr mode_t kNewFile = 0666;  // less what the user's mask takes

// A second in which so many recordings begin has not been seen.
constexpr int kMostNumbers = 999;

/// @return -1 and errno
int make(const std::string& path) {
  return open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOCTTY, kNewFile);
}

off_t size_of(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 ? status.st_size : 0;
}

}  // namespace

ReservedFile::ReservedFile(std::string path, int descriptor) : name(std::move(path)), fd(descriptor) {
  // A hole: it takes no room, so that a full disk is the service's to judge.
  if (ftruncate(fd, 1) == 0) return;
  const int error = errno;
  remove();
  close(std::exchange(fd, -1));
  throw cue::file_error(name, error);
}

ReservedFile::ReservedFile(std::string path)
    : ReservedFile(path, [&path] {
        const int made = make(path);
        if (made == -1 && errno == EEXIST)
          throw cue::CueError(path + ": exists; a recording never replaces a file");
        if (made == -1) throw cue::file_error(path, errno);
        return made;
      }()) {}

ReservedFile ReservedFile::in_folder(const std::string& folder, const std::string& name) {
  std::string path;
  for (int number = 1; number <= kMostNumbers; ++number) {
    path = folder + (folder.back() == '/' ? "" : "/") + numbered_name(name, number);
    const int made = make(path);
    if (made != -1) return {path, made};
    if (errno != EEXIST) break;
  }
  throw cue::file_error(path, errno);
}

ReservedFile::ReservedFile(ReservedFile&& other) noexcept
    : name(std::move(other.name)), fd(std::exchange(other.fd, -1)) {}

ReservedFile::~ReservedFile() {
  if (fd != -1) close(fd);
}

bool ReservedFile::was_emptied() const {
  return size_of(fd) != 1;
}

bool ReservedFile::is_unused() const {
  return size_of(fd) <= 1;
}

bool ReservedFile::is_in_place() const {
  struct stat own {};
  struct stat there {};
  return fstat(fd, &own) == 0 && lstat(name.c_str(), &there) == 0 && own.st_dev == there.st_dev &&
         own.st_ino == there.st_ino;
}

void ReservedFile::remove() const {
  if (is_in_place()) unlink(name.c_str());
}

}  // namespace kadrel_cue
