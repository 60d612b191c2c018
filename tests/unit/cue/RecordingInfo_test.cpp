#include "cue/RecordingInfo.h"

#include <gtest/gtest.h>

#include "unit/cue/recordings.h"

using packets::dmx;
using recordings::file_of;

namespace {

TEST(RecordingInfo, CountsEveryArtDmxOfADatagram) {
  cue::RecordingReader reader = recordings::reader_of(dmx("a", 1) + dmx("b", 2) + dmx("c", 1));
  const cue::RecordingInfo found = cue::read_info(reader);
  EXPECT_EQ(found.datagrams, 1U);
  ASSERT_EQ(found.universes.size(), 2U);
  EXPECT_EQ(found.universes[0].datagrams, 2U);
  EXPECT_EQ(found.universes[1].datagrams, 1U);
  EXPECT_EQ(found.universes[0].rate(), 0);
}

TEST(RecordingInfo, TellsTheLongestGap) {
  cue::RecordingReader reader = recordings::reader_of(
      file_of({{dmx("a", 1), 0}, {dmx("b", 2), 5}, {dmx("a", 1), 6}, {dmx("a", 1), 40}, {dmx("a", 1), 3}}));
  const cue::RecordingInfo found = cue::read_info(reader);
  EXPECT_EQ(found.universes[0].longest_gap, 40);
  EXPECT_EQ(found.universes[1].longest_gap, 0);
}

TEST(RecordingInfo, GoesOnAfterDamageAndNamesTheFirst) {
  const std::string broken = dmx("a", 1) + recordings::delay(5) + std::string(9000, 'x') +
                             recordings::delay(6) + dmx("b", 1) + recordings::delay(7) + "Art-N";
  cue::RecordingReader reader = recordings::reader_of(broken);
  const cue::RecordingInfo found = cue::read_info(reader);
  EXPECT_EQ(found.datagrams, 2U);
  ASSERT_TRUE(found.damage);
  EXPECT_LT(found.damage->offset, 9000U);
}

TEST(RecordingInfo, TellsEqualLevelsFromOthers) {
  // Slots in every lane of the hash, and behind them.
  for (const std::size_t slot : {0U, 9U, 17U, 31U, 100U, 509U, 511U}) {
    std::string levels(512, 'a');
    const std::string first = dmx(levels, 1, 7);
    levels[slot] = 'b';
    cue::RecordingReader reader = recordings::reader_of(
        file_of({{dmx("x", 1, 6), 0}, {first, 5}, {first, 5}, {dmx(levels, 1, 7), 5}, {dmx("y", 1, 8), 5}}));
    const cue::SequenceFigures figures = cue::read_info(reader).universes[0].sequence.figures;
    EXPECT_EQ(figures.repeated, 2U);
    EXPECT_EQ(figures.repeated_same, 1U) << slot;
  }
}

}  // namespace
