#include "tools/LevelWatch.h"

#include <gtest/gtest.h>

#include "cue/Time.h"
#include "unit/artnet/packets.h"
#include "unit/cue/recordings.h"

using kadrel_cue::LevelWatch;
using kadrel_cue::RateMeter;
using kadrel_cue::Silence;
using packets::dmx;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

bool add(LevelWatch& watch, const std::string& datagram) {
  cue::Record record;
  record.data = recordings::bytes_of(datagram);
  record.size = datagram.size();
  return watch.add(record);
}

TEST(LevelWatch, OnlyAnotherLevelIsAChange) {
  LevelWatch watch;
  EXPECT_FALSE(add(watch, dmx("abc", 1)));
  EXPECT_FALSE(add(watch, dmx("abc", 1)));
  EXPECT_TRUE(add(watch, dmx("abd", 1)));
  EXPECT_FALSE(add(watch, dmx("abd", 1)));
  EXPECT_TRUE(add(watch, dmx("abc", 1)));
}

TEST(LevelWatch, AnotherNumberIsNoChange) {
  LevelWatch watch;
  EXPECT_FALSE(add(watch, dmx("abc", 1, 7)));
  EXPECT_FALSE(add(watch, dmx("abc", 1, 8)));
}

TEST(LevelWatch, TheFirstDatagramOfAUniverseIsNoChange) {
  LevelWatch watch;
  EXPECT_FALSE(add(watch, dmx("abc", 1)));
  EXPECT_FALSE(add(watch, dmx("xyz", 0x7FFF)));
  EXPECT_FALSE(add(watch, dmx("uvw", 0xFFFF)));
  EXPECT_EQ(watch.count(), 3U);
  EXPECT_TRUE(watch.universes().holds(0x7FFF));
  EXPECT_FALSE(watch.universes().holds(0));
  EXPECT_TRUE(add(watch, dmx("xyy", 0x7FFF)));
}

TEST(LevelWatch, SlotsThatComeLaterAreNoChange) {
  LevelWatch watch;
  EXPECT_FALSE(add(watch, dmx("", 1)));
  EXPECT_FALSE(add(watch, dmx("ab", 1)));
  EXPECT_FALSE(add(watch, dmx("abcd", 1)));
  EXPECT_FALSE(add(watch, dmx("a", 1)));
  EXPECT_TRUE(add(watch, dmx("abcx", 1)));
  EXPECT_FALSE(add(watch, dmx(std::string("abcx") + std::string(508, 'z'), 1)));
  EXPECT_TRUE(add(watch, dmx("b", 1)));
}

TEST(LevelWatch, EveryPacketOfADatagramCounts) {
  LevelWatch watch;
  EXPECT_FALSE(add(watch, dmx("a", 1) + dmx("b", 2)));
  EXPECT_TRUE(add(watch, dmx("x", 1) + dmx("b", 2)));
  EXPECT_TRUE(add(watch, dmx("x", 1) + dmx("y", 2)));
  EXPECT_FALSE(add(watch, "nothing"));
}

TEST(RateMeter, CountsTheDatagramsOfASecond) {
  RateMeter meter;
  EXPECT_EQ(meter.rate(), 0U);
  for (int number = 0; number < 44; ++number) meter.add(number * cue::kSecond / 44);
  EXPECT_EQ(meter.rate(), 44U);
  for (int number = 44; number < 80; ++number) meter.add(number * cue::kSecond / 44);
  EXPECT_EQ(meter.rate(), 44U);
  // After a pause it is counted anew.
  meter.add(60 * cue::kSecond);
  EXPECT_EQ(meter.rate(), 1U);
  meter.add(60 * cue::kSecond + 1);
  EXPECT_EQ(meter.rate(), 2U);
}

class SilenceTest : public testing::Test {
protected:
  static constexpr std::int64_t kLimit = 30 * cue::kSecond;
  Silence silence;
  const Silence::Clock::time_point start{seconds(1000)};
};

TEST_F(SilenceTest, DoesNotBeginBeforeTheFirstDatagram) {
  EXPECT_FALSE(silence.lasts(kLimit, start + seconds(3600)));
}

TEST_F(SilenceTest, IsCertainWhenItWasRead) {
  silence.note_growth(start);
  silence.add(0, false);
  silence.add(10 * cue::kSecond, true);
  silence.add(10 * cue::kSecond + kLimit - 1, false);
  EXPECT_FALSE(silence.lasts(kLimit, start));
  silence.add(10 * cue::kSecond + kLimit, false);
  EXPECT_TRUE(silence.lasts(kLimit, start));
  EXPECT_EQ(silence.so_far(), kLimit);
  silence.add(10 * cue::kSecond + kLimit + 1, true);
  EXPECT_FALSE(silence.lasts(kLimit, start));
}

TEST_F(SilenceTest, WithoutDatagramsItLastsSinceTheFileGrewAndASecondForTheWriter) {
  silence.add(0, true);
  silence.note_growth(start);
  EXPECT_FALSE(silence.lasts(kLimit, start + seconds(31)));
  EXPECT_TRUE(silence.lasts(kLimit, start + seconds(31) + milliseconds(500)));
  // A datagram that cannot be read yet may be a change.
  silence.note_growth(start + seconds(20));
  EXPECT_FALSE(silence.lasts(kLimit, start + seconds(51)));
}

}  // namespace
