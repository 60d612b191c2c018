#pragma once

#include <string>

#include "cue/Input.h"

namespace cue {

/// What a file is that is no recording, by its first bytes: "a capture, see kadrel-cue import". Empty for
/// everything else.
std::string foreign_kind(const std::string& front);

/// Bytes that foreign_kind() wants to see.
constexpr std::size_t kForeignFront = 16;

/// Takes up to @p size bytes from the front of a source and puts them back. @throws CueError
std::string peek(ByteSource& source, std::size_t size);

}  // namespace cue
