#include "tools/Signals.h"

#include <csignal>

#include "cue/AtomicFile.h"

namespace kadrel_cue {
namespace {

std::atomic<bool> stop_requested = false;
static_assert(std::atomic<bool>::is_always_lock_free, "it is set in a signal handler");

void request_stop(int /*signal*/) {
  stop_requested = true;
}

/// Removes a half-written file; then the signal has its default effect.
void clear_away(int signal) {
  cue::AtomicFile::remove_unfinished();
  raise(signal);
}

}  // namespace

const std::atomic<bool>& stop_on_signals() {
  struct sigaction action {};
  action.sa_handler = request_stop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  return stop_requested;
}

void clear_away_on_signals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT}) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = clear_away;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(signal, &action, nullptr);
  }
}

}  // namespace kadrel_cue
