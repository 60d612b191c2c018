#pragma once

#include <atomic>

/// What the signals that end a program do to a command.
namespace kadrel_cue {

/// SIGINT and SIGTERM do nothing from now on but set the flag that is returned.
const std::atomic<bool>& stop_on_signals();

/// SIGINT, SIGTERM and SIGHUP remove a file that is half written before they end the program. A signal that
/// is ignored stays ignored.
void clear_away_on_signals();

}  // namespace kadrel_cue
