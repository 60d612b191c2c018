#pragma once

#include <cstdint>
#include <ctime>

namespace kesto {

/// A time of the system as one number; wraps around where that is too large. @return ns
inline std::int64_t nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
                                   static_cast<std::uint64_t>(time.tv_nsec));
}

/// What the clock on the wall says: ns since 1970, beyond 2038 too. std::chrono::system_clock fails then on
/// Debian 12 for 32 bits, because its code lies in a library with times of 32 bits.
inline std::int64_t wall_time() {
  static_assert(sizeof(time_t) >= sizeof(std::int64_t), "times end in 2038");
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return nanoseconds(now);
}

}  // namespace kesto
