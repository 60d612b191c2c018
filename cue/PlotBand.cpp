#include "cue/PlotBand.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace cue {
namespace {

// Width of a look that stood for no time, in columns.
constexpr double kInstant = 1e-9;

/// Level of a group of slots: of a few slots the brightest; of many slots, where one is nearly always bright,
/// the quadratic mean.
std::uint8_t group_level(const std::uint8_t* levels, std::size_t count, std::uint8_t brightest) {
  constexpr std::size_t kFew = 8;
  if (count <= kFew) return brightest;
  std::uint32_t squares = 0;
  for (std::size_t i = 0; i < count; ++i)
    squares += static_cast<std::uint32_t>(levels[i]) * static_cast<std::uint32_t>(levels[i]);
  return static_cast<std::uint8_t>(std::sqrt(static_cast<double>(squares) / static_cast<double>(count)));
}

}  // namespace

double PlotAxis::position(std::int64_t time) const {
  const auto length = static_cast<double>(std::max<std::int64_t>(1, end - start));
  return static_cast<double>(columns) * (static_cast<double>(time - start) / length);
}

void SlotsInUse::add(const std::uint8_t* levels, std::size_t slots) {
  for (std::size_t slot = 0; slot < slots; ++slot)
    seen[slot] = static_cast<std::uint8_t>(seen[slot] | levels[slot]);
}

std::size_t SlotsInUse::count() const {
  return static_cast<std::size_t>(
      std::count_if(seen.begin(), seen.end(), [](std::uint8_t level) { return level != 0; }));
}

/// @param longest_stretch  of slots not in use that is taken along
std::vector<std::uint16_t> SlotsInUse::chosen(std::size_t slots, std::size_t longest_stretch) const {
  std::vector<std::uint16_t> chosen;
  const bool all = count() == 0;
  for (std::size_t slot = 0; slot < slots; ++slot) {
    if (!all && seen[slot] == 0) continue;
    std::size_t from = chosen.empty() ? slot : chosen.back() + std::size_t{1};
    if (slot - from > longest_stretch) from = slot;
    for (; from <= slot; ++from) chosen.push_back(static_cast<std::uint16_t>(from));
  }
  return chosen;
}

PlotBand::PlotBand(std::vector<std::uint16_t> slots, std::size_t most_rows, std::int64_t longest_pause,
                   const PlotAxis& time)
    : drawn(std::move(slots)),
      slots_per_row((drawn.size() + most_rows - 1) / most_rows),
      row_count((drawn.size() + slots_per_row - 1) / slots_per_row),
      gap(longest_pause),
      axis(time),
      sums(row_count),
      cells(row_count * axis.columns) {}

void PlotBand::add(std::int64_t time, const std::uint8_t* levels, std::size_t count) {
  draw_until(time);
  take(levels, count);
  has_look = true;
  last = time;
}

void PlotBand::finish(std::int64_t time) {
  draw_until(time);
  if (width > 0) close_column();
}

/// Makes the levels the present look.
void PlotBand::take(const std::uint8_t* levels, std::size_t count) {
  for (std::size_t i = 0; i < drawn.size(); ++i) gathered[i] = drawn[i] < count ? levels[drawn[i]] : 0;
  for (std::size_t row = 0; row < row_count; ++row) {
    const std::size_t from = row * slots_per_row;
    const std::size_t size = std::min(slots_per_row, drawn.size() - from);
    Sum& sum = sums[row];
    sum.peak = *std::max_element(gathered.data() + from, gathered.data() + from + size);
    sum.mean = group_level(gathered.data() + from, size, sum.peak);
  }
}

/// Draws the present look for the time that it stood. One before a gap is seen at its own time only.
void PlotBand::draw_until(std::int64_t time) {
  if (!has_look || last > axis.end) return;
  const bool stands = time - last <= gap;
  const std::int64_t until = std::min(axis.end, stands ? time : last);
  if (until < axis.start) return;
  const double from = axis.position(std::max(last, axis.start));
  const double to = axis.position(until);
  const std::size_t first_column = std::min(axis.columns - 1, static_cast<std::size_t>(from));
  const std::size_t final_column = std::min(axis.columns - 1, static_cast<std::size_t>(to));
  for (std::size_t at = first_column; at <= final_column; ++at) {
    const double left = std::max(from, static_cast<double>(at));
    const double right = std::min(to, static_cast<double>(at + 1));
    // A look that ends where a column begins does not belong there.
    if (right > left || at == first_column) draw(at, std::max(right - left, kInstant));
  }
}

/// Adds the present look to a column that is not before the one so far.
void PlotBand::draw(std::size_t to_column, double part) {
  if (to_column != current) {
    if (width > 0) close_column();
    current = to_column;
  }
  width += part;
  for (Sum& sum : sums) {
    sum.levels += sum.mean * part;
    sum.top_peak = std::max(sum.top_peak, sum.peak);
  }
}

void PlotBand::close_column() {
  for (std::size_t row = 0; row < row_count; ++row) {
    Sum& sum = sums[row];
    const double mean = std::min(255.0, sum.levels / width + 0.5);
    cells[row * axis.columns + current] = {false, static_cast<std::uint8_t>(mean), sum.top_peak};
    sum.levels = 0;
    sum.top_peak = 0;
  }
  width = 0;
}

}  // namespace cue
