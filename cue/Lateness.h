#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace cue {

/// Lateness of the datagrams of a playback, in constant memory. Percentiles are exact to 1/32.
class Lateness {
public:
  /// @param late  ns, not negative
  void add(std::int64_t late);

  /// Lateness in ns that @p fraction (0..1) of the datagrams did not exceed; 0 without datagrams.
  std::int64_t percentile(double fraction) const;

  std::uint64_t count() const { return total; }
  std::int64_t max() const { return highest; }

  /// Lateness of the last datagram minus that of the first, ns.
  std::int64_t drift() const { return last - first; }

private:
  static constexpr unsigned kSubBits = 5;  // 32 steps in every octave
  static std::size_t bucket_of(std::uint64_t late);
  static std::int64_t top_of(std::size_t bucket);

  std::array<std::uint64_t, std::size_t{64} << kSubBits> buckets{};
  std::uint64_t total = 0;
  std::int64_t highest = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;
};

}  // namespace cue
