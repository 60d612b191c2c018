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

}  // namespace cue
