#include "cue/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <random>
#include <utility>

#include "cue/CueError.h"

namespace cue {
namespace {

constexpr std::size_t kPendingSize = std::size_t{256} * 1024;
constexpr mode_t kNewFile = 0666;  // less what the user's mask or the directory takes
constexpr mode_t kModeBits = 07777;

// As many as the kernel follows.
constexpr int kMostLinks = 40;

/// Temporary name of the present file, for a signal handler.
struct Unfinished {
  int directory = -1;  // -1: there is none
  std::array<char, 32> name{};
};
Unfinished unfinished;

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

std::string name_in_directory(const std::string& path) {
  return path.substr(path.rfind('/') + 1);  // npos + 1 is 0
}

/// The path that the symbolic links at @p path lead to, whether something is there or not.
std::string behind_links(std::string path) {
  const std::string asked = path;
  for (int links = 0; links < kMostLinks; ++links) {
    std::array<char, PATH_MAX> target{};
    const ssize_t size = readlink(path.c_str(), target.data(), target.size());
    if (size == -1) return path;
    path = target[0] == '/' ? "" : directory_of(path) + "/";
    path.append(target.data(), static_cast<std::size_t>(size));
  }
  throw file_error(asked, ELOOP);
}

/// Short, so that a directory that takes the file's name takes this one.
std::string temporary_name() {
  static std::random_device chance;
  std::array<char, 32> name{};
  snprintf(name.data(), name.size(), ".kadrel-cue.%08x", static_cast<unsigned>(chance()));
  return name.data();
}

/// The link by which an open file can be given a name (open(2), O_TMPFILE).
std::string link_of(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

CueError exists_error(const std::string& name) {
  return CueError{name + ": exists; --force replaces it"};
}

}  // namespace

AtomicFile::AtomicFile(const Output& output) : shown(output.name()), replace(output.replace) {
  pending.reserve(kPendingSize);
}

AtomicFile::AtomicFile(const Output& output, const std::vector<Input>& inputs) : AtomicFile(output) {
  struct stat there {};
  if (output.is_standard_output()) {
    if (fstat(STDOUT_FILENO, &there) == 0) refuse_inputs(there, inputs);
    // Above the standard descriptors, so that the end of this object closes none of them.
    open_stream(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return;
  }
  const bool exists = stat(output.path.c_str(), &there) == 0;
  if (!exists && errno != ENOENT) fail(errno);
  if (exists) refuse_inputs(there, inputs);
  if (exists && S_ISDIR(there.st_mode)) fail(EISDIR);
  if (exists && !S_ISREG(there.st_mode)) {
    open_stream(open(output.path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
    return;
  }
  if (exists && !replace) throw exists_error(shown);
  open_file(behind_links(output.path));
  if (exists) make_like(there);
}

AtomicFile::~AtomicFile() {
  if (fd != -1) close(fd);
  if (!temporary.empty()) {
    unlinkat(directory, temporary.c_str(), 0);
    forget_temporary();
  }
  if (directory != -1) close(directory);
}

void AtomicFile::remove_unfinished() {
  if (unfinished.directory != -1) unlinkat(unfinished.directory, unfinished.name.data(), 0);
}

void AtomicFile::fail(int error) const {
  throw file_error(shown, error);
}

void AtomicFile::refuse_inputs(const struct stat& there, const std::vector<Input>& inputs) const {
  if (!S_ISREG(there.st_mode) && !S_ISFIFO(there.st_mode) && !S_ISBLK(there.st_mode)) return;
  for (const Input& input : inputs)
    if (input.is(there)) throw CueError(shown + ": the output would replace the input");
}

void AtomicFile::open_stream(int opened) {
  if (opened == -1) fail(errno);
  fd = opened;
  to_terminal = isatty(fd) != 0;
}

void AtomicFile::open_file(const std::string& path) {
  file_name = name_in_directory(path);
  if (file_name.empty()) fail(path.empty() ? ENOENT : EISDIR);
  directory = open(directory_of(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (directory == -1) fail(errno);
  fd = openat(directory, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kNewFile);
  // It can only be named through /proc.
  if (fd != -1 && access(link_of(fd).c_str(), F_OK) == 0) return;
  if (fd != -1) close(std::exchange(fd, -1));
  make_temporary([this](const char* name) {
    fd = openat(directory, name, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, kNewFile);
    return fd != -1;
  });
}

void AtomicFile::make_like(const struct stat& replaced) {
  struct stat made {};
  if (fstat(fd, &made) == -1) fail(errno);
  const bool same_owner = made.st_uid == replaced.st_uid && made.st_gid == replaced.st_gid;
  if (!same_owner && fchown(fd, replaced.st_uid, replaced.st_gid) == -1)
    throw CueError(shown + ": the owner of the existing file cannot be kept");
  if (fchmod(fd, replaced.st_mode & kModeBits) == -1) fail(errno);
}

void AtomicFile::make_temporary(const std::function<bool(const char*)>& make) {
  const SignalsBlocked blocked;
  std::string name;
  bool made = false;
  do {
    name = temporary_name();
    made = make(name.c_str());
  } while (!made && errno == EEXIST);
  if (!made) fail(errno);
  temporary = name;
  unfinished.name[temporary.copy(unfinished.name.data(), unfinished.name.size() - 1)] = '\0';
  unfinished.directory = directory;
}

void AtomicFile::forget_temporary() {
  const SignalsBlocked blocked;
  unfinished.directory = -1;
  temporary.clear();
}

void AtomicFile::flush() {
  if (to_terminal && std::find(pending.begin(), pending.end(), '\0') != pending.end())
    throw CueError(shown + ": a terminal, which takes no bytes that are no text");
  std::size_t written = 0;
  while (written < pending.size()) {
    const ssize_t count = ::write(fd, pending.data() + written, pending.size() - written);
    if (count == -1 && errno == EINTR) continue;
    if (count == -1) fail(errno);
    written += static_cast<std::size_t>(count);
  }
  pending.clear();
}

std::optional<std::uint64_t> AtomicFile::room() const {
  struct statvfs system {};
  if (directory == -1 || fstatvfs(fd, &system) == -1 || system.f_blocks == 0) return std::nullopt;
  // With the blocks that are kept for root: what does not fit into these fits for nobody.
  return std::uint64_t{system.f_bfree} * system.f_frsize;
}

void AtomicFile::write(const void* bytes, std::size_t size) {
  const auto* const from = static_cast<const char*>(bytes);
  pending.insert(pending.end(), from, from + size);
  if (pending.size() >= kPendingSize) flush();
}

/// Gives the file its name if no other file has it.
void AtomicFile::place_new() {
  const char* const name = file_name.c_str();
  if (temporary.empty()) {
    if (linkat(AT_FDCWD, link_of(fd).c_str(), directory, name, AT_SYMLINK_FOLLOW) == 0) return;
  } else {
    if (renameat2(directory, temporary.c_str(), directory, name, RENAME_NOREPLACE) == 0)
      return forget_temporary();
    // A file system without such a rename, NFS for one: this file takes the place of one that was made just
    // now.
    if (errno == EINVAL) return place_over_claim();
  }
  if (errno == EEXIST) throw exists_error(shown);
  fail(errno);
}

void AtomicFile::place_over_claim() {
  const int claim = openat(directory, file_name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, kNewFile);
  if (claim == -1 && errno == EEXIST) throw exists_error(shown);
  if (claim == -1) fail(errno);
  close(claim);
  place_over();
}

/// Gives the file its name, whether another file has it or not.
void AtomicFile::place_over() {
  if (temporary.empty())
    make_temporary([this](const char* name) {
      return linkat(AT_FDCWD, link_of(fd).c_str(), directory, name, AT_SYMLINK_FOLLOW) == 0;
    });
  if (renameat(directory, temporary.c_str(), directory, file_name.c_str()) == -1) fail(errno);
  forget_temporary();
}

void AtomicFile::commit() {
  flush();
  // A pipe, a terminal and many devices cannot be synced.
  if (fsync(fd) == -1 && (directory != -1 || errno != EINVAL)) fail(errno);
  if (directory != -1) {
    {
      const SignalsBlocked blocked;
      if (replace)
        place_over();
      else
        place_new();
    }
    // The new name is on the disk when the directory is. On a file system that cannot sync a directory the
    // file is kept all the same.
    const int readable = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (readable != -1) {
      fsync(readable);
      close(readable);
    }
  }
  close(std::exchange(fd, -1));
}

void check_output(const Output& output, const std::vector<Input>& inputs) {
  struct stat there {};
  const bool is_stream = output.is_standard_output() || (stat(output.path.c_str(), &there) == 0 &&
                                                         !S_ISREG(there.st_mode) && !S_ISDIR(there.st_mode));
  // To open a stream is to tell its reader something.
  if (!is_stream) AtomicFile(output, inputs);
}

}  // namespace cue
