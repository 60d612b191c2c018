#include "kesto/arrival_clock.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

using kesto::ArrivalClock;

namespace {

constexpr std::int64_t kUs = 1'000;
constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kHour = 3600 * kSecond;
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();

constexpr std::int64_t kNow = 1000 * kSecond;            // steady clock, at the last look
constexpr std::int64_t kWall = 1'800'000'000 * kSecond;  // wall clock at that time
constexpr std::int64_t kDifference = kWall - kNow;

/// A look without a preemption.
/// @param step  what the wall clock is ahead of what it would be had nobody set it at the end
ArrivalClock::Look at(std::int64_t steady, std::int64_t step = 0) {
  return {steady, steady + kDifference + step, steady};
}

/// A look in which so much passes before and after the reading of the wall clock.
ArrivalClock::Look preempted(std::int64_t steady, std::int64_t before, std::int64_t after) {
  return {steady - before, steady + kDifference, steady + after};
}

struct Row {
  const char* what;
  std::vector<ArrivalClock::Look> looks;
  std::int64_t stamp;
  std::optional<std::int64_t> arrival;
};

TEST(ArrivalClock, TellsWhenADatagramArrived) {
  const std::optional<std::int64_t> none;
  const std::vector<Row> rows = {
      {"now", {at(kNow)}, kWall, kNow},
      {"a moment ago", {at(kNow)}, kWall - 30 * kUs, kNow - 30 * kUs},
      {"after many looks", {at(1), at(kNow - kSecond), at(kNow)}, kWall - kMs, kNow - kMs},
      {"a minute old", {at(kNow)}, kWall - 60 * kSecond, kNow - 60 * kSecond},
      {"older than a minute", {at(kNow)}, kWall - 60 * kSecond - 1, none},
      {"in the future", {at(kNow)}, kWall + 1, none},
      {"no stamp", {at(kNow)}, 0, none},
      {"before the steady clock began", {at(kSecond)}, kWall - kNow - kSecond, -kSecond},

      // An hour forward, then backward: by the other difference the datagram is too old or in the future.
      {"forward, stamped before",
       {at(kNow - kMs, -kHour), at(kNow)},
       kWall - kHour - 300 * kMs,
       kNow - 300 * kMs},
      {"forward, stamped after", {at(kNow - kSecond, -kHour), at(kNow)}, kWall - 300 * kMs, kNow - 300 * kMs},
      {"backward, stamped before",
       {at(kNow - kMs, kHour), at(kNow)},
       kWall + kHour - 300 * kMs,
       kNow - 300 * kMs},
      {"backward, stamped after", {at(kNow - kSecond, kHour), at(kNow)}, kWall - 300 * kMs, kNow - 300 * kMs},

      // A step of a second: both differences give an age of less than a minute.
      {"a bit forward, stamped before",
       {at(kNow - kMs, -kSecond), at(kNow)},
       kWall - kSecond - kMs,
       kNow - kMs},
      {"a bit forward, stamped after", {at(kNow - kMs, -kSecond), at(kNow)}, kWall - kMs, kNow - kMs},
      {"a bit backward, stamped before",
       {at(kNow - kMs, kSecond), at(kNow)},
       kWall + kSecond - kMs,
       kNow - kMs},
      {"a bit backward, stamped after", {at(kNow - kMs, kSecond), at(kNow)}, kWall - kMs, kNow - kMs},
      // Waited for longer than the step is wide: it cannot be told, the error is the step.
      {"forward, long ago", {at(kNow - kMs, -kSecond), at(kNow)}, kWall - 3 * kSecond, kNow - 2 * kSecond},
      {"backward, long ago",
       {at(kNow - kMs, kSecond), at(kNow)},
       kWall + kSecond - 3 * kSecond,
       kNow - 2 * kSecond},

      // Datagrams of before the step may come in several fetches, but not for ever.
      {"fetched later",
       {at(kNow - kSecond, -kHour), at(kNow - kMs), at(kNow - 1), at(kNow)},
       kWall - kHour - 300 * kMs,
       kNow - 300 * kMs},
      {"a minute after the step",
       {at(kNow - 61 * kSecond, -kHour), at(kNow - 60 * kSecond), at(kNow)},
       kWall - kHour - 60 * kSecond,
       kNow - 60 * kSecond},
      {"later than that",
       {at(kNow - 61 * kSecond, -kHour), at(kNow - 60 * kSecond - 1), at(kNow)},
       kWall - kHour - 60 * kSecond,
       none},
      {"the last of several steps",
       {at(kNow - 4, kHour), at(kNow - 3, -kHour), at(kNow)},
       kWall - kHour - kMs,
       kNow - kMs},
      {"a step there and back", {at(kNow - 4), at(kNow - 3, -kHour), at(kNow)}, kWall - kMs, kNow - kMs},

      // Clocks that do not run at the same rate: the error is what the difference has changed by since the
      // last look.
      {"slewed forward", {at(kNow - 20 * kMs, -10 * kUs), at(kNow)}, kWall - 5 * kUs, kNow - 5 * kUs},
      {"slewed backward", {at(kNow - 20 * kMs, 10 * kUs), at(kNow)}, kWall - 5 * kUs, kNow - 5 * kUs},
      {"slewed, waited longer",
       {at(kNow - 20 * kMs, -10 * kUs), at(kNow)},
       kWall - 50 * kUs,
       kNow - 40 * kUs},

      // A thread that was preempted during a look.
      {"preempted before", {preempted(kNow, 4 * kMs, 0)}, kWall - kMs, kNow - kMs - 2 * kMs},
      {"preempted after", {preempted(kNow, 0, 4 * kMs)}, kWall - kMs, kNow - kMs + 2 * kMs},
      {"then exact", {preempted(kNow - 9 * kMs, 4 * kMs, 4 * kMs), at(kNow)}, kWall - kMs, kNow - kMs},
      {"exact before", {at(kNow - 9 * kMs), preempted(kNow, 4 * kMs, 8 * kMs)}, kWall - kMs, kNow - kMs},
      {"two that agree on a point",
       {preempted(kNow - 9 * kMs, 4 * kMs, 0), preempted(kNow, 0, 4 * kMs)},
       kWall - kMs,
       kNow - kMs},

      // Values that no clock has.
      {"the least stamp", {at(kNow)}, kLeast, none},
      {"the largest stamp", {at(kNow)}, kMost, none},
      {"a wall clock at its end", {{kNow, kMost, kNow}}, kMost - kMs, kNow - kMs},
      {"a wall clock at its beginning", {{kNow, kLeast, kNow}}, kLeast, kNow},
      {"clocks at both ends", {{kMost, kLeast, kMost}}, kLeast, kMost},
      {"the other way round", {{kLeast, kMost, kLeast}}, kMost, kLeast},
      {"a look that runs backward", {{kMost, kLeast, kLeast}}, 0, none},
      {"a step over all values", {{kNow, kLeast, kNow}, {kNow, kMost, kNow}}, kMost - kMs, kNow - kMs},
  };
  for (const Row& row : rows) {
    ArrivalClock clock;
    for (const ArrivalClock::Look& look : row.looks) clock.look(look);
    EXPECT_EQ(clock.arrival(row.stamp), row.arrival) << row.what;
  }
}

TEST(ArrivalClock, SaysWhetherAnotherLookIsOfUse) {
  ArrivalClock clock;
  EXPECT_FALSE(clock.is_close());
  clock.look(preempted(kNow, kMs, kMs));
  EXPECT_FALSE(clock.is_close());
  clock.look(preempted(kNow, 0, 2 * kMs));
  EXPECT_FALSE(clock.is_close());
  clock.look(preempted(kNow, 2 * kMs, ArrivalClock::kClose));
  EXPECT_TRUE(clock.is_close());
  clock.look(preempted(kNow, kMs, kMs));
  EXPECT_TRUE(clock.is_close());
  clock.look({kNow - kMs, kWall + kHour, kNow});
  EXPECT_FALSE(clock.is_close());
}

}  // namespace
