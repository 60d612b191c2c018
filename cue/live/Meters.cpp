#include "cue/live/Meters.h"

#include <algorithm>
#include <cmath>

#include "cue/Time.h"

namespace cue {

std::int64_t LiveClock::at(std::int64_t time) {
  const std::int64_t now = look(time);
  const bool is_disorder = begun && now < latest;
  if (is_disorder) return now;
  begun = true;
  latest_given = time;
  latest = now;
  return now;
}

std::int64_t LiveClock::look(std::int64_t time) const {
  constexpr std::int64_t kDisorder = kSecond;
  constexpr std::int64_t kLongest = 120 * kSecond;
  // So that what comes out of order after the first one is not before 0.
  if (!begun) return kDisorder;
  std::int64_t step = 0;
  if (__builtin_sub_overflow(time, latest_given, &step))
    return time > latest_given ? latest + kLongest : latest;
  if (step < -kDisorder) return latest;
  return latest + std::min(step, kLongest);
}

void ArrivalClock::look(std::int64_t wall, std::int64_t steady) {
  // Batches can come a little after the look that they were stamped before.
  earliest = (begun ? steady_now : steady) - kSecond;
  begun = true;
  wall_now = wall;
  steady_now = steady;
}

std::int64_t ArrivalClock::at(std::int64_t stamp) const {
  std::int64_t ago = 0;
  std::int64_t time = 0;
  if (__builtin_sub_overflow(wall_now, stamp, &ago) || __builtin_sub_overflow(steady_now, ago, &time))
    return stamp < wall_now ? earliest : steady_now;
  return std::clamp(time, earliest, steady_now);
}

std::uint64_t DropCounter::add(std::uint32_t now) {
  const auto step = static_cast<std::int32_t>(now - last);
  last = now;
  if (step > 0) all += static_cast<std::uint32_t>(step);
  return all;
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
