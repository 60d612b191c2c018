#pragma once

#include <csignal>

/// The threads and the signals that end the process: SIGTERM, SIGINT, SIGHUP, and SIGALRM, which backs them.

/// Blocks these signals for the calling thread as long as it lives, then restores the thread's mask. A thread
/// created meanwhile keeps them blocked for good: only the main thread gets them, and they never interrupt a
/// system call of a worker.
class EndSignalsBlocked {
public:
  EndSignalsBlocked();
  ~EndSignalsBlocked();
  EndSignalsBlocked(const EndSignalsBlocked&) = delete;
  EndSignalsBlocked& operator=(const EndSignalsBlocked&) = delete;

private:
  sigset_t mask_before;
};

/// Whether such a signal has arrived; for long work on the main thread, which keeps the event loop waiting.
bool end_requested();

/// Notes that such a signal has arrived. Safe in a signal handler.
void request_end();
