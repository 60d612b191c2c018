#pragma once

#include <cstdint>
#include <vector>

#include "cue/AtomicFile.h"
#include "cue/GoodRecords.h"
#include "cue/Selection.h"

namespace cue {

/// Default pause between joined recordings and between passes of a loop: one frame at the highest rate of
/// DMX, 44 per second. In ns.
std::int64_t default_gap();

struct JoinOptions {
  std::vector<Input> files;
  Output output;
  std::int64_t gap = default_gap();  // ns from the last datagram of one to the first of the next
  Selection selection;               // its universes only
  OnDamage on_damage;                // see GoodRecords
};

/// A written recording.
struct Written {
  std::uint64_t datagrams = 0;
  std::int64_t duration = 0;  // ns
};

/// Writes the datagrams of a selection as a recording of their own.
/// @throws CueError when the file is damaged or cannot be read, or the output cannot be written
Written cut(const Input& file, const Selection& selection, const Output& output,
            const OnDamage& on_damage = {});

/// Writes recordings as one, in order. @throws CueError as cut()
Written join(const JoinOptions& options);

}  // namespace cue
