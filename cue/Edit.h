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

/// How a part or several recordings become one.
struct EditOptions {
  Output output;
  Selection selection;    // join: its universes only
  bool look = true;       // begin with the look of each universe, see cut() and join()
  bool renumber = false;  // sequence numbers go on without a jump, see SequenceNumbers
  OnDamage on_damage;     // see GoodRecords
};

struct CutOptions : EditOptions {
  Input file;
};

struct JoinOptions : EditOptions {
  std::vector<Input> files;
  std::int64_t gap = default_gap();  // ns from the last datagram of one to the first of the next
};

/// A written recording.
struct Written {
  std::uint64_t datagrams = 0;
  std::int64_t duration = 0;  // ns
};

/// Writes the datagrams of a selection as a recording of their own.
///
/// It begins with the look that each universe has at the start of the selection: its last ArtDmx before, as
/// it was recorded. The looks are spread over one frame, in the order of the universes, and what was recorded
/// keeps its time from the start; of a universe that comes again before its look does, the look is left out.
/// Universes that have not come yet have none, and behind the end of the recording there is no look.
/// @throws CueError when the file is damaged or cannot be read, when it holds nothing of the selection, or
/// the output cannot be written; no output is there then
Written cut(const CutOptions& options);

/// Writes recordings as one, in order. Each file but the first begins, in the same way, with the look that
/// each universe has at the end of the files before it. @throws CueError as cut(), when none of them holds
/// anything of the selection
Written join(const JoinOptions& options);

}  // namespace cue
