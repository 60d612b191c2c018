#include "cue/Time.h"

#include <gtest/gtest.h>

#include <limits>

#include "cue/CueError.h"

using cue::format_time;

namespace {

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();

TEST(Time, IsWrittenForPeople) {
  EXPECT_EQ(format_time(0), "0.000 s");
  EXPECT_EQ(format_time(1'499'999), "0.001 s");
  EXPECT_EQ(format_time(1'500'000), "0.002 s");
  EXPECT_EQ(format_time(59'999'500'000), "1m00.000s");
  EXPECT_EQ(format_time(90'500'000'000), "1m30.500s");
  EXPECT_EQ(format_time(7'384'000'000'000), "2h03m04.000s");
  EXPECT_EQ(format_time(kMost), "2562047h47m16.855s");
}

TEST(Time, IsWrittenAsOnAClock) {
  EXPECT_EQ(cue::clock_text(0, 0), "0:00");
  EXPECT_EQ(cue::clock_text(90'500'000'000, 1), "1:30.5");
  EXPECT_EQ(cue::clock_text(3'599'999'999'999, 0), "59:59");
  EXPECT_EQ(cue::clock_text(3'723'500'000'000, 3), "1:02:03.500");
  EXPECT_EQ(cue::clock_text(kMost, 9), "2562047:47:16.854775807");
}

TEST(Time, IsWrittenInSeconds) {
  EXPECT_EQ(cue::seconds_text(5'999'999'999, 0), "5 s");
  EXPECT_EQ(cue::seconds_text(500'000'000, 3), "0.500 s");
  EXPECT_EQ(cue::seconds_text(kMost, 9), "9223372036.854775807 s");
}

TEST(Time, AddsUpUpToTheLongest) {
  EXPECT_EQ(cue::add_times(kMost - 5, 5), kMost);
  EXPECT_THROW(cue::add_times(kMost - 5, 6), cue::CueError);
}

}  // namespace
