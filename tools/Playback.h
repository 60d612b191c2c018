#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "cue/Player.h"
#include "cue/Sacn.h"
#include "cue/Targets.h"
#include "tools/Keyboard.h"

namespace kadrel_cue {

/// A playback with all its options.
struct Playback {
  cue::PlayOptions options;
  std::vector<cue::Target> targets;  // port 0: that of the protocol; may be empty for E1.31
  std::optional<cue::Destination> from;
  std::optional<int> relay_port;
  std::optional<cue::SacnSource> sacn;     // send E1.31, as this source
  Keyboard* keyboard = nullptr;            // of the operator, if there is one
  std::function<bool()> wait_for_start{};  // see cue::Player
  bool real_time = true;  // ask for a real-time priority; without the right to it, play at the normal one
  bool stats = false;     // write a JSON object about the timing to the output
  bool progress = false;  // show a progress line on the error output
};

/// Plays until the end, or until @p stop. What does not get through is said as it happens.
/// @return exit code: 1 when a target did not get everything
/// @throws cue::CueError
int play(Playback playback, const std::atomic<bool>& stop, std::ostream& out, std::ostream& err);

/// What the progress line shows.
struct PlayProgress {
  const cue::PlayState& state;
  std::optional<std::int64_t> left;         // rest of the pass in ns; nothing when it is not known
  std::vector<cue::Delivery> deliveries{};  // of all targets
  std::size_t width = SIZE_MAX;             // columns
};

/// The progress line. In a narrow terminal it leaves out what matters least.
std::string progress_text(const PlayProgress& progress);

}  // namespace kadrel_cue
