#pragma once

#include <cstdint>
#include <string>

/// Times and pauses, all in nanoseconds.
namespace cue {

constexpr std::int64_t kSecond = 1'000'000'000;

/// @p a + @p b, both not negative. @throws CueError when the sum is too long for 64 bits
std::int64_t add_times(std::int64_t a, std::int64_t b);

/// "2.977 s", "1m30.500s", "2h03m04.000s"; nanoseconds are rounded to milliseconds.
std::string format_time(std::int64_t nanoseconds);

/// How a clock shows a time: "0:05", "1:30.5", "1:02:03.500".
/// @param decimals  of the seconds, 0..9; finer ones are cut off
std::string clock_text(std::int64_t nanoseconds, int decimals);

/// "5 s", "0.500 s". @param decimals  0..9; finer ones are cut off
std::string seconds_text(std::int64_t nanoseconds, int decimals);

}  // namespace cue
