#include "unit/support/child.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <vector>

namespace unit {
namespace {

constexpr unsigned kChildSeconds = 250;  // a child that hangs is ended by the alarm signal

std::map<std::string, void (*)()>& scenarios() {
  static std::map<std::string, void (*)()> all;
  return all;
}

/// Whole content of the memory file @p fd, which is closed.
std::string take_text(int fd) {
  std::string text;
  lseek(fd, 0, SEEK_SET);
  std::array<char, 65536> piece{};
  for (;;) {
    const ssize_t size = read(fd, piece.data(), piece.size());
    if (size <= 0) break;
    text.append(piece.data(), static_cast<size_t>(size));
  }
  close(fd);
  return text;
}

}  // namespace

bool register_scenario(const char* name, void (*body)()) {
  return scenarios().emplace(name, body).second;
}

Outcome run_child(const char* name) {
  const int out = memfd_create("out", MFD_CLOEXEC);
  const int err = memfd_create("err", MFD_CLOEXEC);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  // Under an emulator the system cannot start this program directly.
  const char* const emulator = getenv("KADREL_TEST_EMULATOR");
  std::string self = emulator != nullptr ? std::filesystem::read_symlink("/proc/self/exe") : "/proc/self/exe";
  std::string program = emulator != nullptr ? emulator : self;
  std::string option = "--scenario";
  std::string argument = name;
  std::vector<char*> argv{program.data()};
  if (emulator != nullptr) argv.push_back(self.data());
  argv.insert(argv.end(), {option.data(), argument.data(), nullptr});
  pid_t pid = -1;
  const int failure = posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  Outcome outcome;
  if (failure == 0) {
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  outcome.out = take_text(out);
  outcome.err = take_text(err);
  // The emulator's own words.
  const std::size_t words =
      emulator == nullptr ? std::string::npos : outcome.err.rfind("qemu: uncaught target signal");
  if (words != std::string::npos) outcome.err.erase(words);
  return outcome;
}

int run_requested_scenario(int argc, char** argv) {
  if (argc != 3 || strcmp(argv[1], "--scenario") != 0) return -1;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  alarm(kChildSeconds);
  const auto found = scenarios().find(argv[2]);
  if (found == scenarios().end()) {
    printf("no scenario %s\n", argv[2]);
    return 2;
  }
  found->second();
  return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
}

}  // namespace unit
