#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace kesto {

/// Steady clock of the process in signed 64-bit nanoseconds. It starts at about 0 with its first reading.
struct Clock {
  using rep = std::int64_t;
  using period = std::nano;
  using duration = std::chrono::duration<rep, period>;
  using time_point = std::chrono::time_point<Clock, duration>;
  static constexpr bool is_steady = true;

  /// Nanoseconds since the first call in the process. Any thread.
  static time_point now() noexcept;
};

/// Suspends the calling thread for d / 1000 whole microseconds; less than one microsecond does not sleep.
void sleep_for(Clock::duration d);

/// Sleeps as sleep_for() until @p t; returns at once when @p t has passed.
void sleep_until(Clock::time_point t);

/// Busy wait until @p t; yields the processor between looks. Ends within one scheduling turn of @p t.
void wait_until(Clock::time_point t);

/// Busy wait for @p d from now.
void wait_for(Clock::duration d);

/// Busy wait while @p predicate is true. @throws std::bad_function_call when it is empty.
void wait_while(const std::function<bool()>& predicate);

/// Busy wait while @p predicate is true, for at most @p timeout. The predicate is asked at least once, and
/// its false answer wins over the time-out. @return true: the predicate turned false; false: time-out.
/// @throws std::bad_function_call when the predicate is empty.
bool wait_while(const std::function<bool()>& predicate, Clock::duration timeout);

/// Period of @p rate events per second, cut to whole nanoseconds: 44 gives 22 727 272 ns.
/// @param rate  0 gives the longest duration
Clock::duration calculate_delay(int rate);

/// @p d at a speed changed by @p percent: +100 halves it, -100 doubles it, +50 gives 3/4 and -50 gives 3/2 of
/// it. Values beyond -100..100 act as the nearest bound.
Clock::duration calculate_delay(Clock::duration d, int percent);

}  // namespace kesto
