#include "cue/live/Meters.h"

#include <gtest/gtest.h>

#include <limits>

#include "cue/Time.h"

using cue::kSecond;

namespace {

TEST(LiveClock, GoesOnAsItsTimesDo) {
  cue::LiveClock clock;
  const std::int64_t start = clock.at(1'700'000'000 * kSecond);
  EXPECT_EQ(clock.at(1'700'000'000 * kSecond + 7), start + 7);
  EXPECT_EQ(clock.at(1'700'000'001 * kSecond), start + kSecond);
}

TEST(LiveClock, TakesTimesOfTheLastSecondAsTheyAre) {
  cue::LiveClock clock;
  const std::int64_t start = clock.at(0);
  EXPECT_EQ(clock.at(-kSecond), start - kSecond);
  EXPECT_GE(start - kSecond, 0);
  EXPECT_EQ(clock.at(10), start + 10);
  EXPECT_EQ(clock.at(4), start + 4);
  EXPECT_EQ(clock.at(10), start + 10);
}

TEST(LiveClock, CountsOnFromATimeThatWasSetBack) {
  cue::LiveClock clock;
  const std::int64_t start = clock.at(3600 * kSecond);
  EXPECT_EQ(clock.at(0), start);
  EXPECT_EQ(clock.at(5), start + 5);
}

TEST(LiveClock, CanBeLookedAtWithoutAStep) {
  cue::LiveClock clock;
  const std::int64_t start = clock.at(0);
  EXPECT_EQ(clock.look(10 * kSecond), start + 10 * kSecond);
  EXPECT_EQ(clock.look(-kSecond), start - kSecond);
  EXPECT_EQ(clock.look(-2 * kSecond), start);
  EXPECT_EQ(clock.look(3600 * kSecond), start + 120 * kSecond);
  EXPECT_EQ(clock.at(5 * kSecond), start + 5 * kSecond);
}

TEST(LiveClock, StaysInItsBoundsWhateverItIsGiven) {
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  cue::LiveClock clock;
  std::int64_t last = clock.at(kLowest);
  for (const std::int64_t time : {kHighest, kLowest, kHighest, std::int64_t{0}, kLowest, std::int64_t{-1}}) {
    const std::int64_t next = clock.at(time);
    EXPECT_GE(next, last);
    EXPECT_LE(next, last + 120 * kSecond);
    last = next;
  }
}

TEST(ArrivalClock, DoesNotGoWithAClockThatIsSet) {
  constexpr std::int64_t kWall = 1'700'000'000 * kSecond;
  constexpr std::int64_t kSteady = 500 * kSecond;
  cue::ArrivalClock clock;
  clock.look(kWall, kSteady);
  EXPECT_EQ(clock.at(kWall - 20), kSteady - 20);
  for (const std::int64_t set : {std::int64_t{0}, 3600 * kSecond, -3600 * kSecond, -kWall}) {
    clock.look(kWall + kSecond / 10 + set, kSteady + kSecond / 10);
    EXPECT_EQ(clock.at(kWall + kSecond / 10 + set - 20), kSteady + kSecond / 10 - 20);
  }
  // Stamped before the clock was set, and read afterwards.
  clock.look(kWall + 3600 * kSecond, kSteady + kSecond);
  EXPECT_EQ(clock.at(kWall), kSteady + kSecond / 10 - kSecond);
  clock.look(kWall - 3600 * kSecond, kSteady + 2 * kSecond);
  EXPECT_EQ(clock.at(kWall), kSteady + 2 * kSecond);
}

TEST(ArrivalClock, KnowsAStampFromALongStop) {
  cue::ArrivalClock clock;
  clock.look(1000 * kSecond, 0);
  clock.look(1060 * kSecond, 60 * kSecond);
  EXPECT_EQ(clock.at(1001 * kSecond), kSecond);
  EXPECT_EQ(clock.at(1000 * kSecond - 7), -7);
}

TEST(ArrivalClock, StaysInItsBoundsWhateverItIsGiven) {
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  cue::ArrivalClock clock;
  for (const std::int64_t wall : {kLowest, std::int64_t{0}, kHighest}) {
    clock.look(wall, 9 * kSecond);
    for (const std::int64_t stamp : {kLowest, std::int64_t{0}, kHighest}) {
      EXPECT_EQ(clock.at(stamp), stamp < wall ? 8 * kSecond : 9 * kSecond) << wall << ' ' << stamp;
    }
  }
}

TEST(DropCounter, RunsOverAndIsNotSetBack) {
  cue::DropCounter counter;
  EXPECT_EQ(counter.add(0), 0U);
  EXPECT_EQ(counter.add(4'000), 4'000U);
  EXPECT_EQ(counter.add(2'000'000'000), 2'000'000'000U);
  EXPECT_EQ(counter.add(4'000'000'000), 4'000'000'000U);
  EXPECT_EQ(counter.add(5), 4'294'967'301U);
  EXPECT_EQ(counter.add(4'294'967'000), 4'294'967'301U);  // an interface that begins anew
  EXPECT_EQ(counter.add(4'294'967'001), 4'294'967'302U);
}

TEST(RateMeter, CountsWholeSeconds) {
  cue::RateMeter meter;
  EXPECT_EQ(meter.last_second(0), 0U);
  for (std::int64_t at = 0; at < 3 * kSecond; at += kSecond / 10) meter.add(at);
  meter.add(3 * kSecond);
  EXPECT_EQ(meter.last_second(kSecond - 1), 0U);
  EXPECT_EQ(meter.last_second(kSecond), 10U);
  EXPECT_EQ(meter.last_second(3 * kSecond - 1), 10U);
  EXPECT_EQ(meter.last_second(3 * kSecond), 10U);
  EXPECT_EQ(meter.last_second(4 * kSecond), 1U);
  EXPECT_EQ(meter.last_second(5 * kSecond), 0U);
}

TEST(RateMeter, CountsWhatComesLateInItsSecond) {
  cue::RateMeter meter;
  meter.add(2 * kSecond);
  meter.add(2 * kSecond - 1);
  meter.add(0);
  EXPECT_EQ(meter.last_second(2 * kSecond), 1U);
  EXPECT_EQ(meter.last_second(kSecond), 1U);
  meter.add(4 * kSecond);
  meter.add(0);  // too late
  EXPECT_EQ(meter.last_second(kSecond), 0U);
}

TEST(RateMeter, ForgetsASecondWhenItsPlaceIsTakenAgain) {
  for (const std::int64_t pause : {1, 2, 3, 4, 5, 1'000'000}) {
    cue::RateMeter meter;
    meter.add(10 * kSecond);
    meter.add((10 + pause) * kSecond);
    EXPECT_EQ(meter.last_second((11 + pause) * kSecond), 1U) << pause;
    EXPECT_EQ(meter.last_second((10 + pause) * kSecond), pause == 1 ? 1U : 0U) << pause;
  }
}

TEST(JitterMeter, IsTheMeanDeviationOfTheIntervals) {
  cue::JitterMeter even;
  EXPECT_EQ(even.jitter(), 0);
  for (int i = 0; i < 100; ++i) even.add(22'727'272);
  EXPECT_EQ(even.jitter(), 0);

  cue::JitterMeter uneven;
  uneven.add(10);
  EXPECT_EQ(uneven.jitter(), 0);
  for (int i = 0; i < 1000; ++i) {
    uneven.add(20);
    uneven.add(10);
  }
  EXPECT_NEAR(uneven.jitter(), 5, 0.5);
}

TEST(JitterMeter, ForgetsAPause) {
  cue::JitterMeter meter;
  for (int i = 0; i < 20; ++i) meter.add(25'000'000);
  meter.add(3600 * kSecond);
  for (int i = 0; i < 1000; ++i) meter.add(25'000'000);
  EXPECT_LT(meter.jitter(), 1000);
}

}  // namespace
