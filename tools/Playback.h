#pragma once

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

#include "cue/DatagramSender.h"
#include "cue/Player.h"

namespace kadrel_cue {

/// A playback with all its options.
struct Playback {
  cue::PlayOptions options;
  cue::Destination to;
  std::optional<cue::Destination> from;
  std::optional<int> relay_port;
  bool real_time = true;  // ask for a real-time priority; without the right to it, play at the normal one
  bool stats = false;     // write a JSON object about the timing to the output
  bool progress = false;  // show a progress line on the error output
};

/// Plays until the end, or until @p stop. @return exit code. @throws CueError
int play(const Playback& playback, const std::atomic<bool>& stop, std::ostream& out, std::ostream& err);

/// The progress line. @param left  rest of the pass in ns; nothing when it is not known
std::string progress_text(const cue::PlayState& state, std::optional<std::int64_t> left);

}  // namespace kadrel_cue
