#pragma once

#include <memory>
#include <string>

#include "cue/ForeignReader.h"
#include "cue/FseqHeader.h"
#include "cue/Input.h"

namespace cue {

/// Reads a sequence (FSEQ 1 or 2, plain, zstd or zlib) as what a player of it sends: at every step an ArtDmx
/// for each universe that has channels, with sequence numbers from 1 to 255. Slots before the first channel
/// of a universe are 0.
/// @param source  from the front of the file on
/// @param name    of the file in messages
/// @throws CueError when the file cannot be read, or its header is not one of these
std::unique_ptr<ForeignReader> open_fseq(ByteSource source, const std::string& name);

}  // namespace cue
