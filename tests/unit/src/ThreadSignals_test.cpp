#include "src/ThreadSignals.h"

#include <gtest/gtest.h>

#include <csignal>
#include <set>
#include <thread>

namespace {

std::set<int> blocked_signals() {
  sigset_t blocked;
  sigemptyset(&blocked);
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  std::set<int> numbers;
  for (int number = 1; number < SIGRTMAX; ++number) {
    if (sigismember(&blocked, number) == 1) numbers.insert(number);
  }
  return numbers;
}

TEST(ThreadSignals, WorkerLeavesTheEndingSignalsToTheMainThread) {
  const std::set<int> before = blocked_signals();
  std::set<int> expected = before;
  expected.insert({SIGTERM, SIGINT, SIGHUP});
  std::set<int> of_worker;
  std::thread worker([&] {
    leave_signals_to_main_thread();
    of_worker = blocked_signals();
  });
  worker.join();
  EXPECT_EQ(of_worker, expected);
  EXPECT_EQ(blocked_signals(), before);
}

}  // namespace
