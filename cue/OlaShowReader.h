#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "cue/ForeignReader.h"
#include "cue/Input.h"

namespace cue {

/// Whether a file that begins so is a show of ola_recorder. @param size  bytes at @p head
bool is_ola_show(const std::uint8_t* head, std::size_t size);

/// Reads a show of ola_recorder, version 1 or 2, as an ArtDmx for each frame, with sequence numbers from 1 to
/// 255 for each universe. OLA's universe 1 becomes port-address 0; universe 0 and those above 65536 are left
/// out.
/// @param source  from the front of the file on
/// @param name    of the file in messages
/// @throws CueError when the file cannot be read or is no such show
std::unique_ptr<ForeignReader> open_ola_show(ByteSource source, const std::string& name);

}  // namespace cue
