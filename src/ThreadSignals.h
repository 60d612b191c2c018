#pragma once

#include <csignal>

/// Signals that end the process (SIGTERM, SIGINT, SIGHUP, and SIGALRM that backs them) and the threads.

/// Keeps these signals from the calling thread as long as it lives, then restores the thread's mask; a signal
/// that arrives meanwhile waits. A thread that is created under it keeps them blocked for good: they are
/// delivered to the main thread alone, and never interrupt a system call of a worker.
class EndSignalsBlocked {
public:
  EndSignalsBlocked();
  ~EndSignalsBlocked();
  EndSignalsBlocked(const EndSignalsBlocked&) = delete;
  EndSignalsBlocked& operator=(const EndSignalsBlocked&) = delete;

private:
  sigset_t mask_before;
};

/// Whether such a signal has arrived; for work on the main thread that the event loop would otherwise wait
/// for.
bool end_requested();

/// Says that it has. Safe in a signal handler.
void request_end();
