#pragma once

#include <string>

namespace kadrel_cue {

/// @p text as a JSON string, quotes included. Bytes that are no UTF-8 become U+FFFD.
///
/// Numbers are written without Qt: its JSON numbers are doubles, too short for times of 64 bits.
std::string json_string(const std::string& text);

}  // namespace kadrel_cue
