#include "cue/Time.h"

#include <cstdio>
#include <limits>

#include "cue/CueError.h"

namespace cue {

std::int64_t add_times(std::int64_t a, std::int64_t b) {
  if (b > std::numeric_limits<std::int64_t>::max() - a) throw CueError("longer than 292 years");
  return a + b;
}

std::string format_time(std::int64_t nanoseconds) {
  constexpr std::int64_t kMillisecond = kSecond / 1000;
  const std::int64_t ms =
      nanoseconds / kMillisecond + (nanoseconds % kMillisecond >= kMillisecond / 2 ? 1 : 0);
  const auto hours = static_cast<long long>(ms / 3'600'000);
  const auto minutes = static_cast<int>(ms / 60'000 % 60);
  const auto seconds = static_cast<int>(ms / 1000 % 60);
  const auto rest = static_cast<int>(ms % 1000);
  char text[48];
  if (hours > 0)
    snprintf(text, sizeof text, "%lldh%02dm%02d.%03ds", hours, minutes, seconds, rest);
  else if (minutes > 0)
    snprintf(text, sizeof text, "%dm%02d.%03ds", minutes, seconds, rest);
  else
    snprintf(text, sizeof text, "%d.%03d s", seconds, rest);
  return text;
}

}  // namespace cue
