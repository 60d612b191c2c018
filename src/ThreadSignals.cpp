#include "src/ThreadSignals.h"

#include <atomic>
#include <csignal>

namespace {

std::atomic<bool> end_is_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

}  // namespace

void leave_signals_to_main_thread() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool end_requested() {
  return end_is_requested.load();
}

void request_end() {
  end_is_requested.store(true);
}
