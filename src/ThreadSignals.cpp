#include "src/ThreadSignals.h"

#include <atomic>
#include <initializer_list>

namespace {

std::atomic<bool> end_is_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

}  // namespace

EndSignalsBlocked::EndSignalsBlocked() {
  sigemptyset(&mask_before);
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGALRM}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, &mask_before);
}

EndSignalsBlocked::~EndSignalsBlocked() {
  pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
}

bool end_requested() {
  return end_is_requested.load();
}

void request_end() {
  end_is_requested.store(true);
}
