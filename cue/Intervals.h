#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace cue {

/// Lengths of intervals in bounded memory: 128 bytes for each octave that is met, 3.5 KB at most. Up to 131
/// us they are told apart to 4 us, then to 1/32, up to 36 minutes.
class Intervals {
public:
  /// @param length  ns, not negative
  void add(std::int64_t length);

  std::uint64_t count() const { return total; }
  std::int64_t longest() const { return highest; }

  /// Length in ns that @p fraction (0..1) of the intervals did not exceed; 0 without intervals.
  std::int64_t percentile(double fraction) const;

  /// Number of intervals of at least @p length ns.
  std::uint64_t at_least(std::int64_t length) const;

private:
  static constexpr unsigned kSubBits = 5;
  static constexpr unsigned kLowest = 17;  // octaves from 2^17 ns; what is shorter has the first page
  static constexpr std::size_t kPages = 25;
  using Page = std::array<std::uint32_t, std::size_t{1} << kSubBits>;
  struct Place {
    std::size_t page = 0;
    std::size_t bucket = 0;
  };
  static Place place_of(std::int64_t length);
  static std::int64_t begin_of(const Place& place);
  static std::int64_t width_of(std::size_t page);

  std::array<std::unique_ptr<Page>, kPages> pages;
  std::uint64_t total = 0;
  std::int64_t highest = 0;
  std::int64_t lowest = 0;
};

}  // namespace cue
