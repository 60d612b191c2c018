#include "cue/Time.h"

#include <cstdio>
#include <limits>

#include "cue/CueError.h"

namespace cue {
namespace {

/// ".500", or nothing without decimals.
std::string fraction_text(std::int64_t nanoseconds, int decimals) {
  if (decimals == 0) return {};
  char text[16];
  snprintf(text, sizeof text, ".%09d", static_cast<int>(nanoseconds % kSecond));
  return std::string(text).substr(0, 1 + static_cast<std::size_t>(decimals));
}

}  // namespace

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

std::string clock_text(std::int64_t nanoseconds, int decimals) {
  const auto minutes = static_cast<long long>(nanoseconds / kSecond / 60);
  char text[40];
  if (minutes >= 60)
    snprintf(text, sizeof text, "%lld:%02lld:", minutes / 60, minutes % 60);
  else
    snprintf(text, sizeof text, "%lld:", minutes);
  char seconds[8];
  snprintf(seconds, sizeof seconds, "%02d", static_cast<int>(nanoseconds / kSecond % 60));
  return text + std::string(seconds) + fraction_text(nanoseconds, decimals);
}

std::string seconds_text(std::int64_t nanoseconds, int decimals) {
  return std::to_string(nanoseconds / kSecond) + fraction_text(nanoseconds, decimals) + " s";
}

}  // namespace cue
