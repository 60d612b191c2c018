#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cue/AtomicFile.h"
#include "cue/GoodRecords.h"
#include "cue/Input.h"

namespace cue {

/// What stands between two frames: the pause in milliseconds, or the time since the first frame in seconds
/// and milliseconds, which ola_recorder 0.10.9 cannot read.
enum class OlaShowVersion { One, Two };

struct ExportedOlaShow {
  std::uint64_t frames = 0;
  std::vector<std::string> losses;  // what the file does not hold, each in a few words
};

/// Writes a recording as a show of ola_recorder: a frame for each ArtDmx, universe 1 for port-address 0.
/// Times are rounded to milliseconds since the first datagram, so that no error adds up.
/// @throws CueError when there is no frame, a pause (version 1) or time (2) is longer than ola_recorder can
/// count, or a file cannot be read or written
ExportedOlaShow export_ola_show(const Input& input, const Output& output, OlaShowVersion version,
                                const OnDamage& on_damage = {});

}  // namespace cue
