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

}  // namespace
