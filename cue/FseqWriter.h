#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cue/AtomicFile.h"
#include "cue/GoodRecords.h"
#include "cue/Input.h"

namespace cue {

struct FseqOptions {
  int version = 2;  // 1 or 2
  int step = 25;    // ms from one frame to the next, 1..255
};

struct ExportedFseq {
  std::uint32_t frames = 0;
  std::uint32_t channels = 0;       // of a frame
  std::vector<std::string> losses;  // what the file does not hold, each in a few words
};

/// Writes a recording as a sequence of frames at a fixed step, uncompressed: frame k holds the look at k
/// steps after the first datagram, which is the last ArtDmx of each universe until then; the last frame is at
/// the last datagram or after it. Slots without a level are 0. Version 2 holds the channels of the recorded
/// universes only, as sparse ranges; version 1 all from channel 0 on.
/// @throws CueError when there is no universe, more frames than 32 bits count or than the disk has room for,
/// or a file cannot be read or written
ExportedFseq export_fseq(const Input& input, const Output& output, const FseqOptions& options,
                         const OnDamage& on_damage = {});

}  // namespace cue
