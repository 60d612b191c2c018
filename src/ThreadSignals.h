#pragma once

/// Signals that end the process (SIGTERM, SIGINT, SIGHUP) and the threads.

/// For the first line of a worker thread: these signals are delivered to the main thread, so that they do not
/// interrupt a system call of the caller.
void leave_signals_to_main_thread();

/// Whether such a signal has arrived; for work on the main thread that the event loop would otherwise wait
/// for.
bool end_requested();

/// Says that it has. Safe in a signal handler.
void request_end();
