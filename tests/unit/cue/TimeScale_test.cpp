#include "cue/TimeScale.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <set>

#include "cue/Time.h"

using cue::kSecond;

namespace {

constexpr std::int64_t kMs = kSecond / 1000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;

std::string words(std::int64_t start, std::int64_t end, double width = 1200) {
  std::string text;
  for (const cue::Tick& tick : cue::time_ticks(start, end, width)) text += tick.text + " | ";
  return text;
}

TEST(TimeScale, HasWordsForEveryZoom) {
  EXPECT_EQ(words(0, 2 * kSecond, 400), "0.0 s | 0.5 s | 1.0 s | 1.5 s | 2.0 s | ");
  EXPECT_EQ(words(0, kMinute, 500), "0:00 | 0:10 | 0:20 | 0:30 | 0:40 | 0:50 | 1:00 | ");
  EXPECT_EQ(words(0, 10 * kMinute, 400), "0:00 | 2:00 | 4:00 | 6:00 | 8:00 | 10:00 | ");
  EXPECT_EQ(words(0, 3 * kHour, 500), "0:00 | 30:00 | 1:00:00 | 1:30:00 | 2:00:00 | 2:30:00 | 3:00:00 | ");
  EXPECT_EQ(words(600 * kSecond, 600 * kSecond + 10 * kMs, 500),
            "10:00.000 | 10:00.002 | 10:00.004 | 10:00.006 | 10:00.008 | 10:00.010 | ");
  EXPECT_EQ(words(1234 * kSecond, 1234 * kSecond + 5, 900),
            "20:34.000000000 | 20:34.000000001 | 20:34.000000002 | 20:34.000000003 | 20:34.000000004 | "
            "20:34.000000005 | ");
}

TEST(TimeScale, MarksOneTimeAndTheLongest) {
  EXPECT_EQ(words(0, 0), "0.000000000 s | ");
  EXPECT_EQ(words(0, std::numeric_limits<std::int64_t>::max(), 500),
            "0:00 | 480000:00:00 | 960000:00:00 | 1440000:00:00 | 1920000:00:00 | 2400000:00:00 | ");
  EXPECT_EQ(words(10 * kSecond + 1, 10 * kSecond + 2, 1), "");
}

TEST(TimeScale, HasDistinctTicksWithRoomForTheirWords) {
  std::mt19937_64 engine(1);
  for (int round = 0; round < 20'000; ++round) {
    const auto length = static_cast<std::int64_t>(engine() >> (2 + engine() % 60));
    const auto start = static_cast<std::int64_t>(engine() >> (2 + engine() % 60));
    const std::vector<cue::Tick> ticks = cue::time_ticks(start, start + length, 1200);
    std::set<std::string> texts;
    for (std::size_t i = 0; i < ticks.size(); ++i) {
      EXPECT_TRUE(texts.insert(ticks[i].text).second) << ticks[i].text;
      EXPECT_GE(ticks[i].time, start);
      EXPECT_LE(ticks[i].time, start + length);
      if (i == 0) continue;
      const double distance =
          1200.0 * static_cast<double>(ticks[i].time - ticks[i - 1].time) / static_cast<double>(length);
      EXPECT_GE(distance, 7 * static_cast<double>(ticks[i].text.size())) << ticks[i].text;
    }
  }
}

}  // namespace
