#pragma once

#include <atomic>

/// Effect of the signals that end a program.
namespace kadrel_cue {

/// From now on SIGINT, SIGTERM and SIGHUP only set the returned flag; a further one more than two seconds
/// later ends the program. SIGHUP stays ignored if it is (nohup). An output that nobody reads any more
/// (SIGPIPE) ends nothing.
const std::atomic<bool>& stop_on_signals();

/// From now on SIGINT, SIGTERM, SIGHUP, SIGPIPE and SIGQUIT remove a half-written file before they end the
/// program. An ignored signal stays ignored.
void clear_away_on_signals();

}  // namespace kadrel_cue
