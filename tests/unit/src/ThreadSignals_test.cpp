#include "src/ThreadSignals.h"

#include <gtest/gtest.h>

#include <csignal>
#include <future>
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

TEST(ThreadSignals, ThreadCreatedUnderTheBlockKeepsTheEndingSignalsBlocked) {
  const std::set<int> before = blocked_signals();
  std::set<int> expected = before;
  expected.insert({SIGTERM, SIGINT, SIGHUP, SIGALRM});
  std::set<int> of_creator;
  std::set<int> of_worker;
  std::promise<void> creator_is_unblocked;
  std::thread worker;
  {
    const EndSignalsBlocked blocked;
    of_creator = blocked_signals();
    worker = std::thread([&] {
      creator_is_unblocked.get_future().wait();
      of_worker = blocked_signals();
    });
  }
  EXPECT_EQ(blocked_signals(), before);
  creator_is_unblocked.set_value();
  worker.join();
  EXPECT_EQ(of_creator, expected);
  EXPECT_EQ(of_worker, expected);
}

TEST(ThreadSignals, SignalThatArrivesUnderTheBlockIsDeliveredAfterIt) {
  static volatile std::sig_atomic_t delivered;
  delivered = 0;
  const auto handler_before = std::signal(SIGHUP, [](int) { delivered = 1; });
  int under_block = -1;
  {
    const EndSignalsBlocked blocked;
    std::raise(SIGHUP);
    under_block = delivered;
  }
  EXPECT_EQ(under_block, 0);
  EXPECT_EQ(delivered, 1);
  std::signal(SIGHUP, handler_before);
}

}  // namespace
