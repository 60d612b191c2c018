#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cue/Selection.h"

namespace cue {

/// Default pause between joined recordings and between passes of a loop: one frame at the highest rate of
/// DMX, 44 per second. In ns.
std::int64_t default_gap();

struct JoinOptions {
  std::vector<std::string> files;
  std::string output;
  std::int64_t gap = default_gap();  // ns from the last datagram of one to the first of the next
  Selection selection;               // its universes only
};

/// A written recording.
struct Written {
  std::uint64_t datagrams = 0;
  std::int64_t duration = 0;  // ns
};

/// Writes the datagrams of a selection as a recording of their own.
/// @throws CueError when the file is damaged or cannot be read, or the output cannot be written
Written cut(const std::string& file, const Selection& selection, const std::string& output);

/// Writes recordings as one, in order. @throws CueError as cut()
Written join(const JoinOptions& options);

}  // namespace cue
