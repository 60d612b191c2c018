#include "cue/Intervals.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace cue {

Intervals::Place Intervals::place_of(std::int64_t length) {
  const auto value = static_cast<std::uint64_t>(length);
  constexpr std::size_t kMask = (std::size_t{1} << kSubBits) - 1;
  if (value >> kLowest == 0) return {0, static_cast<std::size_t>(value >> (kLowest - kSubBits))};
  const auto octave = static_cast<unsigned>(63 - __builtin_clzll(value));
  const std::size_t page = octave - kLowest + 1;
  if (page >= kPages) return {kPages - 1, kMask};
  return {page, static_cast<std::size_t>(value >> (octave - kSubBits)) & kMask};
}

std::int64_t Intervals::width_of(std::size_t page) {
  const std::size_t octave = kLowest + (page == 0 ? 0 : page - 1);
  return std::int64_t{1} << (octave - kSubBits);
}

std::int64_t Intervals::begin_of(const Place& place) {
  const std::int64_t front = place.page == 0 ? 0 : std::int64_t{1} << (kLowest + place.page - 1);
  return front + static_cast<std::int64_t>(place.bucket) * width_of(place.page);
}

void Intervals::add(std::int64_t length) {
  lowest = total == 0 ? length : std::min(lowest, length);
  highest = std::max(highest, length);
  ++total;
  const Place place = place_of(length);
  std::unique_ptr<Page>& page = pages[place.page];
  if (!page) page = std::make_unique<Page>();
  std::uint32_t& bucket = (*page)[place.bucket];
  if (bucket < std::numeric_limits<std::uint32_t>::max()) ++bucket;
}

std::int64_t Intervals::percentile(double fraction) const {
  const double wanted = std::max(1.0, std::ceil(fraction * static_cast<double>(total)));
  double passed = 0;
  for (std::size_t page = 0; page < kPages; ++page) {
    if (!pages[page]) continue;
    for (std::size_t bucket = 0; bucket < pages[page]->size(); ++bucket) {
      const auto here = static_cast<double>((*pages[page])[bucket]);
      if (here > 0 && passed + here >= wanted) {
        if (page == kPages - 1 && bucket == pages[page]->size() - 1) return highest;
        // As if the intervals were spread evenly over their bucket.
        const double part = (wanted - passed) / here * static_cast<double>(width_of(page));
        const std::int64_t length = begin_of({page, bucket}) + static_cast<std::int64_t>(part);
        return std::clamp(length, lowest, highest);
      }
      passed += here;
    }
  }
  return highest;
}

std::uint64_t Intervals::at_least(std::int64_t length) const {
  const Place from = place_of(length);
  std::uint64_t count = 0;
  for (std::size_t page = from.page; page < kPages; ++page) {
    if (!pages[page]) continue;
    for (std::size_t bucket = page == from.page ? from.bucket : 0; bucket < pages[page]->size(); ++bucket)
      count += (*pages[page])[bucket];
  }
  return count;
}

}  // namespace cue
