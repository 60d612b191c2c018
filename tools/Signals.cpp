#include "tools/Signals.h"

#include <csignal>
#include <ctime>

#include "cue/AtomicFile.h"
#include "tools/Keyboard.h"
#include "tools/TopScreen.h"

namespace kadrel_cue {
namespace {

std::atomic<bool> stop_requested = false;
static_assert(std::atomic<bool>::is_always_lock_free, "it is set in a signal handler");

// A playback ends within this time; what still runs then waits for something that does not come.
constexpr time_t kPatience = 2;

std::atomic<time_t> first_request = 0;
static_assert(std::atomic<time_t>::is_always_lock_free, "it is set in a signal handler");

time_t seconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

/// The first signal asks the program to end; a later one ends it.
void request_stop(int signal) {
  if (!stop_requested.exchange(true)) {
    first_request = seconds();
  } else if (seconds() - first_request > kPatience) {
    Keyboard::restore_terminal();
    TopScreen::restore_terminal();
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(signal, &action, nullptr);
    raise(signal);
  }
}

/// Removes a half-written file; then the signal has its default effect.
void clear_away(int signal) {
  cue::AtomicFile::remove_unfinished();
  raise(signal);
}

}  // namespace

const std::atomic<bool>& stop_on_signals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    if (signal == SIGHUP && action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = request_stop;
    sigaction(signal, &action, nullptr);
  }
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, nullptr);
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
