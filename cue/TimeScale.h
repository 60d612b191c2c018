#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cue {

/// A mark on a time axis.
struct Tick {
  std::int64_t time = 0;  // ns
  std::string text;       // no two ticks of an axis have the same; read as a time, it is `time`
};

/// Marks of a time axis at round times: as many as their words have room for.
/// @param start, end  of the axis in ns, 0 <= start <= end
/// @param width       of the axis in pixels, for words of 13 pixels' height
/// @return in order; empty when no round time is on the axis
std::vector<Tick> time_ticks(std::int64_t start, std::int64_t end, double width);

}  // namespace cue
