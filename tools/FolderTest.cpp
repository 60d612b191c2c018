#include "tools/FolderTest.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <vector>

#include "tools/KernelFile.h"

namespace kadrel_cue {
namespace {

using TestClock = std::chrono::steady_clock;

constexpr std::size_t kWritten = std::size_t{1} << 20;  // bytes by one write

// What the process that looks at the disk reports, one after the other. Each fits a pipe in one piece.
struct SpaceReport {
  int error;
  std::uint64_t free_bytes;
  bool files_left;
  bool fat;
};
struct SpeedReport {
  bool tested;
  int error;
  std::uint64_t written;
  std::int64_t nanoseconds;
};
static_assert(sizeof(SpaceReport) <= PIPE_BUF && sizeof(SpeedReport) <= PIPE_BUF);

/// Noise: a file system may press what repeats.
std::vector<char> noise() {
  std::vector<char> bytes(kWritten);
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1'664'525U + 1'013'904'223U;
    byte = static_cast<char>(state >> 24U);
  }
  return bytes;
}

/// A file in the folder that has no name (any more). @return -1 with errno
int make_unnamed_file(const FolderWork& work) {
  const int unnamed = open(work.folder, O_TMPFILE | O_WRONLY | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (unnamed != -1 || (errno != EOPNOTSUPP && errno != EISDIR)) return unnamed;
  const int file = open(work.name, O_CREAT | O_EXCL | O_NOFOLLOW | O_WRONLY | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (file != -1) unlink(work.name);
  return file;
}

SpaceReport look_at_space(const FolderWork& work, int file) {
  SpaceReport report{};
  report.error = file == -1 ? errno : 0;
  report.files_left = true;
  struct statfs status {};
  if (statfs(work.folder, &status) == -1) {
    report.error = errno;
    return report;
  }
  report.free_bytes = free_bytes_in(status);
  // Some file systems count no files, and what could be made has found room.
  report.files_left = report.error != ENOSPC || status.f_files == 0 || status.f_ffree > 0;
  report.fat = status.f_type == MSDOS_SUPER_MAGIC;
  return report;
}

/// Writes until the time or the bytes are over, each piece through to the disk.
SpeedReport write_through(const FolderWork& work, int file, std::uint64_t most) {
  SpeedReport report{};
  report.tested = true;
  const auto begin = TestClock::now();
  while (report.error == 0 && report.written < most && TestClock::now() - begin < work.test.writing) {
    const ssize_t count = write(file, work.bytes.data(), work.bytes.size());
    if (count == -1) {
      report.error = errno;
    } else {
      report.written += static_cast<std::uint64_t>(count);
      if (fdatasync(file) == -1 && errno != EINVAL) report.error = errno;
    }
  }
  report.nanoseconds = std::chrono::nanoseconds(TestClock::now() - begin).count();
  return report;
}

/// The process that looks at the disk.
[[noreturn]] void run_test(const FolderWork& work) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // Who reads our output does not wait for a disk.
  for (int descriptor = 0; descriptor < 3; ++descriptor) close(descriptor);
  std::signal(SIGXFSZ, SIG_IGN);
  _exit(report_on_folder(work) ? 0 : 1);
}

/// One report, waited for until @p deadline. @return false: it did not come
template <typename Report>
bool await(int pipe, TestClock::time_point deadline, Report& report) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - TestClock::now()).count();
    pollfd ready{pipe, POLLIN, 0};
    const int count = poll(&ready, 1, static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX)));
    if (count == -1 && errno == EINTR) continue;
    if (count <= 0) return false;
    return read_some(pipe, reinterpret_cast<char*>(&report), sizeof report) == sizeof report;
  }
}

}  // namespace

std::uint64_t free_bytes_in(const struct statfs& status) {
  const auto unit = static_cast<std::uint64_t>(status.f_frsize != 0 ? status.f_frsize : status.f_bsize);
  return static_cast<std::uint64_t>(status.f_bavail) * unit;
}

void take_reports(int pipe, const FolderTest& test, FolderLook& look) {
  SpaceReport space{};
  look.answered = await(pipe, TestClock::now() + test.patience, space);
  if (!look.answered) return;
  look.error = space.error;
  look.free_bytes = space.free_bytes;
  look.files_left = space.files_left;
  look.ends_at_4_gib = space.fat;
  SpeedReport speed{};
  if (!await(pipe, TestClock::now() + test.writing + test.patience, speed)) {
    look.stuck = true;
    return;
  }
  look.tested = speed.tested;
  look.write_error = speed.error;
  look.written = speed.written;
  look.seconds = static_cast<double>(speed.nanoseconds) / 1e9;
}

bool report_on_folder(const FolderWork& work) {
  const OpenDescriptor file(make_unnamed_file(work));
  const SpaceReport space = look_at_space(work, file.get());
  if (write(work.report, &space, sizeof space) != sizeof space) return false;
  const std::uint64_t most = std::min<std::uint64_t>(work.test.most, space.free_bytes / 8);
  SpeedReport speed{};
  if (file && !work.recording && most >= kWritten) speed = write_through(work, file.get(), most);
  return write(work.report, &speed, sizeof speed) == sizeof speed;
}

FolderLook look_at_folder(const std::string& folder, bool recording, const FolderTest& test) {
  FolderLook look;
  look.folder = folder;
  look.recording = recording;
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) == -1) {
    look.answered = true;
    look.error = errno;
    return look;
  }
  const OpenDescriptor reports(ends[0]);
  const std::string name = folder + "/.kadrel-ready-" + std::to_string(getpid());
  const std::vector<char> bytes = noise();
  pid_t child = -1;
  {
    const OpenDescriptor report(ends[1]);
    child = fork();
    if (child == 0) run_test({folder.c_str(), name.c_str(), bytes, test, recording, report.get()});
    if (child == -1) look.error = errno;
  }
  look.answered = child == -1;
  if (child == -1) return look;
  take_reports(reports.get(), test, look);
  kill(child, SIGKILL);
  // One that a disk holds cannot end: it is left to the system.
  waitpid(child, nullptr, look.answered && !look.stuck ? 0 : WNOHANG);
  return look;
}

}  // namespace kadrel_cue
