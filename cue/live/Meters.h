#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// What is measured of a row of datagrams. All times in ns on the clock of LiveClock.
namespace cue {

/// Makes a clock that never goes back by more than a second, nor on by more than two minutes at a time, from
/// one that people and programs set.
class LiveClock {
public:
  /// A clock counts on from 0 by two minutes at most for each time it is given, so 64 bits are enough.
  /// @param time  ns, any number. @return ns, 0 or more
  std::int64_t at(std::int64_t time);

  /// The same without a step of the clock, which what is given next may lie before.
  std::int64_t look(std::int64_t time) const;

private:
  bool begun = false;
  std::int64_t latest_given = 0;
  std::int64_t latest = 0;
};

/// Times of arrival on a clock that nobody sets, from stamps of the wall clock, which people and programs set
/// while datagrams wait to be read.
class ArrivalClock {
public:
  /// The time now on both clocks, ns; before the stamps of what waits are asked for.
  void look(std::int64_t wall, std::int64_t steady);

  /// @param stamp  ns on the wall clock. @return ns on the other; not later than the last look, nor more than
  ///               a second before the look that preceded it
  std::int64_t at(std::int64_t stamp) const;

private:
  bool begun = false;
  std::int64_t wall_now = 0;
  std::int64_t steady_now = 0;
  std::int64_t earliest = 0;
};

/// Adds up a counter of 32 bits that runs over, and that can be set back when an interface is renamed or
/// begins anew.
class DropCounter {
public:
  /// @return all so far
  std::uint64_t add(std::uint32_t now);

private:
  std::uint32_t last = 0;
  std::uint64_t all = 0;
};

/// Packets in a whole second.
class RateMeter {
public:
  void add(std::int64_t time);

  /// Packets of the second before the one in which @p now lies; up to two seconds before the latest packet.
  std::uint32_t last_second(std::int64_t now) const;

private:
  std::array<std::uint32_t, 4> counts{};  // by second
  std::int64_t latest = 0;                // second of the latest packet
};

/// Deviation of intervals from their mean, both moving over about 16 of them (as RFC 3550, 6.4.1).
class JitterMeter {
public:
  /// @param interval  ns, 0 or more
  void add(std::int64_t interval);

  /// ns; 0 below two intervals
  double jitter() const { return deviation; }

private:
  bool begun = false;
  double mean = 0;
  double deviation = 0;
};

}  // namespace cue
