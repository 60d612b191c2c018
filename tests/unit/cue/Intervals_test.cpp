#include "cue/Intervals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

TEST(Intervals, WithoutIntervalsAreZero) {
  const cue::Intervals none;
  EXPECT_EQ(none.count(), 0U);
  EXPECT_EQ(none.percentile(0.5), 0);
  EXPECT_EQ(none.at_least(0), 0U);
}

TEST(Intervals, AreExactWhenAllAreEqual) {
  for (const std::int64_t length : {std::int64_t{0}, std::int64_t{1}, std::int64_t{22'727'272},
                                    std::numeric_limits<std::int64_t>::max()}) {
    cue::Intervals intervals;
    for (int n = 0; n < 100; ++n) intervals.add(length);
    EXPECT_EQ(intervals.percentile(0.5), length);
    EXPECT_EQ(intervals.percentile(0.99), length);
    EXPECT_EQ(intervals.longest(), length);
    EXPECT_EQ(intervals.at_least(length), 100U);
  }
}

TEST(Intervals, TellPercentilesToOne32nd) {
  std::mt19937_64 engine(7);
  std::vector<std::int64_t> lengths;
  cue::Intervals intervals;
  for (int n = 0; n < 5000; ++n) {
    const auto octave = std::uniform_int_distribution<unsigned>(17, 40)(engine);
    lengths.push_back(std::uniform_int_distribution<std::int64_t>(0, std::int64_t{1} << octave)(engine));
    intervals.add(lengths.back());
  }
  std::sort(lengths.begin(), lengths.end());
  for (const double fraction : {0.0, 0.1, 0.5, 0.9, 0.99, 1.0}) {
    const auto rank = static_cast<std::size_t>(std::max(1.0, std::ceil(fraction * 5000))) - 1;
    const auto exact = static_cast<double>(lengths[rank]);
    EXPECT_NEAR(static_cast<double>(intervals.percentile(fraction)), exact, exact / 32 + 4096) << fraction;
  }
  const auto beyond = static_cast<std::uint64_t>(
      lengths.end() - std::lower_bound(lengths.begin(), lengths.end(), std::int64_t{1} << 30));
  EXPECT_EQ(intervals.at_least(std::int64_t{1} << 30), beyond);
}

}  // namespace
