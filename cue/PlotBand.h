#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "artnet/ArtNet.h"

namespace cue {

/// Time in columns, from left to right.
struct PlotAxis {
  std::int64_t start = 0;  // ns since the first datagram
  std::int64_t end = 0;    // not before start
  std::size_t columns = 0;

  /// Columns before @p time, which is on the axis; all of them at its end.
  double position(std::int64_t time) const;
};

/// The slots of a universe that were ever above 0.
class SlotsInUse {
public:
  void add(const std::uint8_t* levels, std::size_t slots);

  std::size_t count() const;

  /// The slots in use, counted from 0; all when none is in use. @param slots  of the universe, 1..512
  std::vector<std::uint16_t> alone(std::size_t slots) const { return chosen(slots, 0); }

  /// With short stretches between them that are not in use, so that a fixture is not torn apart.
  std::vector<std::uint16_t> together(std::size_t slots) const { return chosen(slots, kLongestStretch); }

private:
  static constexpr std::size_t kLongestStretch = 3;

  std::vector<std::uint16_t> chosen(std::size_t slots, std::size_t longest_stretch) const;

  std::array<std::uint8_t, kDmxSlots> seen{};  // all levels of a slot, or-ed
};

/// One universe over time: in each row a group of slots, in each column the looks of that time, each for as
/// long as it stood. In constant memory.
class PlotBand {
public:
  /// @param slots      drawn, counted from 0; at least one
  /// @param most_rows  at least 1
  /// @param longest_pause  ns; a look stands until the next one, but not over a longer pause
  PlotBand(std::vector<std::uint16_t> slots, std::size_t most_rows, std::int64_t longest_pause,
           const PlotAxis& time);

  /// Adds a look; times do not fall, and may be before and behind the axis.
  void add(std::int64_t time, const std::uint8_t* levels, std::size_t count);

  /// After the last look. @param time  up to which there is no other look
  void finish(std::int64_t time);

  struct Cell {
    bool is_gap = true;     // nothing was sent
    std::uint8_t mean = 0;  // over time; of a few slots the brightest, of many their quadratic mean
    std::uint8_t peak = 0;  // the brightest slot at its brightest time
  };

  std::size_t rows() const { return row_count; }
  const std::vector<std::uint16_t>& slots() const { return drawn; }
  Cell cell(std::size_t row, std::size_t column) const { return cells[row * axis.columns + column]; }

private:
  struct Sum {
    double levels = 0;          // level * columns
    std::uint8_t mean = 0;      // of the present look
    std::uint8_t peak = 0;      // of the present look
    std::uint8_t top_peak = 0;  // of all looks in the column
  };

  void take(const std::uint8_t* levels, std::size_t count);
  void draw_until(std::int64_t time);
  void draw(std::size_t to_column, double part);
  void close_column();

  std::vector<std::uint16_t> drawn;
  std::size_t slots_per_row;
  std::size_t row_count;
  std::int64_t gap;
  PlotAxis axis;
  bool has_look = false;
  std::int64_t last = 0;    // time of the present look
  std::size_t current = 0;  // column that the sums are of
  double width = 0;         // part of the column that they cover
  std::vector<Sum> sums;    // a row each
  std::vector<Cell> cells;  // row by row
  std::array<std::uint8_t, kDmxSlots> gathered{};
};

}  // namespace cue
