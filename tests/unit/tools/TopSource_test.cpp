#include "tools/TopSource.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "cue/Time.h"
#include "cue/live/LiveCapture.h"
#include "tools/ReadyChecks.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"

using cue::kSecond;
using kadrel_cue::TopFigures;
using packets::dmx;
using recordings::delay;

namespace {

constexpr std::int64_t kPause = kSecond / 40;

std::string levels(char level) {
  return dmx(std::string(4, level));
}

class Recording : public testing::Test {
protected:
  void write(const std::string& bytes) const {
    std::ofstream(path, std::ios::binary | std::ios::app)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

  void follow() {
    source = kadrel_cue::follow_recording(path, [this] { return time; });
    source->read();
  }

  TopFigures figures_after(std::int64_t passed) {
    time += passed;
    source->read();
    return source->figures();
  }

  unit::Directory there;
  std::string path = there / "show.cue";
  std::int64_t time = 1000 * kSecond;
  std::unique_ptr<kadrel_cue::TopSource> source;
};

TEST_F(Recording, IsShownInItsLastStateWhenItHasEnded) {
  write(levels(1) + delay(kPause) + levels(2) + delay(kPause) + levels(3));
  follow();
  EXPECT_FALSE(source->is_live());
  EXPECT_TRUE(source->is_at_end());
  TopFigures figures = source->figures();
  EXPECT_EQ(figures.source, path);
  ASSERT_EQ(figures.traffic.streams.size(), 1U);
  EXPECT_EQ(figures.traffic.streams[0].highest, 2);  // the last datagram waits for what comes after it
  EXPECT_TRUE(figures.notes.empty());
  figures = figures_after(1000 * kSecond);
  EXPECT_EQ(figures.traffic.streams[0].highest, 3);
  EXPECT_EQ(figures.traffic.streams[0].age, 0);
  EXPECT_EQ(figures.notes,
            std::vector<std::string>{"the file has not grown for 1000 s: this is its last state"});
}

TEST_F(Recording, IsFollowedWhileItGrows) {
  write(levels(1) + delay(kPause));
  follow();
  EXPECT_EQ(source->figures().traffic.streams[0].highest, 1);
  for (char level = 2; level < 100; ++level) {
    write(levels(level) + delay(kPause));
    const TopFigures figures = figures_after(kPause);
    ASSERT_EQ(figures.traffic.streams[0].highest, level);
    ASSERT_EQ(figures.traffic.streams[0].datagrams, static_cast<std::uint64_t>(level));
    ASSERT_TRUE(figures.notes.empty());
  }
  EXPECT_EQ(figures_after(2 * kSecond).traffic.streams[0].age, 2 * kSecond);
}

TEST_F(Recording, GoesOnAfterItWasTakenForEnded) {
  write(levels(1) + delay(kPause) + levels(2));
  follow();
  EXPECT_EQ(figures_after(6 * kSecond).traffic.streams[0].highest, 2);
  write(delay(10 * kSecond) + levels(3) + delay(kPause));
  const TopFigures figures = figures_after(kPause);
  EXPECT_EQ(figures.traffic.streams[0].highest, 3);
  EXPECT_EQ(figures.traffic.streams[0].datagrams, 3U);
  EXPECT_TRUE(figures.notes.empty());
}

TEST_F(Recording, IsTheNextFileOfThatName) {
  write(levels(1) + delay(kPause) + levels(2) + delay(kPause));
  follow();
  std::filesystem::remove(path);
  TopFigures figures = figures_after(kPause);
  EXPECT_EQ(figures.traffic.streams[0].highest, 2);
  EXPECT_EQ(figures.notes, std::vector<std::string>{"the file is gone; this is its last state"});
  write(levels(9) + delay(kPause));
  figures = figures_after(kPause);
  EXPECT_EQ(figures.traffic.streams[0].highest, 9);
  EXPECT_EQ(figures.traffic.streams[0].datagrams, 1U);
  EXPECT_TRUE(figures.notes.empty());
}

TEST_F(Recording, MayBeEmptyAtFirst) {
  write("");
  follow();
  EXPECT_TRUE(source->figures().traffic.streams.empty());
  write(levels(1) + delay(kPause));
  EXPECT_EQ(figures_after(kPause).traffic.streams.size(), 1U);
}

TEST_F(Recording, EndsWhereSomebodySaysSo) {
  write(levels(7) + delay(kPause) + levels(8) + "half of a da");
  follow();
  source->finish();
  EXPECT_EQ(source->figures().traffic.streams.at(0).highest, 8);
  EXPECT_TRUE(source->figures().notes.empty());
}

TEST_F(Recording, SaysThatItIsDamaged) {
  write(levels(1) + delay(kPause) + "what is this" + delay(kPause) + levels(2) + delay(kPause) +
        std::string(30'000, 'x') + delay(kPause) + levels(3) + delay(kPause));
  follow();
  EXPECT_EQ(source->figures().notes, std::vector<std::string>{"the file is damaged at 2 places"});
  source->finish();
  EXPECT_EQ(source->figures().notes, std::vector<std::string>{"the file is damaged at 2 places"});
}

TEST_F(Recording, IsReadInPortionsWhenItIsLong) {
  std::string bytes;
  for (int i = 0; i < 5000; ++i) bytes += levels(1) + delay(kPause);
  write(bytes);
  // Each look at the clock is a second later.
  source = kadrel_cue::follow_recording(path, [this] { return time += kSecond; });
  source->read();
  EXPECT_FALSE(source->is_at_end());
  EXPECT_EQ(source->figures().notes, std::vector<std::string>{"reading: 19 %"});
  for (int i = 0; i < 5; ++i) source->read();
  EXPECT_TRUE(source->is_at_end());
  EXPECT_EQ(source->figures().traffic.streams[0].datagrams, 5000U);
}

TEST_F(Recording, KeepsNobodyWaitingWhereItIsDamaged) {
  write(levels(1) + delay(kPause) + levels(2));
  constexpr std::uintmax_t kDamage = std::uintmax_t{64} << 20;
  std::filesystem::resize_file(path, kDamage);
  write(delay(kPause) + levels(3) + delay(kPause) + levels(4) + delay(kPause));
  source = kadrel_cue::follow_recording(path, [this] { return time += kSecond; });
  source->read();
  EXPECT_FALSE(source->is_at_end());
  int reads = 1;
  for (; !source->is_at_end(); ++reads) source->read();
  EXPECT_GE(reads, 10);
  EXPECT_EQ(source->figures().traffic.streams[0].highest, 4);
}

TEST_F(Recording, MayBecomeShorterWhileItIsRead) {
  std::string bytes;
  for (int i = 0; i < 5000; ++i) bytes += levels(1) + delay(kPause);
  write(bytes);
  source = kadrel_cue::follow_recording(path, [this] { return time += kSecond; });
  source->read();
  std::filesystem::resize_file(path, 100);
  EXPECT_EQ(source->figures().notes, std::vector<std::string>{"reading: 100 %"});
}

TEST_F(Recording, MustBeThere) {
  EXPECT_EQ(unit::error_of([&] { kadrel_cue::follow_recording(path, [] { return 0; }); }),
            path + ": No such file or directory");
}

TEST(TopRights, AreGivenTogetherByEveryAdvice) {
  EXPECT_NE(std::string(kadrel_cue::kRightsAdvice).find(cue::kCapabilities), std::string::npos);
}

TEST(TopInterface, IsEth0OrTheOnlyOne) {
  using kadrel_cue::default_interface;
  EXPECT_EQ(default_interface(true, {"lo", "wlan0"}), "eth0");
  EXPECT_EQ(default_interface(false, {"lo", "wlan0"}), "wlan0");
  EXPECT_EQ(unit::error_of([] {
              default_interface(false, {"lo", "enp1s0", "wlan0"});
            }),
            "which interface? There are enp1s0 wlan0, and any for all of them");
  EXPECT_EQ(unit::error_of([] { default_interface(false, {"lo"}); }),
            "no network interface is up (lo looks at this computer alone)");
}

}  // namespace
