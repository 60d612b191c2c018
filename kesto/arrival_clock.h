#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

namespace kesto {

/// When datagrams arrived, on a steady clock, from the times that the kernel stamps on them by the wall
/// clock.
///
/// It has no clock of its own: it is told, after each fetch of datagrams, what both clocks say. All times are
/// ns, and no value is out of range: arithmetic wraps around, and a result that makes no sense is too old or
/// in the future.
///
/// Both clocks run at the same rate, also while the system's time is slewed, so their difference stays the
/// same until somebody sets the wall clock. The difference lies between bounds, and each look that agrees
/// with them narrows them: a thread that is preempted in the middle of a look spoils nothing. A look that
/// contradicts them means that the wall clock was set. For a minute from then on, a stamp may be of either
/// time; the later arrival that is not in the future counts. It is wrong by the step at most, and only for a
/// datagram that waited for longer than the step is wide.
class ArrivalClock {
public:
  /// A datagram that waited for longer than this has no usable stamp.
  static constexpr std::int64_t kOldest = 60'000'000'000;

  /// Bounds that are as close as this need no further look. Three readings take some 0.1 us.
  static constexpr std::int64_t kClose = 5'000;

  /// One look at the clocks. The wall clock was read between the two readings of the steady clock.
  struct Look {
    std::int64_t before = 0;
    std::int64_t wall = 0;
    std::int64_t after = 0;
  };

  /// Takes in a look. The stamps that are asked for from now on were made before it.
  void look(const Look& look) {
    now = look.after;
    const Difference seen{minus(look.wall, look.after), minus(look.wall, look.before)};
    const Difference both{std::max(difference.least, seen.least), std::min(difference.most, seen.most)};
    if (looked && both.least <= both.most) {
      difference = both;
    } else {
      if (looked) earlier = Earlier{difference.middle(), now};
      difference = seen;
    }
    if (earlier && !is_age(minus(now, earlier->until))) earlier.reset();
    looked = true;
  }

  /// Whether another look at once is of no use.
  bool is_close() const { return looked && minus(difference.most, difference.least) <= kClose; }

  /// Arrival of a datagram on the steady clock, at the last look or before. Only after a look.
  /// @param stamp  by the wall clock
  /// @return nothing when the stamp is more than kOldest old or in the future
  std::optional<std::int64_t> arrival(std::int64_t stamp) const {
    std::int64_t age = minus(now, minus(stamp, difference.middle()));
    if (earlier) {
      const std::int64_t earlier_age = minus(now, minus(stamp, earlier->difference));
      if (!is_age(age) || (is_age(earlier_age) && earlier_age < age)) age = earlier_age;
    }
    if (!is_age(age)) return std::nullopt;
    return minus(now, age);
  }

private:
  /// Bounds of what the wall clock is ahead of the steady clock.
  struct Difference {
    std::int64_t least = 0;
    std::int64_t most = 0;
    std::int64_t middle() const { return minus(most, minus(most, least) / 2); }
  };

  /// The difference that was seen before the wall clock was set.
  struct Earlier {
    std::int64_t difference;
    std::int64_t until;  // steady clock
  };

  static std::int64_t minus(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
  }

  static bool is_age(std::int64_t age) { return age >= 0 && age <= kOldest; }

  bool looked = false;
  std::int64_t now = 0;  // steady clock, at the last look
  Difference difference;
  std::optional<Earlier> earlier;
};

}  // namespace kesto
