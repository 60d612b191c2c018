#include "cue/PlotBand.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "cue/Time.h"

using cue::kSecond;
using cue::PlotAxis;
using cue::PlotBand;
using cue::SlotsInUse;

namespace {

using Slots = std::vector<std::uint16_t>;

constexpr std::int64_t kGap = 10 * kSecond;

void add(PlotBand& band, std::int64_t time, const std::vector<std::uint8_t>& levels) {
  band.add(time, levels.data(), levels.size());
}

/// "mean/peak" of each column of a row; "-" for a gap.
std::string cells(const PlotBand& band, std::size_t columns, std::size_t row = 0) {
  std::string text;
  for (std::size_t column = 0; column < columns; ++column) {
    const PlotBand::Cell cell = band.cell(row, column);
    text += cell.is_gap ? "- " : std::to_string(cell.mean) + "/" + std::to_string(cell.peak) + " ";
  }
  return text;
}

TEST(SlotsInUse, AreThoseThatWereEverAboveZero) {
  SlotsInUse in_use;
  const std::vector<std::uint8_t> first = {0, 1, 0, 0, 0, 2, 0, 0, 0, 0, 3};
  const std::vector<std::uint8_t> second = {0, 0, 0, 0, 0, 2};
  in_use.add(first.data(), first.size());
  in_use.add(second.data(), second.size());
  EXPECT_EQ(in_use.count(), 3U);
  EXPECT_EQ(in_use.alone(12), (Slots{1, 5, 10}));
  EXPECT_EQ(in_use.together(12), (Slots{1, 2, 3, 4, 5, 10}));
}

TEST(SlotsInUse, AreAllWhenNoneIs) {
  EXPECT_EQ(SlotsInUse().alone(3), (Slots{0, 1, 2}));
  EXPECT_EQ(SlotsInUse().together(3), (Slots{0, 1, 2}));
}

TEST(PlotBand, ShowsEachLookAsLongAsItStood) {
  const PlotAxis axis{0, 4 * kSecond, 4};
  PlotBand band({0}, 1, kGap, axis);
  add(band, 0, {200});
  add(band, kSecond / 4, {40});  // three quarters of the first second
  add(band, 3 * kSecond, {90});
  band.finish(4 * kSecond);
  EXPECT_EQ(cells(band, 4), "80/200 40/40 40/40 90/90 ");
}

TEST(PlotBand, KeepsTheFlashOfAFrameAsPeak) {
  const PlotAxis axis{0, 100 * kSecond, 1};
  PlotBand band({0}, 1, kGap, axis);
  for (int second = 0; second < 100; ++second) {
    add(band, second * kSecond, {10});
    if (second != 50) continue;
    add(band, second * kSecond + 1, {255});
    add(band, second * kSecond + 2, {10});
  }
  band.finish(100 * kSecond);
  EXPECT_EQ(cells(band, 1), "10/255 ");
}

TEST(PlotBand, LeavesAGapAfterALongPause) {
  const PlotAxis axis{0, 30 * kSecond, 6};
  PlotBand band({0}, 1, kGap, axis);
  add(band, 0, {1});
  add(band, 10 * kSecond, {2});
  add(band, 20 * kSecond + 1, {3});
  band.finish(30 * kSecond + 2);
  EXPECT_EQ(cells(band, 6), "1/1 1/1 2/2 - 3/3 - ");
}

TEST(PlotBand, ShowsTheSameInAPartAsInTheWhole) {
  const PlotAxis axis{6 * kSecond, 14 * kSecond, 4};
  PlotBand band({0}, 1, kGap, axis);
  add(band, 5 * kSecond, {1});   // stands into the part
  add(band, 8 * kSecond, {2});   // until after the end, too long
  add(band, 40 * kSecond, {3});  // behind the part
  band.finish(50 * kSecond);
  EXPECT_EQ(cells(band, 4), "1/1 2/2 - - ");

  PlotBand late({0}, 1, kGap, axis);
  add(late, 0, {1});
  add(late, 12 * kSecond, {2});  // stands over the end
  add(late, 20 * kSecond, {3});
  late.finish(20 * kSecond);
  EXPECT_EQ(cells(late, 4), "- - - 2/2 ");

  PlotBand before({0}, 1, kGap, axis);
  add(before, 0, {1});
  before.finish(50 * kSecond);
  EXPECT_EQ(cells(before, 4), "- - - - ");
}

TEST(PlotBand, ShowsALookAtTheEndAndOnAnAxisWithoutLength) {
  PlotBand end({0}, 1, kGap, {0, 4 * kSecond, 4});
  add(end, 4 * kSecond, {7});
  end.finish(4 * kSecond);
  EXPECT_EQ(cells(end, 4), "- - - 7/7 ");
  PlotBand point({0}, 1, kGap, {5, 5, 4});
  add(point, 5, {7});
  point.finish(5);
  EXPECT_EQ(cells(point, 4), "7/7 - - - ");
  PlotBand empty({0}, 1, kGap, {0, 5, 4});
  empty.finish(5);
  EXPECT_EQ(cells(empty, 4), "- - - - ");
}

TEST(PlotBand, StandsTheLongestTime) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  PlotBand band({0}, 1, kGap, {0, kMost, 2});
  add(band, 0, {1});
  add(band, kMost, {2});
  band.finish(kMost);
  EXPECT_EQ(cells(band, 2), "1/1 2/2 ");
}

TEST(PlotBand, ShowsTheBrightestOfFewSlots) {
  PlotBand band({0, 2, 3, 9}, 2, kGap, {0, kSecond, 1});
  EXPECT_EQ(band.rows(), 2U);
  add(band, 0, {1, 250, 30, 40});  // the last row's second slot is not sent
  band.finish(kSecond);
  EXPECT_EQ(cells(band, 1, 0), "30/30 ");
  EXPECT_EQ(cells(band, 1, 1), "40/40 ");
}

TEST(PlotBand, ShowsAQuarterOfManySlotsAtFullAsHalf) {
  Slots slots;
  std::vector<std::uint8_t> levels;
  for (std::uint16_t slot = 0; slot < 512; ++slot) {
    slots.push_back(slot);
    levels.push_back(slot % 4 == 0 ? 255 : 0);
  }
  PlotBand band(slots, 2, kGap, {0, kSecond, 1});
  add(band, 0, levels);
  band.finish(kSecond);
  EXPECT_EQ(cells(band, 1, 1), "127/255 ");
}

}  // namespace
