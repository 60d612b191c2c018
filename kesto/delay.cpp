#include "kesto/delay.h"

#include <sched.h>

#include <QElapsedTimer>
#include <thread>

namespace kesto {
namespace {

QElapsedTimer started_timer() {
  QElapsedTimer timer;
  timer.start();
  return timer;
}

/// @p ns cut to whole nanoseconds, or the nearest bound of a duration.
Clock::duration truncate(double ns) {
  constexpr double kBound = 9223372036854775808.0;  // 2^63
  if (ns >= kBound) return Clock::duration::max();
  if (ns < -kBound) return Clock::duration::min();
  return Clock::duration(static_cast<Clock::rep>(ns));
}

}  // namespace

Clock::time_point Clock::now() noexcept {
  static const QElapsedTimer timer = started_timer();
  return time_point(duration(timer.nsecsElapsed()));
}

void sleep_for(Clock::duration d) {
  const auto whole = std::chrono::duration_cast<std::chrono::microseconds>(d);
  if (whole.count() > 0) std::this_thread::sleep_for(whole);
}

void sleep_until(Clock::time_point t) {
  const auto now = Clock::now();
  if (now < t) sleep_for(t - now);
}

void wait_until(Clock::time_point t) {
  while (Clock::now() < t) sched_yield();
}

void wait_for(Clock::duration d) {
  const auto now = Clock::now();
  // The sum would overflow: wait until the end of the clock.
  const bool beyond = d > Clock::time_point::max() - now;
  wait_until(beyond ? Clock::time_point::max() : now + d);
}

void wait_while(const std::function<bool()>& predicate) {
  while (predicate()) sched_yield();
}

bool wait_while(const std::function<bool()>& predicate, Clock::duration timeout) {
  const auto start = Clock::now();
  while (predicate()) {
    if (Clock::now() - start >= timeout) return false;
    sched_yield();
  }
  return true;
}

Clock::duration calculate_delay(int rate) {
  if (rate == 0) return Clock::duration::max();
  return truncate(1000000000.0 / rate);
}

Clock::duration calculate_delay(Clock::duration d, int percent) {
  const auto x = static_cast<double>(d.count());
  if (percent < -100) return truncate(x + x);
  if (percent > 100) return truncate(x - x * 0.5);
  const double f = percent / 100.0;
  return truncate(percent > 0 ? x - f * x * 0.5 : x - f * x);
}

}  // namespace kesto
