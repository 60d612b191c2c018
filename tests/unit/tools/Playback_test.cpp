#include "tools/Playback.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>

#include "cue/CueError.h"
#include "cue/Time.h"
#include "unit/cue/directory.h"
#include "unit/cue/receiver.h"
#include "unit/cue/recordings.h"

using cue::kSecond;
using kadrel_cue::progress_text;
using packets::dmx;
using recordings::file_of;
using unit::Receiver;

namespace {

constexpr std::int64_t kMs = 1'000'000;

class ProgressTest : public testing::Test {
protected:
  ProgressTest() {
    state.position = 12'345 * kMs;
    state.pass = 1;
    state.passes = 1;
    for (int i = 0; i < 99; ++i) state.lateness.add(kMs / 10);
    state.lateness.add(2 * kMs);
  }

  std::string text(std::size_t width = 200) const {
    return progress_text({state, 90 * kSecond, deliveries, width});
  }

  cue::PlayState state;
  std::vector<cue::Delivery> deliveries{{"10.0.0.1:6454", {}}};
};

TEST_F(ProgressTest, ShowsPositionRemainingTimeDatagramsAndLateness) {
  EXPECT_EQ(text(), "12.345 s  1m30.000s left  100 datagrams  late 0.10 ms (most 2.00 ms)");
  EXPECT_EQ(progress_text({state, std::nullopt}), "12.345 s  100 datagrams  late 0.10 ms (most 2.00 ms)");
}

TEST_F(ProgressTest, ShowsThePassAndWhetherThePlaybackStands) {
  state.pass = 3;
  state.passes = 8;
  EXPECT_EQ(text(), "12.345 s  1m30.000s left  pass 3/8  100 datagrams  late 0.10 ms (most 2.00 ms)");
  state.passes.reset();
  state.paused = true;
  EXPECT_EQ(text(), "12.345 s  PAUSED  1m30.000s left  pass 3  100 datagrams  late 0.10 ms (most 2.00 ms)");
  state.paused = false;
  state.holding = true;
  EXPECT_EQ(text(), "12.345 s  held  pass 3  100 datagrams  late 0.10 ms (most 2.00 ms)");
}

TEST_F(ProgressTest, ShowsWhatDoesNotGetThrough) {
  deliveries[0].failures = {7, ECONNREFUSED};
  EXPECT_EQ(text(45), "12.345 s  NOT DELIVERED: 7  1m30.000s left");
  deliveries.push_back({"10.0.0.2:6454", {}});
  EXPECT_EQ(text(48), "12.345 s  10.0.0.1:6454 FAILS  1m30.000s left");
  deliveries[1].failures = {1, ENETUNREACH};
  EXPECT_EQ(text(48), "12.345 s  2 of 2 targets FAIL  1m30.000s left");
}

TEST_F(ProgressTest, LeavesOutWhatMattersLeastWhereThereIsNoRoom) {
  state.pass = 3;
  state.passes = 8;
  state.paused = true;
  const std::string whole = text();
  EXPECT_EQ(text(whole.size()), whole);
  EXPECT_EQ(text(whole.size() - 1),
            "12.345 s  PAUSED  1m30.000s left  pass 3/8  100 datagrams  late 0.10 ms");
  EXPECT_EQ(text(60), "12.345 s  PAUSED  1m30.000s left  pass 3/8  100 datagrams");
  EXPECT_EQ(text(50), "12.345 s  PAUSED  1m30.000s left  pass 3/8");
  EXPECT_EQ(text(40), "12.345 s  PAUSED  1m30.000s left");
  EXPECT_EQ(text(30), "12.345 s  PAUSED");
  EXPECT_EQ(text(15), "12.345 s");
  EXPECT_EQ(text(4), "12.3");
}

class PlaybackTest : public testing::Test {
protected:
  PlaybackTest() {
    playback.options.file = directory.write("show.cue", file_of({{dmx("a"), 0}, {dmx("b"), 5}}));
    playback.real_time = false;
  }

  int play() { return kadrel_cue::play(playback, stop, out, err); }

  const unit::Directory directory;
  Receiver receiver{"127.0.0.3"};
  kadrel_cue::Playback playback;
  const std::atomic<bool> stop = false;
  std::ostringstream out;
  std::ostringstream err;
};

/// A target where nobody listens.
cue::Target deaf(const char* address) {
  return {{address, Receiver(address).port}, std::nullopt};
}

TEST_F(PlaybackTest, PlaysToAPeerAndTellsItsTiming) {
  playback.targets = {{{"127.0.0.3", receiver.port}, std::nullopt}};
  playback.stats = true;
  playback.progress = true;
  EXPECT_EQ(play(), 0);
  EXPECT_EQ(receiver.receive(), dmx("a"));
  EXPECT_EQ(receiver.receive(), dmx("b"));
  EXPECT_EQ(out.str().rfind("{\"datagrams\": 2, \"failed\": 0, \"late_p50_ns\": ", 0), 0U) << out.str();
  EXPECT_NE(err.str().find("2 datagrams"), std::string::npos) << err.str();
}

TEST_F(PlaybackTest, SaysWhichTargetDidNotGetItAndServesTheOthers) {
  const cue::Target nobody = deaf("127.0.0.4");
  playback.targets = {nobody, {{"127.0.0.3", receiver.port}, std::nullopt}};
  playback.stats = true;
  EXPECT_EQ(play(), 1);
  EXPECT_EQ(receiver.receive(), dmx("a"));
  EXPECT_EQ(receiver.receive(), dmx("b"));
  const std::string target = "kadrel-cue: 127.0.0.4:" + std::to_string(nobody.to.port);
  EXPECT_EQ(err.str(), target + ": 2 datagrams not delivered, the first: Connection refused\n");
  EXPECT_NE(out.str().find("\"failed\": 2"), std::string::npos) << out.str();
}

TEST_F(PlaybackTest, SaysThatNoServiceListens) {
  playback.relay_port = deaf("127.0.0.1").to.port;
  playback.targets = {{{"10.0.0.9", 0}, std::nullopt}};
  EXPECT_THROW(play(), cue::CueError);
  EXPECT_EQ(err.str(),
            "kadrel-cue: 10.0.0.9:6454: 1 datagram not delivered, the first: no kadrel listens on port " +
                std::to_string(*playback.relay_port) + " of this host\n");
}

TEST_F(PlaybackTest, IsAnErrorWhenNoTargetGetsAnything) {
  cue::UniverseSet others;
  others.insert(9);
  playback.targets = {{{"127.0.0.3", receiver.port}, others}};
  EXPECT_THROW(play(), cue::CueError);
}

TEST_F(PlaybackTest, SaysSoonThatNoTargetGetsAnything) {
  playback.options.file = directory.write("long.cue", file_of({{dmx("a"), 0}, {dmx("b"), kSecond}}));
  cue::UniverseSet others;
  others.insert(9);
  playback.targets = {{{"127.0.0.3", receiver.port}, others}};
  EXPECT_THROW(play(), cue::CueError);
  EXPECT_EQ(err.str(), "kadrel-cue: " + playback.options.file.path() +
                           ": no target gets any of its universes so far; going on\n");
}

TEST_F(PlaybackTest, ATargetThatCannotBeReachedDoesNotEndTheShowOfTheOthers) {
  playback.options.file = directory.write("two.cue", file_of({{dmx("a", 0), 0}, {dmx("b", 1), 5}}));
  cue::UniverseSet first;
  first.insert(0);
  // From an address of the loopback interface no other one is reached.
  playback.from = cue::Destination{"127.0.0.1", 0};
  playback.targets = {{{"192.0.2.9", 6454}, first}, {{"127.0.0.3", receiver.port}, std::nullopt}};
  EXPECT_EQ(play(), 1);
  EXPECT_EQ(receiver.receive(), dmx("b", 1));
}

TEST_F(PlaybackTest, EndsTheStreamsOfE131) {
  playback.sacn = cue::SacnSource{};
  playback.targets = {{{"127.0.0.3", receiver.port}, std::nullopt}};
  EXPECT_EQ(play(), 0);
  std::string options;
  for (int packets = 0; packets < 5; ++packets) options += receiver.receive().at(112);
  EXPECT_EQ(options, std::string("\0\0@@@", 5));
}

}  // namespace
