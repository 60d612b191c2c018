#include "cue/Player.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "cue/CueError.h"
#include "cue/Time.h"
#include "unit/cue/directory.h"
#include "unit/cue/recordings.h"

using cue::kSecond;
using packets::dmx;
using recordings::delay;
using recordings::file_of;

namespace {

constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kLead = 5 * kMs;

/// A clock that moves only during waits, and ends each wait exactly in time.
class StillClock : public cue::PlayClock {
public:
  kesto::Clock::time_point now() override { return time; }
  void sleep_until(kesto::Clock::time_point t) override {
    EXPECT_GT(t, time);
    longest_sleep = std::max(longest_sleep, (t - time).count());
    time = t;
    if (on_sleep) on_sleep(time.time_since_epoch().count());
  }
  void spin_until(kesto::Clock::time_point t) override {
    longest_spin = std::max(longest_spin, (t - time).count());
    time = t;
  }

  kesto::Clock::time_point time;
  std::int64_t longest_sleep = 0;
  std::int64_t longest_spin = 0;
  std::function<void(std::int64_t)> on_sleep;
};

struct Sent {
  std::int64_t time = 0;  // ns since the start of the first pass
  std::string bytes;

  bool operator==(const Sent& other) const { return time == other.time && bytes == other.bytes; }
};

std::ostream& operator<<(std::ostream& out, const Sent& sent) {
  return out << "{" << sent.time << ", " << testing::PrintToString(sent.bytes) << "}";
}

class Sink : public cue::DatagramSink {
public:
  explicit Sink(StillClock& going_by) : clock(going_by) {}

  int send(const std::uint8_t* data, std::size_t size) override {
    if (on_send && on_send() != 0) return ENETUNREACH;
    sent.push_back({clock.time.time_since_epoch().count() - kLead,
                    std::string(reinterpret_cast<const char*>(data), size)});
    clock.time += std::chrono::nanoseconds(cost);
    return 0;
  }

  StillClock& clock;
  std::int64_t cost = 0;  // ns that sending takes
  std::vector<Sent> sent;
  std::function<int()> on_send;
};

class PlayerTest : public testing::Test {
protected:
  const unit::Directory directory;
  StillClock clock;
  Sink sink{clock};
  std::atomic<bool> stop = false;
  cue::PlayOptions options;
  cue::PlayState state;

  void record(const std::vector<recordings::Datagram>& datagrams) {
    options.file = directory.write("show.cue", file_of(datagrams));
  }

  const std::vector<Sent>& play() {
    cue::Player player(options, sink, clock, stop);
    player.run();
    state = player.state();
    return sink.sent;
  }
};

TEST_F(PlayerTest, SendsEveryDatagramAtItsTime) {
  record({{dmx("a"), 0}, {dmx("b") + packets::poll(), 20 * kMs}, {dmx("c"), 0}, {dmx("d"), 1}});
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a")},
                                       {20 * kMs, dmx("b") + packets::poll()},
                                       {20 * kMs, dmx("c")},
                                       {20 * kMs + 1, dmx("d")}}));
  EXPECT_EQ(state.lateness.count(), 4U);
  EXPECT_EQ(state.position, 20 * kMs + 1);
}

TEST_F(PlayerTest, NeverAddsLatenessUp) {
  std::vector<recordings::Datagram> datagrams;
  for (int i = 0; i < 1000; ++i) datagrams.emplace_back(dmx("a"), 10 * kMs);
  record(datagrams);
  sink.cost = 3 * kMs;
  EXPECT_EQ(play().back().time, 999 * 10 * kMs);
  EXPECT_EQ(state.lateness.drift(), 0);
  EXPECT_EQ(state.lateness.max(), 3 * kMs);
}

TEST_F(PlayerTest, CatchesUpWithoutLosingADatagram) {
  record({{dmx("a"), 0}, {dmx("b"), kMs}, {dmx("c"), kMs}, {dmx("d"), 100 * kMs}});
  sink.cost = 10 * kMs;
  EXPECT_EQ(play(), (std::vector<Sent>{
                        {0, dmx("a")}, {10 * kMs, dmx("b")}, {20 * kMs, dmx("c")}, {102 * kMs, dmx("d")}}));
}

TEST_F(PlayerTest, SleepsInShortSlicesAndSpinsOnlyAtTheEnd) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kSecond}});
  play();
  EXPECT_EQ(clock.longest_sleep, 20 * kMs);
  EXPECT_LE(clock.longest_spin, 300'000);
}

TEST_F(PlayerTest, PlaysFasterAndSlower) {
  record({{dmx("a"), 0}, {dmx("b"), 100 * kMs}});
  options.speed = 100;
  EXPECT_EQ(play().back().time, 50 * kMs);
  sink.sent.clear();
  clock.time = {};
  options.speed = -100;
  EXPECT_EQ(play().back().time, 200 * kMs);
  sink.sent.clear();
  clock.time = {};
  options.speed = 50;
  EXPECT_EQ(play().back().time, 75 * kMs);
}

TEST_F(PlayerTest, PlaysAPart) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kMs}, {dmx("c"), 10 * kMs}, {dmx("d"), 10 * kMs}});
  options.selection.start = 5 * kMs;
  options.selection.stop = 30 * kMs;
  EXPECT_EQ(play(), (std::vector<Sent>{{5 * kMs, dmx("b")}, {15 * kMs, dmx("c")}}));
}

TEST_F(PlayerTest, SendsOnlySomeUniversesAndAsOthers) {
  record({{dmx("a", 0), 0}, {dmx("b", 1), 10 * kMs}, {dmx("c", 2), 10 * kMs}});
  options.selection.only = cue::UniverseSet();
  options.selection.only->insert(0);
  options.selection.only->insert(2);
  options.selection.changes = {{2, 0x1234}};
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a", 0)}, {20 * kMs, dmx("c", 0x1234)}}));
}

TEST_F(PlayerTest, LoopsWithAGapAndWithoutDrift) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kMs}});
  options.loops = 3;
  options.gap = 5 * kMs;
  sink.cost = 2 * kMs;
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a")},
                                       {10 * kMs, dmx("b")},
                                       {15 * kMs, dmx("a")},
                                       {25 * kMs, dmx("b")},
                                       {30 * kMs, dmx("a")},
                                       {40 * kMs, dmx("b")}}));
  EXPECT_EQ(state.pass, 3U);
}

TEST_F(PlayerTest, LoopsAPartInItsOwnLength) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kMs}, {dmx("c"), 10 * kMs}});
  options.selection.start = 2 * kMs;
  options.selection.stop = 12 * kMs;
  options.loops = 2;
  EXPECT_EQ(play(), (std::vector<Sent>{{8 * kMs, dmx("b")}, {18 * kMs, dmx("b")}}));
}

TEST_F(PlayerTest, LoopsForeverUntilStopped) {
  record({{dmx("a"), 0}});
  options.loops.reset();
  clock.on_sleep = [this](std::int64_t time) { stop = time > kSecond; };
  EXPECT_EQ(play().size(), 44U);
}

TEST_F(PlayerTest, EndsAtOnceWhenThereIsNothingToPlay) {
  record({});
  options.loops.reset();
  options.hold_rate = 40;
  options.blackout = true;
  EXPECT_EQ(play(), std::vector<Sent>{});
}

TEST_F(PlayerTest, StopsInTheMiddleOfAPause) {
  record({{dmx("a"), 0}, {dmx("b"), 3600 * kSecond}});
  std::int64_t stopped_at = 0;
  clock.on_sleep = [&](std::int64_t time) {
    if (time > kSecond && !stop.exchange(true)) stopped_at = time;
  };
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a")}}));
  EXPECT_EQ(clock.time.time_since_epoch().count(), stopped_at);
}

TEST_F(PlayerTest, HoldsTheLastLookAndGoesOnCounting) {
  record({{dmx("a", 0, 254), 0}, {dmx("x", 1, 0), 0}, {dmx("b", 0, 255), 10 * kMs}});
  options.hold_rate = 10;
  clock.on_sleep = [this](std::int64_t time) { stop = time > kLead + 250 * kMs; };
  const std::vector<Sent> sent = play();
  EXPECT_EQ(std::vector<Sent>(sent.begin() + 3, sent.end()),
            (std::vector<Sent>{{110 * kMs, dmx("b", 0, 1)},
                               {110 * kMs, dmx("x", 1, 0)},
                               {210 * kMs, dmx("b", 0, 2)},
                               {210 * kMs, dmx("x", 1, 0)}}));
  EXPECT_TRUE(state.holding);
}

TEST_F(PlayerTest, BlacksOutWhatItPlayedWhenStopped) {
  record({{dmx("ab", 0, 7), 0}, {dmx("cd", 5), 0}, {dmx("ef", 6), kSecond}});
  options.blackout = true;
  clock.on_sleep = [this](std::int64_t time) { stop = time > 100 * kMs; };
  const std::string dark(2, '\0');
  const std::vector<Sent> sent = play();
  ASSERT_EQ(sent.size(), 4U);
  EXPECT_EQ(sent[2].bytes, dmx(dark, 0, 8));
  EXPECT_EQ(sent[3].bytes, dmx(dark, 5));
}

TEST_F(PlayerTest, BlacksOutAtTheEnd) {
  record({{dmx("ab", 3), 0}});
  options.blackout = true;
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("ab", 3)}, {0, dmx(std::string(2, '\0'), 3)}}));
}

TEST_F(PlayerTest, PlaysWhatIsGoodOfADamagedFileAndSaysWhereItBreaks) {
  options.file = directory.write("show.cue", dmx("ab", 3) + delay(5) + "Art");
  options.blackout = true;
  try {
    play();
    FAIL() << "the damage went unnoticed";
  } catch (const cue::CueError& error) {
    EXPECT_EQ(error.what(), options.file.path() + ": byte 38: cut off within a datagram");
  }
  EXPECT_EQ(sink.sent, (std::vector<Sent>{{0, dmx("ab", 3)}, {0, dmx(std::string(2, '\0'), 3)}}));
}

TEST_F(PlayerTest, GivesUpWhenTheFirstDatagramCannotBeSent) {
  record({{dmx("a"), 0}, {dmx("b"), 5}});
  sink.on_send = [] { return ENETUNREACH; };
  try {
    play();
    FAIL() << "it went on";
  } catch (const cue::CueError& error) {
    EXPECT_EQ(error.what(), options.file.path() + ": byte 0: not sent: Network is unreachable");
  }
}

TEST_F(PlayerTest, GoesOnWhenALaterDatagramCannotBeSent) {
  record({{dmx("a"), 0}, {dmx("b"), 5}, {dmx("c"), 5}});
  int call = 0;
  sink.on_send = [&call] { return ++call == 2 ? ENETUNREACH : 0; };
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a")}, {10, dmx("c")}}));
  EXPECT_EQ(state.failed, 1U);
  EXPECT_EQ(state.first_failure.error, ENETUNREACH);
  EXPECT_EQ(state.first_failure.offset, 37U);
}

TEST_F(PlayerTest, TellsOfItsStateOnlyWhenThereIsTime) {
  record({{dmx("a"), 0}, {dmx("b"), kMs}, {dmx("c"), kSecond}});
  cue::Player player(options, sink, clock, stop);
  std::vector<std::int64_t> positions;
  player.on_idle = [&](const cue::PlayState& now) { positions.push_back(now.position); };
  player.run();
  ASSERT_FALSE(positions.empty());
  EXPECT_EQ(positions.front(), 0);
  EXPECT_EQ(positions[1], kMs);
  EXPECT_EQ(positions.back(), kMs);
}

}  // namespace
