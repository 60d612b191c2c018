#include "kesto/delay.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "unit/support/child.h"

using kesto::Clock;
using std::chrono::nanoseconds;

namespace {

// Time stands still in this program until a test moves it: this file serves the system clock, the yields and
// the sleeps.
struct Time {
  std::int64_t monotonic = 1'000'000'000'000;  // ns, what the system clock reads
  std::vector<std::pair<long, long>> sleeps;   // seconds and nanoseconds asked for
  int yields = 0;
  std::int64_t step = 0;  // ns that pass with every yield
};

Time& fake_time() {
  static Time time;
  return time;
}

}  // namespace

// The first replaces the library function for the framework as well. The linker sends the calls of the
// library under test to the others, whose names it prescribes.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __wrap_nanosleep(const timespec* requested, timespec* remaining);
int __wrap_sched_yield();

#ifdef KADREL_CHOSE_TIME_BITS
// Qt's times have other bits than those of this tree.
struct QtTime {
  std::int32_t tv_sec;
  std::int32_t tv_nsec;
};
int qt_clock_gettime(clockid_t clock, QtTime* now) noexcept __asm__("clock_gettime");
#else
using QtTime = timespec;
#define qt_clock_gettime clock_gettime
#endif

int qt_clock_gettime(clockid_t clock, QtTime* now) noexcept {
  if (clock != CLOCK_MONOTONIC) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  now->tv_sec = static_cast<decltype(now->tv_sec)>(fake_time().monotonic / 1'000'000'000);
  now->tv_nsec = static_cast<decltype(now->tv_nsec)>(fake_time().monotonic % 1'000'000'000);
  return 0;
}

int __wrap_nanosleep(const timespec* requested, timespec* /*remaining*/) {
  fake_time().sleeps.emplace_back(requested->tv_sec, requested->tv_nsec);
  return 0;
}

int __wrap_sched_yield() {
  ++fake_time().yields;
  fake_time().monotonic += fake_time().step;
  return 0;
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using Sleeps = std::vector<std::pair<long, long>>;

void pass(nanoseconds d) {
  fake_time().monotonic += d.count();
}

class DelayTest : public testing::Test {
protected:
  DelayTest() {
    Clock::now();
    fake_time().sleeps.clear();
    fake_time().yields = 0;
    fake_time().step = 0;
  }
};

using ClockTest = DelayTest;

static_assert(std::is_same_v<Clock::rep, std::int64_t>);
static_assert(std::is_same_v<Clock::period, std::nano>);
static_assert(std::is_same_v<Clock::time_point::clock, Clock>);
static_assert(Clock::is_steady);

TEST_F(ClockTest, CountsNanoseconds) {
  const Clock::time_point before = Clock::now();
  pass(nanoseconds(1));
  EXPECT_EQ(Clock::now() - before, nanoseconds(1));
  pass(nanoseconds(86'400'000'000'000));
  EXPECT_EQ(Clock::now() - before, nanoseconds(86'400'000'000'001));
}

TEST_F(ClockTest, StandsStillWhileNoTimePasses) {
  EXPECT_EQ(Clock::now(), Clock::now());
}

CHILD_SCENARIO(first_reading_of_the_clock) {
  pass(nanoseconds(123'456));
  EXPECT_EQ(Clock::now().time_since_epoch(), nanoseconds(0));
  pass(nanoseconds(1500));
  EXPECT_EQ(Clock::now().time_since_epoch(), nanoseconds(1500));
  EXPECT_EQ(Clock::now().time_since_epoch(), nanoseconds(1500));
}

TEST(Clock, CountsFromItsFirstReading) {
  const unit::Outcome child = unit::run_child("first_reading_of_the_clock");
  EXPECT_EQ(child.status, 0) << child.out;
}

// Sleeps are only noted, so nothing here takes any time.
TEST_F(DelayTest, SleepForSuspendsForWholeMicroseconds) {
  for (const std::int64_t ns : {1000, 1500, 1999, 2000, 999'999'999, 1'000'000'000})
    kesto::sleep_for(nanoseconds(ns));
  kesto::sleep_for(nanoseconds(3'000'000'999));
  EXPECT_EQ(fake_time().sleeps,
            (Sleeps{{0, 1000}, {0, 1000}, {0, 1000}, {0, 2000}, {0, 999'999'000}, {1, 0}, {3, 0}}));
}

TEST_F(DelayTest, SleepForLessThanAMicrosecondDoesNotSleep) {
  kesto::sleep_for(nanoseconds(999));
  kesto::sleep_for(nanoseconds(1));
  kesto::sleep_for(nanoseconds(0));
  EXPECT_EQ(fake_time().sleeps, Sleeps{});
  EXPECT_EQ(fake_time().yields, 0);
}

TEST_F(DelayTest, SleepUntilSuspendsForTheTimeThatIsLeft) {
  kesto::sleep_until(Clock::now() + nanoseconds(2'000'001'500));
  EXPECT_EQ(fake_time().sleeps, (Sleeps{{2, 1000}}));
}

TEST_F(DelayTest, SleepUntilAPassedTimeReturnsAtOnce) {
  kesto::sleep_until(Clock::now());
  kesto::sleep_until(Clock::now() - nanoseconds(1));
  kesto::sleep_until(Clock::time_point(nanoseconds(0)));
  EXPECT_EQ(fake_time().sleeps, Sleeps{});
}

TEST_F(DelayTest, WaitUntilYieldsUntilTheTimeHasCome) {
  fake_time().step = 10;
  const Clock::time_point start = Clock::now();
  kesto::wait_until(start + nanoseconds(45));
  EXPECT_EQ(fake_time().yields, 5);
  EXPECT_EQ(Clock::now() - start, nanoseconds(50));
  EXPECT_EQ(fake_time().sleeps, Sleeps{});
}

TEST_F(DelayTest, WaitUntilEndsExactlyAtItsTime) {
  fake_time().step = 10;
  kesto::wait_until(Clock::now() + nanoseconds(50));
  EXPECT_EQ(fake_time().yields, 5);
}

TEST_F(DelayTest, WaitUntilAPassedTimeReturnsAtOnce) {
  kesto::wait_until(Clock::now());
  kesto::wait_until(Clock::now() - nanoseconds(1));
  EXPECT_EQ(fake_time().yields, 0);
}

TEST_F(DelayTest, WaitForWaitsFromNow) {
  fake_time().step = 7;
  const Clock::time_point start = Clock::now();
  kesto::wait_for(nanoseconds(21));
  EXPECT_EQ(Clock::now() - start, nanoseconds(21));
  EXPECT_EQ(fake_time().yields, 3);
  EXPECT_EQ(fake_time().sleeps, Sleeps{});
}

TEST_F(DelayTest, WaitForNothingReturnsAtOnce) {
  kesto::wait_for(nanoseconds(0));
  kesto::wait_for(nanoseconds(-1));
  EXPECT_EQ(fake_time().yields, 0);
}

CHILD_SCENARIO(wait_beyond_the_end_of_the_clock) {
  fake_time().monotonic = 0;
  Clock::now();
  pass(nanoseconds(1000));
  fake_time().step = std::numeric_limits<std::int64_t>::max() - 1000;
  kesto::wait_for(nanoseconds::max());
  EXPECT_EQ(Clock::now(), Clock::time_point::max());
  EXPECT_EQ(fake_time().yields, 1);
}

TEST(Delay, WaitForBeyondTheEndOfTheClockWaitsUntilThatEnd) {
  if (sizeof(QtTime) < sizeof(timespec)) GTEST_SKIP() << "Qt's clock ends after 68 years";
  const unit::Outcome child = unit::run_child("wait_beyond_the_end_of_the_clock");
  EXPECT_EQ(child.status, 0) << child.out;
}

TEST_F(DelayTest, WaitWhileAsksUntilThePredicateIsFalse) {
  int calls = 0;
  kesto::wait_while([&] { return ++calls < 4; });
  EXPECT_EQ(calls, 4);
  EXPECT_EQ(fake_time().yields, 3);
  EXPECT_EQ(fake_time().sleeps, Sleeps{});
}

TEST_F(DelayTest, WaitWhileAFalsePredicateDoesNotYield) {
  int calls = 0;
  kesto::wait_while([&] {
    ++calls;
    return false;
  });
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(fake_time().yields, 0);
}

TEST_F(DelayTest, WaitWhileWithTimeoutAsksOnceEvenWithoutTime) {
  int calls = 0;
  const auto answer = [&](bool result) {
    return [&calls, result] {
      ++calls;
      return result;
    };
  };
  EXPECT_TRUE(kesto::wait_while(answer(false), nanoseconds(0)));
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(kesto::wait_while(answer(true), nanoseconds(0)));
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(kesto::wait_while(answer(false), nanoseconds(-1)));
  EXPECT_FALSE(kesto::wait_while(answer(true), nanoseconds(-1)));
  EXPECT_EQ(calls, 4);
  EXPECT_EQ(fake_time().yields, 0);
}

TEST_F(DelayTest, WaitWhileEndsWithFalseWhenTheTimeoutHasPassed) {
  fake_time().step = 300;
  int calls = 0;
  EXPECT_FALSE(kesto::wait_while(
      [&] {
        ++calls;
        return true;
      },
      nanoseconds(1000)));
  EXPECT_EQ(calls, 5);  // at 0, 300, 600, 900 and 1200 ns
  EXPECT_EQ(fake_time().yields, 4);
  EXPECT_EQ(fake_time().sleeps, Sleeps{});
}

TEST_F(DelayTest, WaitWhileTimesOutExactlyAtItsEnd) {
  fake_time().step = 500;
  int calls = 0;
  EXPECT_FALSE(kesto::wait_while(
      [&] {
        ++calls;
        return true;
      },
      nanoseconds(1000)));
  EXPECT_EQ(calls, 3);
}

TEST_F(DelayTest, WaitWhileEndsWithTrueWhenThePredicateTurnsFalseInTime) {
  fake_time().step = 100;
  int calls = 0;
  EXPECT_TRUE(kesto::wait_while([&] { return ++calls < 3; }, nanoseconds(1000)));
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(fake_time().yields, 2);
}

TEST_F(DelayTest, WaitWhileLetsAFalseAnswerWinOverAnExpiredTimeout) {
  fake_time().step = 5000;
  int calls = 0;
  EXPECT_TRUE(kesto::wait_while([&] { return ++calls < 2; }, nanoseconds(1000)));
  EXPECT_EQ(calls, 2);
}

TEST_F(DelayTest, WaitWhileWithTheLongestTimeoutWaitsForThePredicate) {
  fake_time().step = 1'000'000'000;
  int calls = 0;
  EXPECT_TRUE(kesto::wait_while([&] { return ++calls < 100; }, nanoseconds::max()));
  EXPECT_EQ(calls, 100);
}

TEST_F(DelayTest, WaitWhileWithAnEmptyPredicateThrows) {
  EXPECT_THROW(kesto::wait_while(std::function<bool()>()), std::bad_function_call);
  EXPECT_THROW(kesto::wait_while(std::function<bool()>(), nanoseconds(0)), std::bad_function_call);
}

TEST(CalculateDelay, RateGivesItsPeriodInWholeNanoseconds) {
  EXPECT_EQ(kesto::calculate_delay(1), nanoseconds(1'000'000'000));
  EXPECT_EQ(kesto::calculate_delay(3), nanoseconds(333'333'333));
  EXPECT_EQ(kesto::calculate_delay(44), nanoseconds(22'727'272));
  EXPECT_EQ(kesto::calculate_delay(60), nanoseconds(16'666'666));
  EXPECT_EQ(kesto::calculate_delay(1'000'000'000), nanoseconds(1));
  EXPECT_EQ(kesto::calculate_delay(1'000'000'001), nanoseconds(0));
  EXPECT_EQ(kesto::calculate_delay(std::numeric_limits<int>::max()), nanoseconds(0));
}

TEST(CalculateDelay, NegativeRateIsCutTowardsZero) {
  EXPECT_EQ(kesto::calculate_delay(-3), nanoseconds(-333'333'333));
}

TEST(CalculateDelay, RateZeroGivesTheLongestDuration) {
  EXPECT_EQ(kesto::calculate_delay(0), nanoseconds::max());
}

TEST(CalculateDelay, PercentChangesTheSpeed) {
  constexpr nanoseconds d(1'000'000'000);
  const std::vector<std::pair<int, std::int64_t>> expected{
      {-100, 2'000'000'000}, {-99, 1'990'000'000}, {-50, 1'500'000'000}, {-25, 1'250'000'000},
      {-1, 1'010'000'000},   {0, 1'000'000'000},   {1, 995'000'000},     {25, 875'000'000},
      {50, 750'000'000},     {99, 505'000'000},    {100, 500'000'000}};
  for (const auto& [percent, ns] : expected)
    EXPECT_EQ(kesto::calculate_delay(d, percent), nanoseconds(ns)) << percent;
}

TEST(CalculateDelay, PercentBeyondTheBoundsActsAsTheNearestBound) {
  constexpr nanoseconds d(1'000'000'000);
  for (const int percent : {101, 150, 250, std::numeric_limits<int>::max()}) {
    EXPECT_EQ(kesto::calculate_delay(d, percent), d / 2) << percent;
  }
  for (const int percent : {-101, -150, -250, std::numeric_limits<int>::min()}) {
    EXPECT_EQ(kesto::calculate_delay(d, percent), 2 * d) << percent;
  }
}

TEST(CalculateDelay, PercentResultIsCutTowardsZero) {
  EXPECT_EQ(kesto::calculate_delay(nanoseconds(3), 100), nanoseconds(1));
  EXPECT_EQ(kesto::calculate_delay(nanoseconds(3), 150), nanoseconds(1));
  EXPECT_EQ(kesto::calculate_delay(nanoseconds(3), -50), nanoseconds(4));
  EXPECT_EQ(kesto::calculate_delay(nanoseconds(-3), 100), nanoseconds(-1));
  EXPECT_EQ(kesto::calculate_delay(nanoseconds(-3), -50), nanoseconds(-4));
  EXPECT_EQ(kesto::calculate_delay(nanoseconds(1), 1), nanoseconds(0));
  EXPECT_EQ(kesto::calculate_delay(nanoseconds(0), -100), nanoseconds(0));
}

TEST(CalculateDelay, ResultBeyondTheRangeIsTheNearestDuration) {
  EXPECT_EQ(kesto::calculate_delay(nanoseconds::max(), -100), nanoseconds::max());
  EXPECT_EQ(kesto::calculate_delay(nanoseconds::max(), -250), nanoseconds::max());
  EXPECT_EQ(kesto::calculate_delay(nanoseconds::min(), -100), nanoseconds::min());
  EXPECT_EQ(kesto::calculate_delay(nanoseconds::min(), -250), nanoseconds::min());
}

}  // namespace
