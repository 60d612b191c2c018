#include "cue/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "cue/CueError.h"

namespace cue {
namespace {

constexpr std::size_t kPendingSize = std::size_t{256} * 1024;

// Temporary name of the present file, for a signal handler; empty when there is none.
std::array<char, PATH_MAX> unfinished;

/// No signal arrives while it lives.
class SignalsBlocked {
public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  SignalsBlocked(SignalsBlocked&&) = delete;
  SignalsBlocked& operator=(SignalsBlocked&&) = delete;

private:
  sigset_t before{};
};

std::string directory_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

/// Permissions of a new file. The mask can only be read by setting it; the program has one thread.
mode_t new_file_mode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

AtomicFile::AtomicFile(const Output& output, const std::vector<Input>& inputs) : target(output.path) {
  struct stat there {};
  if (stat(target.c_str(), &there) == 0) {
    if (!S_ISREG(there.st_mode)) throw CueError(target + ": not a regular file");
    for (const Input& input : inputs) {
      struct stat of_input {};
      if (stat(input.path().c_str(), &of_input) == 0 && of_input.st_dev == there.st_dev &&
          of_input.st_ino == there.st_ino)
        throw CueError(target + ": the output would replace the input");
    }
  }
  temporary = target + ".XXXXXX";
  {
    const SignalsBlocked blocked;
    fd = mkostemp(temporary.data(), O_CLOEXEC);
    // A name too long for `unfinished` cannot be opened either.
    if (fd != -1) unfinished[temporary.copy(unfinished.data(), unfinished.size() - 1)] = '\0';
  }
  if (fd == -1) throw file_error(target, errno);
  fchmod(fd, new_file_mode());
  pending.reserve(kPendingSize);
}

AtomicFile::~AtomicFile() {
  if (fd == -1) return;
  close(fd);
  unlink(temporary.c_str());
  const SignalsBlocked blocked;
  unfinished[0] = '\0';
}

void AtomicFile::remove_unfinished() {
  if (unfinished[0] != '\0') unlink(unfinished.data());
}

void AtomicFile::flush() {
  std::size_t written = 0;
  while (written < pending.size()) {
    const ssize_t count = ::write(fd, pending.data() + written, pending.size() - written);
    if (count == -1 && errno == EINTR) continue;
    if (count == -1) throw file_error(target, errno);
    written += static_cast<std::size_t>(count);
  }
  pending.clear();
}

void AtomicFile::write(const void* bytes, std::size_t size) {
  const auto* const from = static_cast<const char*>(bytes);
  pending.insert(pending.end(), from, from + size);
  if (pending.size() >= kPendingSize) flush();
}

void AtomicFile::commit() {
  flush();
  if (fsync(fd) == -1) throw file_error(target, errno);
  {
    const SignalsBlocked blocked;
    if (rename(temporary.c_str(), target.c_str()) == -1) throw file_error(target, errno);
    unfinished[0] = '\0';
  }
  close(std::exchange(fd, -1));
  // The new name is on the disk when the directory is. On a file system that cannot sync a directory the file
  // is kept all the same.
  const int directory = open(directory_of(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory == -1) return;
  fsync(directory);
  close(directory);
}

}  // namespace cue
