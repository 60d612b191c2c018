#include "cue/Lateness.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

TEST(Lateness, TellsPercentilesToOneThirtySecond) {
  cue::Lateness late;
  EXPECT_EQ(late.percentile(0.5), 0);
  for (int i = 1; i <= 1000; ++i) late.add(i * 1000);
  EXPECT_EQ(late.count(), 1000U);
  EXPECT_EQ(late.max(), 1'000'000);
  EXPECT_EQ(late.percentile(1), 1'000'000);
  EXPECT_NEAR(static_cast<double>(late.percentile(0.5)), 500'000, 500'000 / 32.0);
  EXPECT_NEAR(static_cast<double>(late.percentile(0.99)), 990'000, 990'000 / 32.0);
  EXPECT_EQ(late.drift(), 999'000);
}

TEST(Lateness, TakesAnyNumber) {
  cue::Lateness late;
  late.add(0);
  late.add(31);
  late.add(63);
  EXPECT_EQ(late.percentile(0), 0);
  EXPECT_EQ(late.percentile(0.6), 31);
  late.add(std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(late.percentile(1), std::numeric_limits<std::int64_t>::max());
}

}  // namespace
