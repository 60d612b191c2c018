#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace kesto {

/// How long waits for something slow may take, all together: @p most at a stretch, and on the whole no more
/// than one part in @p share of the time that passes. Any thread; two that spend at the same moment may both
/// get it.
class WaitBudget {
public:
  using nanoseconds = std::chrono::nanoseconds;

  constexpr WaitBudget(nanoseconds most, int share) : largest(most), parts(share) {}

  /// What may be waited at @p now (of any steady clock), 0 to the most.
  nanoseconds left(nanoseconds now) const {
    const nanoseconds saved = (now - nanoseconds(empty_since.load())) / parts;
    return std::clamp(saved, nanoseconds(0), largest);
  }

  /// A wait of @p waited has ended at @p now.
  void spend(nanoseconds now, nanoseconds waited) {
    const nanoseconds since = std::max(nanoseconds(empty_since.load()), now - largest * parts);
    empty_since.store((since + waited * parts).count());
  }

private:
  nanoseconds largest;
  int parts;
  // When there was last nothing left; later than now while more has been spent than there was.
  std::atomic<std::int64_t> empty_since{0};
};

}  // namespace kesto
