#include "cue/Lateness.h"

#include <algorithm>
#include <cmath>

namespace cue {

std::size_t Lateness::bucket_of(std::uint64_t late) {
  if (late < (1U << kSubBits)) return static_cast<std::size_t>(late);
  const auto exponent = static_cast<unsigned>(63 - __builtin_clzll(late)) - kSubBits;
  return (std::size_t{exponent} << kSubBits) + static_cast<std::size_t>(late >> exponent);
}

std::int64_t Lateness::top_of(std::size_t bucket) {
  if (bucket < (2U << kSubBits)) return static_cast<std::int64_t>(bucket);
  const std::size_t exponent = (bucket >> kSubBits) - 1;
  const std::uint64_t mantissa = bucket - (exponent << kSubBits);
  return static_cast<std::int64_t>(((mantissa + 1) << exponent) - 1);
}

void Lateness::add(std::int64_t late) {
  if (total == 0) first = late;
  last = late;
  highest = std::max(highest, late);
  ++total;
  ++buckets[bucket_of(static_cast<std::uint64_t>(late))];
}

std::int64_t Lateness::percentile(double fraction) const {
  const auto wanted = static_cast<std::uint64_t>(std::ceil(fraction * static_cast<double>(total)));
  std::uint64_t passed = 0;
  for (std::size_t bucket = 0; bucket < buckets.size(); ++bucket) {
    passed += buckets[bucket];
    if (passed > 0 && passed >= wanted) return std::min(top_of(bucket), highest);
  }
  return highest;
}

}  // namespace cue
