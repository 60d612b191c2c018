#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cue/Targets.h"

/// Parses words of the command line that only a playback has.
namespace kadrel_cue {

/// Passes through a recording; nothing: until stopped.
struct Passes {
  std::optional<std::uint64_t> count;
};

/// "forever", or a number from 1 to 2^63; nothing for other text.
std::optional<Passes> parse_passes(const std::string& text);

/// A speed in one of two ways: a change in per cent of the pauses, or a factor.
struct Speed {
  int percent = 0;
  std::optional<double> factor;
};

/// "50" (-100..100) or "1.5x" (0.01x..100x); nothing for other text.
std::optional<Speed> parse_speed(const std::string& text);

/// "10.0.0.5", "10.0.0.5:6454" or "1-4,9=10.0.0.5": universes from 1, as they are sent. Without a port it is
/// 0.
/// @return nothing for other text
std::optional<cue::Target> parse_target(const std::string& text);

/// The name of a source of E1.31: UTF-8 of 1 to 63 bytes. @return nothing for other text
std::optional<std::string> parse_source_name(const std::string& text);

}  // namespace kadrel_cue
