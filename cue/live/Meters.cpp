#include "cue/live/Meters.h"

#include <algorithm>
#include <cmath>

#include "cue/Time.h"

namespace cue {

std::int64_t LiveClock::at(std::int64_t time) {
  constexpr std::int64_t kDisorder = kSecond;
  constexpr std::int64_t kLongest = 120 * kSecond;
  std::int64_t step = 0;
  if (!begun) {
    begun = true;
    latest_given = time;
    // So that what comes out of order after the first one is not before 0.
    latest = kDisorder;
    return latest;
  }
  const bool too_far = __builtin_sub_overflow(time, latest_given, &step);
  if (!too_far && step < 0 && step >= -kDisorder) return latest + step;
  const bool is_later = time > latest_given;
  latest_given = time;
  if (is_later) latest += too_far ? kLongest : std::min(step, kLongest);
  return latest;
}

void RateMeter::add(std::int64_t time) {
  const std::int64_t second = time / kSecond;
  const auto size = static_cast<std::int64_t>(counts.size());
  if (second > latest) {
    for (std::int64_t passed = std::max(latest, second - size) + 1; passed <= second; ++passed)
      counts[static_cast<std::size_t>(passed % size)] = 0;
    latest = second;
  }
  if (second > latest - size) ++counts[static_cast<std::size_t>(second % size)];
}

std::uint32_t RateMeter::last_second(std::int64_t now) const {
  const std::int64_t second = now / kSecond - 1;
  const auto size = static_cast<std::int64_t>(counts.size());
  if (second < 0 || second > latest || second <= latest - size) return 0;
  return counts[static_cast<std::size_t>(second % size)];
}

void JitterMeter::add(std::int64_t interval) {
  constexpr double kShare = 1.0 / 16;
  const auto length = static_cast<double>(interval);
  if (!begun) {
    begun = true;
    mean = length;
    return;
  }
  mean += (length - mean) * kShare;
  deviation += (std::abs(length - mean) - deviation) * kShare;
}

}  // namespace cue
