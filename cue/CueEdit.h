#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "cue/Selection.h"

namespace cue {

/// Pause between two recordings that are joined, and between two passes of a loop, when none is given: one
/// frame at the highest rate of DMX, 44 per second.
std::int64_t default_gap();

struct JoinOptions {
  std::vector<std::string> files;
  std::string output;
  std::int64_t gap = default_gap();  // ns between the last datagram of one and the first of the next
  Selection selection;               // its universes only
};

/// Writes the datagrams of a selection as a recording of their own. @return exit code
/// @throws CueError when the file is damaged or cannot be read, or the output cannot be written
int run_cut(const std::string& file, const Selection& selection, const std::string& output,
            std::ostream& out);

/// Writes recordings one behind the other as one. @return exit code
/// @throws CueError as run_cut()
int run_join(const JoinOptions& options, std::ostream& out);

}  // namespace cue
