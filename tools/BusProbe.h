#pragma once

#include <chrono>

namespace kadrel_cue {

/// Whether the session bus lets a client in, or turns it away, within @p patience. One that is stopped or
/// hangs does neither, and who connects to it waits for ever: a process of its own tries it. To be called
/// while this process has no other threads.
bool session_bus_answers(std::chrono::milliseconds patience);

}  // namespace kadrel_cue
