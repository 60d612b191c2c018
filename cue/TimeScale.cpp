#include "cue/TimeScale.h"

#include <algorithm>
#include <array>
#include <limits>

#include "cue/Time.h"

namespace cue {
namespace {

constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

// Of a word in an axis: a character of 13 pixels' height, and the space between two words.
constexpr double kCharacterWidth = 7.5;
constexpr double kWordSpace = 28;

/// The next longer distance at which ticks stand: 1, 2, 5, 10, ... up to 20 s, then what divides minutes,
/// hours and days.
std::int64_t longer_step(std::int64_t step) {
  constexpr std::array<std::int64_t, 13> kUsual = {
      20 * kSecond, 30 * kSecond, kMinute,   2 * kMinute, 5 * kMinute, 10 * kMinute, 15 * kMinute,
      30 * kMinute, kHour,        2 * kHour, 3 * kHour,   6 * kHour,   12 * kHour};
  if (step >= kUsual.front() && step < kUsual.back())
    return *std::upper_bound(kUsual.begin(), kUsual.end(), step);
  if (step == kUsual.back()) return kDay;
  std::int64_t unit = step < kDay ? 1 : kDay;
  while (step / unit >= 10) unit *= 10;
  return step / unit == 2 ? 5 * unit : 2 * step;
}

/// Decimals of the seconds at every multiple of @p step.
int decimals_of(std::int64_t step) {
  int decimals = 0;
  for (std::int64_t unit = kSecond; step % unit != 0; unit /= 10) ++decimals;
  return decimals;
}

/// How all ticks of an axis are written.
std::string tick_text(std::int64_t time, std::int64_t step, std::int64_t end) {
  const int decimals = decimals_of(step);
  return end < kMinute ? seconds_text(time, decimals) : clock_text(time, decimals);
}

}  // namespace

std::vector<Tick> time_ticks(std::int64_t start, std::int64_t end, double width) {
  std::int64_t step = 1;
  const auto has_room = [&] {
    const double wanted =
        kWordSpace + kCharacterWidth * static_cast<double>(tick_text(end, step, end).size());
    return width * static_cast<double>(step) >= wanted * static_cast<double>(end - start);
  };
  while (step < std::numeric_limits<std::int64_t>::max() / 10 && !has_room()) step = longer_step(step);

  std::vector<Tick> ticks;
  for (std::int64_t number = start / step + (start % step == 0 ? 0 : 1); number <= end / step; ++number)
    ticks.push_back({number * step, tick_text(number * step, step, end)});
  return ticks;
}

}  // namespace cue
