#include "cue/Player.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "cue/CueError.h"
#include "cue/Looks.h"
#include "cue/Time.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"

using cue::kSecond;
using packets::dmx;
using recordings::delay;
using recordings::file_of;

namespace {

constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kLead = 5 * kMs;
constexpr std::int64_t kFrame = 22'727'272;

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
    const int error = on_send ? on_send() : 0;
    if (error != 0) return error;
    sent.push_back({clock.time.time_since_epoch().count() - kLead,
                    std::string(reinterpret_cast<const char*>(data), size)});
    clock.time += std::chrono::nanoseconds(cost);
    return 0;
  }

  bool is_single() const override { return single; }

  StillClock& clock;
  bool single = true;
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
  std::function<std::optional<cue::PlayCommand>()> next_command;

  void record(const std::vector<recordings::Datagram>& datagrams) {
    options.file = directory.write("show.cue", file_of(datagrams));
  }

  const std::vector<Sent>& play() {
    cue::Player player(options, sink, clock, stop);
    player.next_command = next_command;
    player.run();
    state = player.state();
    return sink.sent;
  }

  /// Gives the operator's commands at these times, ns since the start of the first pass.
  void command_at(std::vector<std::pair<std::int64_t, cue::PlayCommand>> commands) {
    next_command = [this, commands = std::move(commands),
                    next = std::size_t{0}]() mutable -> std::optional<cue::PlayCommand> {
      if (next == commands.size() || now() < commands[next].first) return std::nullopt;
      return commands[next++].second;
    };
  }

  void stop_at(std::int64_t time) {
    clock.on_sleep = [this, time](std::int64_t) { stop = now() >= time; };
  }

  std::int64_t now() const { return clock.time.time_since_epoch().count() - kLead; }

  /// What was sent from @p from on and before @p to.
  std::vector<Sent> sent_within(std::int64_t from, std::int64_t to) const {
    std::vector<Sent> found;
    for (const Sent& one : sink.sent) {
      if (one.time >= from && one.time < to) found.push_back(one);
    }
    return found;
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
  options.look = false;
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
  options.gap = 20 * kMs;
  sink.cost = 2 * kMs;
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a")},
                                       {10 * kMs, dmx("b")},
                                       {30 * kMs, dmx("a")},
                                       {40 * kMs, dmx("b")},
                                       {60 * kMs, dmx("a")},
                                       {70 * kMs, dmx("b")}}));
  EXPECT_EQ(state.pass, 3U);
}

TEST_F(PlayerTest, LoopsAPartInItsOwnLength) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kMs}, {dmx("c"), 100 * kMs}});
  options.selection.start = 2 * kMs;
  options.selection.stop = 32 * kMs;
  options.look = false;
  options.loops = 2;
  EXPECT_EQ(play(), (std::vector<Sent>{{8 * kMs, dmx("b")}, {38 * kMs, dmx("b")}}));
  EXPECT_EQ(now(), 60 * kMs) << "the last pass lasts until the stop time, too";
}

TEST_F(PlayerTest, LoopsForeverUntilStopped) {
  record({{dmx("a"), 0}});
  options.loops.reset();
  clock.on_sleep = [this](std::int64_t time) { stop = time > kSecond; };
  EXPECT_EQ(play().size(), 44U);
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
  ASSERT_EQ(sent.size(), 8U);
  EXPECT_EQ(sent[2].bytes, dmx(dark, 0, 8));
  EXPECT_EQ(sent[3].bytes, dmx(dark, 5));
}

TEST_F(PlayerTest, BlacksOutThreeTimesAtTheEnd) {
  record({{dmx("ab", 3, 255), 0}});
  options.blackout = true;
  const std::string dark(2, '\0');
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("ab", 3, 255)},
                                       {0, dmx(dark, 3, 1)},
                                       {50 * kMs, dmx(dark, 3, 2)},
                                       {100 * kMs, dmx(dark, 3, 3)}}));
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
  ASSERT_EQ(sink.sent.size(), 4U);
  EXPECT_EQ(sink.sent[0], (Sent{0, dmx("ab", 3)}));
  EXPECT_EQ(sink.sent[1], (Sent{0, dmx(std::string(2, '\0'), 3)}));
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

TEST_F(PlayerTest, GoesOnForTheOtherTargetsWhenTheFirstDatagramCannotBeSent) {
  record({{dmx("a"), 0}, {dmx("b"), 5}});
  sink.single = false;
  int call = 0;
  sink.on_send = [&call] { return ++call == 1 ? ENETUNREACH : 0; };
  EXPECT_EQ(play(), (std::vector<Sent>{{5, dmx("b")}}));
  EXPECT_EQ(state.failed, 1U);
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

TEST_F(PlayerTest, TellsOfItsStateAlsoWhereThereIsNeverTime) {
  record(std::vector<recordings::Datagram>(2001, {dmx("a"), kMs / 2}));
  cue::Player player(options, sink, clock, stop);
  std::vector<std::int64_t> times;
  player.on_idle = [&](const cue::PlayState&) { times.push_back(now()); };
  player.run();
  EXPECT_EQ(times, (std::vector<std::int64_t>{-kLead, 245 * kMs, 495 * kMs, 745 * kMs, 995 * kMs}));
}

TEST_F(PlayerTest, WaitsForTheStartWhenAllIsRead) {
  record({{dmx("a"), 0}, {dmx("b"), kSecond}});
  options.selection.start = kMs;
  cue::Player player(options, sink, clock, stop);
  player.wait_for_start = [&] {
    clock.time += std::chrono::seconds(9);
    return true;
  };
  player.run();
  ASSERT_FALSE(sink.sent.empty());
  EXPECT_EQ(sink.sent.front().time, 9 * kSecond);
}

TEST_F(PlayerTest, SendsNothingWhenItIsNotToStart) {
  record({{dmx("a"), 0}});
  options.hold_rate = 40;
  options.blackout = true;
  cue::Player player(options, sink, clock, stop);
  player.wait_for_start = [] { return false; };
  player.run();
  EXPECT_EQ(sink.sent, std::vector<Sent>());
}

TEST_F(PlayerTest, DoesNotWaitForTheStartOfNothing) {
  record({});
  cue::Player player(options, sink, clock, stop);
  player.wait_for_start = []() -> bool { throw std::logic_error("there is nothing to start"); };
  EXPECT_THROW(player.run(), cue::CueError);
}

// Nothing to play

TEST_F(PlayerTest, SaysThatAnEmptyFileHoldsNothing) {
  record({});
  options.loops.reset();
  options.hold_rate = 40;
  options.blackout = true;
  EXPECT_EQ(unit::error_of([this] { play(); }),
            options.file.path() + ": nothing to play: it holds no datagrams");
  EXPECT_EQ(sink.sent, std::vector<Sent>{});
}

TEST_F(PlayerTest, SaysThatTheRecordingEndsBeforeTheStart) {
  record({{dmx("a"), 0}, {dmx("b"), 2 * kSecond}});
  options.selection.start = 3 * kSecond;
  EXPECT_EQ(unit::error_of([this] { play(); }),
            options.file.path() + ": nothing to play: it ends at 2.000 s, before 3.000 s");
  EXPECT_EQ(sink.sent, std::vector<Sent>{});
}

TEST_F(PlayerTest, SaysThatNoDatagramLiesBetweenStartAndStop) {
  record({{dmx("a"), 0}, {dmx("b"), 9 * kSecond}});
  options.selection.start = 3 * kSecond;
  options.selection.stop = 4 * kSecond;
  EXPECT_EQ(unit::error_of([this] { play(); }),
            options.file.path() + ": nothing to play: it holds no datagram from 3.000 s on before 4.000 s");
}

TEST_F(PlayerTest, SaysThatNoDatagramLiesBeforeTheStop) {
  record({{dmx("a"), 0}});
  options.selection.stop = 0;
  EXPECT_EQ(unit::error_of([this] { play(); }),
            options.file.path() + ": nothing to play: it holds no datagram before 0.000 s");
}

TEST_F(PlayerTest, AStopEndsTheSearchForTheStartWithoutAnError) {
  record({{dmx("a"), 0}, {dmx("b"), kSecond}});
  options.selection.start = kSecond;
  options.fade_out = kSecond;
  stop = true;
  EXPECT_EQ(play(), std::vector<Sent>{});
}

TEST_F(PlayerTest, SaysThatTheWantedUniversesAreNotThere) {
  record({{dmx("a"), 0}, {dmx("b"), 9 * kSecond}});
  options.selection.only = cue::UniverseSet();
  options.selection.only->insert(76);
  EXPECT_EQ(unit::error_of([this] { play(); }),
            options.file.path() + ": nothing to play: it holds none of the wanted universes");
  EXPECT_EQ(now(), -kLead) << "it waited before it said so";
}

TEST_F(PlayerTest, PlaysALookWhenOnlyThatIsSelected) {
  record({{dmx("a", 7), 0}, {dmx("b", 8), kSecond}});
  options.selection.only = cue::UniverseSet();
  options.selection.only->insert(7);
  options.selection.start = kSecond / 2;
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a", 7)}}));
}

// Looks and sequence numbers

TEST_F(PlayerTest, BeginsWithTheLookOfTheStartInOneFrame) {
  record({{dmx("a", 1, 9), 0},
          {dmx("b", 2, 0), 0},
          {dmx("A", 1, 10), kMs},
          {dmx("c", 3, 5), kMs},
          {dmx("x", 1, 11), kSecond},
          {dmx("y", 4, 1), kSecond}});
  options.selection.start = kSecond / 2;
  const std::int64_t start = kFrame + kSecond / 2 + 2 * kMs;
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("A", 1, 10)},
                                       {kFrame / 3, dmx("b", 2, 0)},
                                       {2 * (kFrame / 3), dmx("c", 3, 5)},
                                       {start, dmx("x", 1, 11)},
                                       {start + kSecond, dmx("y", 4, 1)}}));
  EXPECT_EQ(state.selected, 2U);
  EXPECT_EQ(state.sent, 5U);
}

TEST_F(PlayerTest, TheLookHasOnlyWantedUniversesUnderTheirNewNumbers) {
  record({{dmx("a", 1), 0}, {dmx("b", 2), 0}, {dmx("c", 1), kSecond}});
  options.selection.start = kMs;
  options.selection.only = cue::UniverseSet();
  options.selection.only->insert(1);
  options.selection.changes = {{1, 30}};
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a", 30)}, {kFrame + kSecond - kMs, dmx("c", 30)}}));
}

TEST_F(PlayerTest, LaterPassesBeginWithTheLookInThePauseBeforeThem) {
  record({{dmx("a", 1, 1), 0}, {dmx("b", 1, 2), 20 * kMs}, {dmx("c", 1, 3), 20 * kMs}});
  options.selection.start = 10 * kMs;
  options.gap = 30 * kMs;
  options.loops = 2;
  const std::int64_t second = kFrame + 60 * kMs;
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a", 1, 1)},
                                       {kFrame + 10 * kMs, dmx("b", 1, 2)},
                                       {kFrame + 30 * kMs, dmx("c", 1, 3)},
                                       {second - 15 * kMs, dmx("a", 1, 4)},
                                       {second + 10 * kMs, dmx("b", 1, 5)},
                                       {second + 30 * kMs, dmx("c", 1, 6)}}));
}

TEST_F(PlayerTest, ALaterPassFindsItsStartAgainBehindALongBeginning) {
  std::vector<recordings::Datagram> datagrams;
  for (unsigned i = 0; i < 3000; ++i) datagrams.emplace_back(dmx(std::string(512, 'a'), i % 7), kMs);
  record(datagrams);
  options.selection.start = 2990 * kMs;
  options.loops = 3;
  play();
  EXPECT_EQ(state.selected, 30U);
  EXPECT_EQ(state.sent, 30U + 3 * 7U);
}

TEST_F(PlayerTest, SendsTheRecordedBytesWhereNothingIsInserted) {
  recordings::Chance chance(7);
  std::vector<recordings::Datagram> datagrams;
  std::string all;
  for (unsigned i = 0; i < 300; ++i) {
    const std::string datagram = dmx(chance.slots(), 0, 1 + i % 255) + packets::poll() + dmx("y", 1, 0);
    datagrams.emplace_back(datagram, i * 1000);
    all += datagram;
  }
  record(datagrams);
  std::string sent;
  for (const Sent& one : play()) sent += one.bytes;
  EXPECT_EQ(sent, all);
}

TEST_F(PlayerTest, CountsOnWithoutAJumpAcrossHolesAndPasses) {
  record({{dmx("a", 0, 254), 0}, {dmx("b", 0, 30), 30 * kMs}, {dmx("c", 1, 0), 0}});
  options.loops = 2;
  std::string sequences;
  for (const Sent& one : play()) sequences += one.bytes[12];
  EXPECT_EQ(sequences, std::string("\xFE\xFF\x00\x01\x02\x00", 6));
}

TEST_F(PlayerTest, TheLookIsWhatAFullPlayShowsThere) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    recordings::Chance chance(seed);
    std::vector<recordings::Datagram> datagrams;
    std::int64_t length = 0;
    const unsigned universes = 1 + chance.below(12);
    for (unsigned i = 0; i < 150; ++i) {
      // The higher universes are slow.
      const unsigned universe =
          std::min({chance.below(universes), chance.below(universes), chance.below(universes)});
      const std::int64_t pause = i == 0 ? 0 : static_cast<std::int64_t>(chance.below(50'000'000));
      datagrams.emplace_back(dmx(std::string(2, static_cast<char>(chance.below(256))), universe), pause);
      length += pause;
    }
    record(datagrams);
    options.selection.start =
        1 + static_cast<std::int64_t>(chance.below(static_cast<unsigned>(length / 1000))) * 1000;
    if (options.selection.start > length) continue;
    cue::Looks full;
    std::int64_t time = 0;
    for (const auto& [bytes, pause] : datagrams) {
      time += pause;
      if (time < options.selection.start) full.take({recordings::bytes_of(bytes), bytes.size()});
    }
    sink.sent.clear();
    clock.time = {};
    play();
    cue::Looks looks;
    for (const Sent& one : sent_within(0, kFrame))
      looks.take({recordings::bytes_of(one.bytes), one.bytes.size()});
    EXPECT_EQ(looks.all(), full.all()) << "seed " << seed;
    EXPECT_EQ(sent_within(0, kFrame).size(), full.all().size()) << "seed " << seed;
  }
}

// Passes

TEST_F(PlayerTest, APassLastsAtLeastAFrame) {
  record({{dmx("a"), 0}});
  options.gap = 0;
  options.loops = 3;
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a")}, {kFrame, dmx("a")}, {2 * kFrame, dmx("a")}}));
  EXPECT_EQ(state.passes, 3U);
}

TEST_F(PlayerTest, AGapFollowsAlsoAStopTime) {
  record({{dmx("a"), 0}, {dmx("b"), 100 * kMs}});
  options.selection.stop = 50 * kMs;
  options.gap = 7 * kMs;
  options.loops = 2;
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a")}, {57 * kMs, dmx("a")}}));
}

TEST_F(PlayerTest, PlaysAtAFactor) {
  record({{dmx("a"), 0}, {dmx("b"), 150 * kMs}});
  options.factor = 1.5;
  EXPECT_EQ(play().back().time, 100 * kMs);
}

TEST_F(PlayerTest, AFactorNearZeroWaitsUntilStopped) {
  record({{dmx("a"), 0}, {dmx("b"), 150 * kMs}});
  options.factor = 1e-300;
  stop_at(kSecond);
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a")}}));
}

// Fades

TEST_F(PlayerTest, FadesInAlsoBetweenTheFrames) {
  record({{dmx("\xC8", 5), 0}, {dmx("\xC8", 5), kSecond}});
  options.fade_in = 10 * kFrame;
  play();
  ASSERT_EQ(sink.sent.size(), 12U);
  for (unsigned i = 0; i <= 10; ++i)
    EXPECT_EQ(sink.sent[i], (Sent{i * kFrame, dmx(packets::byte(i * 20), 5)})) << i;
  EXPECT_EQ(sink.sent[11], (Sent{kSecond, dmx("\xC8", 5)}));
}

TEST_F(PlayerTest, FadesOutUpToTheEndOfTheLastPass) {
  record({{dmx("\xC8"), 0}, {dmx("\xC8"), kSecond}});
  options.fade_out = kSecond / 2;
  options.gap = 0;
  options.loops = 2;
  play();
  EXPECT_EQ(sent_within(0, kSecond + kSecond / 2 + 1).size(), 3U) << "it began early";
  const std::vector<Sent> fade = sent_within(kSecond + kSecond / 2 + 1, 2 * kSecond);
  ASSERT_GE(fade.size(), 21U);
  for (const Sent& one : fade) {
    const double level = 400 * static_cast<double>(2 * kSecond - one.time) / static_cast<double>(kSecond);
    EXPECT_NEAR(static_cast<std::uint8_t>(one.bytes.back()), level, 0.51) << one.time;
  }
  EXPECT_EQ(sink.sent.back(), (Sent{2 * kSecond, dmx(packets::byte(0))}));
}

TEST_F(PlayerTest, FadesOutUpToTheStopTimeAndHoldsTheDark) {
  record({{dmx("\xC8"), 0}, {dmx("\xC8"), 9 * kSecond}});
  options.selection.stop = kSecond;
  options.fade_out = kSecond / 4;
  options.hold_rate = 10;
  stop_at(2 * kSecond);
  play();
  EXPECT_EQ(sent_within(1, kSecond - kSecond / 4).size(), 0U);
  EXPECT_GE(sent_within(kSecond - kSecond / 4, kSecond).size(), 10U);
  const std::vector<Sent> held = sent_within(kSecond, 2 * kSecond);
  ASSERT_GE(held.size(), 9U);
  for (const Sent& one : held) EXPECT_EQ(one.bytes, dmx(packets::byte(0)));
}

TEST_F(PlayerTest, FadesOutADamagedFileUpToItsGoodEnd) {
  options.file = directory.write("show.cue", dmx("\xC8") + delay(kSecond) + dmx("\xC8") + delay(5) + "Art");
  options.fade_out = kSecond / 2;
  EXPECT_NE(unit::error_of([this] { play(); }), "no error");
  EXPECT_EQ(sink.sent.back(), (Sent{kSecond, dmx(packets::byte(0))}));
}

TEST_F(PlayerTest, AnEndlessLoopDoesNotFadeOut) {
  record({{dmx("\xC8"), 0}});
  options.loops.reset();
  options.fade_out = kSecond;
  stop_at(kSecond);
  for (const Sent& one : play()) EXPECT_EQ(one.bytes, dmx("\xC8"));
}

TEST_F(PlayerTest, AFadeNeverHoldsTheRecordingUp) {
  std::vector<recordings::Datagram> datagrams;
  for (unsigned i = 0; i < 2000; ++i) datagrams.emplace_back(dmx("a", i % 200), kMs);
  record(datagrams);
  options.fade_in = kSecond;
  sink.cost = 20'000;
  play();
  // One repeat may be on its way when a datagram becomes due.
  EXPECT_LE(state.lateness.max(), 2 * sink.cost);
}

// ArtSync

TEST_F(PlayerTest, SyncsAfterEachBurst) {
  const std::string sync = packets::header(0x5200) + packets::high_first(14) + std::string(2, '\0');
  record({{dmx("a", 1), 0}, {dmx("b", 2), kMs}, {dmx("c", 1), 3 * kMs}, {dmx("d", 2), 2 * kMs}});
  options.sync = true;
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a", 1)},
                                       {kMs, dmx("b", 2)},
                                       {kMs, sync},
                                       {4 * kMs, dmx("c", 1)},
                                       {6 * kMs, dmx("d", 2)},
                                       {6 * kMs, sync}}));
  EXPECT_EQ(state.sent, 4U);
}

TEST_F(PlayerTest, SyncsEachRepeatOfAFadeAndOfABlackOut) {
  record({{dmx("a", 1), 0}, {dmx("b", 2), 0}, {dmx("c", 1), 10 * kFrame}});
  options.sync = true;
  options.fade_in = 2 * kFrame;
  options.blackout = true;
  play();
  std::string order;
  for (const Sent& one : sink.sent)
    order += one.bytes[9] == '\x52' ? 's' : static_cast<char>('0' + one.bytes[14]);
  EXPECT_EQ(order, "12s12s12s1s12s12s12s");
}

// The operator

using Kind = cue::PlayCommand::Kind;

TEST_F(PlayerTest, StandsDuringAPauseAndGoesOnWhereItWas) {
  record({{dmx("a", 1, 7), 0}, {dmx("b", 2, 0), 0}, {dmx("c", 1, 8), kSecond}});
  command_at({{400 * kMs, {Kind::Pause}}, {2900 * kMs, {Kind::Pause}}});
  play();
  EXPECT_EQ(state.paused, false);
  ASSERT_EQ(sink.sent.size(), 7U);
  // Commands are taken within 20 ms.
  const std::int64_t began = sink.sent[2].time - kSecond;
  EXPECT_GE(began, 400 * kMs);
  EXPECT_LE(began, 421 * kMs);
  EXPECT_EQ(sink.sent[2], (Sent{began + kSecond, dmx("a", 1, 8)}));
  EXPECT_EQ(sink.sent[3], (Sent{began + kSecond, dmx("b", 2, 0)}));
  EXPECT_EQ(sink.sent[4], (Sent{began + 2 * kSecond, dmx("a", 1, 9)}));
  EXPECT_EQ(sink.sent[6].bytes, dmx("c", 1, 10));
  EXPECT_NEAR(static_cast<double>(sink.sent[6].time), static_cast<double>(3500 * kMs), 21.0 * kMs);
}

TEST_F(PlayerTest, ShowsTheLookAfterAJumpForward) {
  record({{dmx("a", 1, 1), 0},
          {dmx("b", 2, 1), kSecond},
          {dmx("c", 1, 2), kSecond},
          {dmx("d", 1, 3), 10 * kSecond}});
  command_at({{500 * kMs, {Kind::Seek, 5 * kSecond}}});
  play();
  ASSERT_EQ(sink.sent.size(), 4U);
  EXPECT_EQ(sink.sent[1].bytes, dmx("c", 1, 2));
  EXPECT_EQ(sink.sent[2].bytes, dmx("b", 2, 1));
  EXPECT_LE(sink.sent[2].time - sink.sent[1].time, kFrame);
  EXPECT_EQ(sink.sent[3].bytes, dmx("d", 1, 3));
  EXPECT_NEAR(static_cast<double>(sink.sent[3].time), static_cast<double>(7 * kSecond), 50.0 * kMs);
  EXPECT_EQ(state.position, 12 * kSecond);
}

TEST_F(PlayerTest, ShowsTheLookAfterAJumpBackAndCountsOn) {
  record({{dmx("a", 1, 1), 0},
          {dmx("b", 2, 1), kSecond},
          {dmx("c", 1, 2), kSecond},
          {dmx("d", 3, 3), 4 * kSecond},
          {dmx("e", 1, 3), 4 * kSecond}});
  command_at({{6500 * kMs, {Kind::Seek, -5 * kSecond}}});
  play();
  std::string levels;
  std::string sequences;
  for (const Sent& one : sink.sent) {
    levels += one.bytes.back();
    sequences += static_cast<char>('0' + one.bytes[12]);
  }
  EXPECT_EQ(levels,
            "abcd"
            "ab"
            "cde");
  EXPECT_EQ(sequences,
            "1123"
            "32"
            "445");
}

TEST_F(PlayerTest, HomeIsTheStartOfTheSelectionAndJumpsStayWithin) {
  record({{dmx("a"), 0}, {dmx("b"), kSecond}, {dmx("c"), kSecond}, {dmx("d"), 60 * kSecond}});
  options.selection.start = 500 * kMs;
  options.selection.stop = 30 * kSecond;
  command_at({{2 * kSecond, {Kind::Home}},
              {4 * kSecond, {Kind::Seek, std::numeric_limits<std::int64_t>::min()}},
              {6 * kSecond, {Kind::Seek, std::numeric_limits<std::int64_t>::max()}}});
  std::string levels;
  for (const Sent& one : play()) levels += one.bytes.back();
  EXPECT_EQ(levels,
            "abc"
            "abc"
            "abc"
            "c");
  EXPECT_LT(now(), 7 * kSecond);
}

TEST_F(PlayerTest, AJumpBehindTheEndShowsTheLastLookAndEndsThePass) {
  record({{dmx("a"), 0}, {dmx("b"), kSecond}});
  options.loops = 2;
  command_at({{100 * kMs, {Kind::Seek, 30 * kSecond}}});
  std::string levels;
  for (const Sent& one : play()) levels += one.bytes.back();
  EXPECT_EQ(levels,
            "a"
            "b"
            "ab");
  EXPECT_EQ(state.position, kSecond);
}

TEST_F(PlayerTest, AJumpDuringAPauseShowsItsLookAndStands) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kSecond}, {dmx("c"), 10 * kSecond}});
  command_at(
      {{kSecond, {Kind::Pause}}, {1500 * kMs, {Kind::Seek, 12 * kSecond}}, {4 * kSecond, {Kind::Pause}}});
  play();
  std::string levels;
  for (const Sent& one : sink.sent) levels += one.bytes.back();
  EXPECT_EQ(levels,
            "a"
            "b"
            "bb"
            "c");
  EXPECT_NEAR(static_cast<double>(sink.sent[1].time), static_cast<double>(1500 * kMs), 50.0 * kMs);
  EXPECT_NEAR(static_cast<double>(sink.sent[4].time), static_cast<double>(11 * kSecond), 50.0 * kMs);
}

TEST_F(PlayerTest, HomeDuringAPauseShowsTheFirstFrame) {
  record({{dmx("a", 0), 0}, {dmx("b", 1), 10 * kMs}, {dmx("c", 0), 10 * kSecond}, {dmx("d", 0), kSecond}});
  command_at({{10'500 * kMs, {Kind::Pause}}, {10'600 * kMs, {Kind::Home}}, {12 * kSecond, {Kind::Pause}}});
  play();
  std::string levels;
  for (const Sent& one : sent_within(10'600 * kMs, 12 * kSecond)) levels += one.bytes.back();
  EXPECT_EQ(levels, "abab");
  EXPECT_EQ(sink.sent.back().bytes, dmx("d", 0));
}

class PauseBeforeTheFirstDatagramTest : public PlayerTest {
protected:
  /// Two universes in the first frame, and a later level. Space is pressed at once, and again after 3.5 s.
  PauseBeforeTheFirstDatagramTest() {
    record({{dmx("a", 0), 0}, {dmx("b", 1), 10 * kMs}, {dmx("c", 0), 10 * kSecond}});
    command_at({{-kLead, {Kind::Pause}}, {3500 * kMs, {Kind::Pause}}});
  }

  std::string levels_within(std::int64_t from, std::int64_t to) const {
    std::string levels;
    for (const Sent& one : sent_within(from, to)) levels += one.bytes.back();
    return levels;
  }
};

TEST_F(PauseBeforeTheFirstDatagramTest, ShowsTheFirstFrameAndStands) {
  play();
  EXPECT_EQ(levels_within(0, 50 * kMs), "ab");
  EXPECT_EQ(levels_within(50 * kMs, 3500 * kMs), "ababab");
  EXPECT_EQ(levels_within(3500 * kMs, 20 * kSecond), "c");
  EXPECT_NEAR(static_cast<double>(sink.sent.back().time), static_cast<double>(13'500 * kMs), 50.0 * kMs);
}

TEST_F(PauseBeforeTheFirstDatagramTest, ShowsItWithoutLooksToo) {
  options.look = false;
  play();
  EXPECT_EQ(levels_within(0, 3500 * kMs), "abababab");
}

TEST_F(PauseBeforeTheFirstDatagramTest, ShowsTheWholeLookOfTheStart) {
  options.selection.start = 5 * kSecond;
  play();
  EXPECT_EQ(levels_within(500 * kMs, 3500 * kMs), "ababab");
  EXPECT_EQ(levels_within(3500 * kMs, 20 * kSecond), "c");
}

TEST_F(PauseBeforeTheFirstDatagramTest, AFadeBeginsAfterIt) {
  record({{dmx("\xC8"), 0}, {dmx("\xC8"), 10 * kSecond}});
  options.fade_in = 2 * kSecond;
  play();
  EXPECT_EQ(levels_within(0, 3500 * kMs), std::string(4, '\0'));
  const std::vector<Sent> after = sent_within(4500 * kMs, 4550 * kMs);
  ASSERT_FALSE(after.empty());
  EXPECT_NEAR(static_cast<std::uint8_t>(after.front().bytes.back()), 100, 6);
}

TEST_F(PauseBeforeTheFirstDatagramTest, StandsInTheDarkWhereTheRecordingIsDark) {
  options.selection.only = cue::UniverseSet();
  options.selection.only->insert(1);
  record({{dmx("a", 0), 0}, {dmx("b", 1), 5 * kSecond}});
  play();
  ASSERT_EQ(sink.sent.size(), 1U);
  EXPECT_NEAR(static_cast<double>(sink.sent[0].time), static_cast<double>(8500 * kMs), 50.0 * kMs);
}

TEST_F(PauseBeforeTheFirstDatagramTest, APauseThatEndsAtOnceLosesNothing) {
  command_at({{-kLead, {Kind::Pause}}, {-kLead, {Kind::Pause}}});
  play();
  EXPECT_EQ(levels_within(0, 20 * kSecond), "abc");
}

TEST_F(PauseBeforeTheFirstDatagramTest, AJumpInTheSameMomentIsTheOneThatCounts) {
  command_at({{-kLead, {Kind::Pause}}, {-kLead, {Kind::Seek, 5 * kSecond}}, {500 * kMs, {Kind::Pause}}});
  play();
  EXPECT_EQ(levels_within(0, 20 * kSecond), "abc");
  EXPECT_NEAR(static_cast<double>(sink.sent.back().time), static_cast<double>(5500 * kMs), 50.0 * kMs);
}

TEST_F(PlayerTest, AJumpWithinALookShowsAllUniversesOfIt) {
  record({{dmx("a", 0), 0}, {dmx("b", 1), 0}, {dmx("c", 2), 0}, {dmx("A", 0), 10 * kSecond}});
  options.selection.start = 5 * kSecond;
  command_at({{-kLead, {Kind::Seek, kSecond}}});
  std::string levels;
  for (const Sent& one : play()) levels += one.bytes.back();
  EXPECT_EQ(levels, "abcA");
}

TEST_F(PlayerTest, AFadeStandsDuringAPause) {
  record({{dmx("\xC8"), 0}, {dmx("\xC8"), 4 * kSecond}});
  options.fade_in = 2 * kSecond;
  command_at({{kSecond, {Kind::Pause}}, {5500 * kMs, {Kind::Pause}}});
  play();
  const std::vector<Sent> stood = sent_within(kSecond + 25 * kMs, 5500 * kMs);
  ASSERT_EQ(stood.size(), 4U);
  for (const Sent& one : stood) EXPECT_NEAR(static_cast<std::uint8_t>(one.bytes.back()), 101, 2);
  const std::vector<Sent> after = sent_within(5530 * kMs, 5580 * kMs);
  ASSERT_FALSE(after.empty());
  EXPECT_NEAR(static_cast<std::uint8_t>(after.front().bytes.back()), 105, 5);
}

TEST_F(PlayerTest, WithoutLooksAJumpSendsTheBareBytes) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kSecond}});
  options.look = false;
  command_at({{kSecond, {Kind::Seek, 5 * kSecond}}});
  EXPECT_EQ(play().size(), 2U);
}

TEST_F(PlayerTest, QuitGoesOnWithTheHoldAndASecondQuitWithTheBlackOut) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kSecond}});
  options.hold_rate = 10;
  options.blackout = true;
  command_at({{kSecond, {Kind::Quit}}, {1500 * kMs, {Kind::Pause}}, {2 * kSecond, {Kind::Quit}}});
  play();
  EXPECT_EQ(sent_within(kSecond, 2 * kSecond).front().bytes, dmx("a"));
  EXPECT_GE(sent_within(kSecond, 2 * kSecond).size(), 9U);
  EXPECT_EQ(sink.sent.back().bytes, dmx(packets::byte(0)));
  EXPECT_LT(now(), 2200 * kMs);
}

TEST_F(PlayerTest, QuitInAPauseWithinAFadeInHoldsFromItsLevelOn) {
  record({{dmx("\xC8"), 0}, {dmx("\xC8"), 40 * kSecond}});
  options.fade_in = 20 * kSecond;
  options.hold_rate = 10;
  command_at({{10 * kSecond, {Kind::Pause}}, {30 * kSecond, {Kind::Quit}}, {31 * kSecond, {Kind::Quit}}});
  play();
  const std::vector<Sent> held = sent_within(30 * kSecond + 25 * kMs, 31 * kSecond);
  ASSERT_GE(held.size(), 9U);
  for (const Sent& one : held) EXPECT_NEAR(static_cast<std::uint8_t>(one.bytes.back()), 105, 6) << one.time;
}

TEST_F(PlayerTest, QuitInAPauseWithinAFadeOutHoldsItsLevel) {
  record({{dmx("\xC8"), 0}, {dmx("\xC8"), 40 * kSecond}});
  options.fade_out = 20 * kSecond;
  options.hold_rate = 10;
  command_at({{30 * kSecond, {Kind::Pause}}, {50 * kSecond, {Kind::Quit}}, {60 * kSecond, {Kind::Quit}}});
  play();
  const std::vector<Sent> held = sent_within(50 * kSecond + 25 * kMs, 60 * kSecond);
  ASSERT_GE(held.size(), 90U);
  for (const Sent& one : held) EXPECT_NEAR(static_cast<std::uint8_t>(one.bytes.back()), 100, 2) << one.time;
}

TEST_F(PlayerTest, AJumpJustBeforeQuitDoesNotEndTheHold) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kSecond}});
  options.hold_rate = 10;
  command_at({{kSecond, {Kind::Seek, kSecond}}, {kSecond, {Kind::Quit}}, {2 * kSecond, {Kind::Quit}}});
  play();
  EXPECT_GE(sent_within(kSecond, 2 * kSecond).size(), 9U);
}

TEST_F(PlayerTest, APauseBetweenTwoPassesStands) {
  record({{dmx("a"), 0}, {dmx("b"), 20 * kMs}});
  options.selection.start = 10 * kMs;
  options.gap = 10 * kSecond;
  options.loops = 2;
  command_at({{3 * kSecond, {Kind::Pause}}, {15 * kSecond, {Kind::Pause}}});
  play();
  const std::vector<Sent> stood = sent_within(3 * kSecond, 15 * kSecond);
  EXPECT_GE(stood.size(), 11U);
  for (const Sent& one : stood) EXPECT_EQ(one.bytes.back(), 'b') << one.time;
  EXPECT_NEAR(static_cast<double>(sink.sent.back().time), static_cast<double>(22 * kSecond), 50.0 * kMs);
}

class PauseWithinARepeatTest : public PlayerTest {
protected:
  /// Ten universes fade in over 20 s, with a repeat always on its way; they stand from 10 s to 15 s.
  PauseWithinARepeatTest() {
    std::vector<recordings::Datagram> datagrams;
    for (unsigned universe = 0; universe < 10; ++universe) datagrams.emplace_back(dmx("\xC8", universe), 0);
    datagrams.emplace_back(dmx("\xC8"), 40 * kSecond);
    record(datagrams);
    options.fade_in = 20 * kSecond;
    sink.cost = 15 * kMs;
  }

  void expect_no_flash() {
    play();
    const std::vector<Sent> after = sent_within(15 * kSecond + 25 * kMs, 16 * kSecond);
    ASSERT_GE(after.size(), 20U);
    for (const Sent& one : after)
      EXPECT_NEAR(static_cast<std::uint8_t>(one.bytes.back()), 105, 9) << one.time;
  }
};

TEST_F(PauseWithinARepeatTest, DoesNotFlash) {
  command_at({{10 * kSecond, {Kind::Pause}}, {15 * kSecond, {Kind::Pause}}});
  expect_no_flash();
}

TEST_F(PauseWithinARepeatTest, DoesNotFlashAfterAJump) {
  command_at({{10 * kSecond, {Kind::Pause}}, {14 * kSecond, {Kind::Seek, 1}}, {15 * kSecond, {Kind::Pause}}});
  expect_no_flash();
}

class StopBySystemTest : public PlayerTest {
protected:
  /// The system stops the program after a second for two and a half.
  StopBySystemTest() {
    clock.on_sleep = [this](std::int64_t) {
      if (now() < kSecond || was_stopped) return;
      was_stopped = continued = true;
      clock.time += std::chrono::milliseconds(2500);
    };
    next_command = [this]() -> std::optional<cue::PlayCommand> {
      if (!std::exchange(continued, false)) return std::nullopt;
      return cue::PlayCommand{Kind::Seek, 0};
    };
  }

private:
  bool was_stopped = false;
  bool continued = false;
};

TEST_F(StopBySystemTest, GoesOnWhereItWas) {
  std::vector<recordings::Datagram> datagrams;
  for (int i = 0; i < 100; ++i)
    datagrams.emplace_back(dmx(packets::byte(static_cast<unsigned>(i))), 100 * kMs);
  record(datagrams);
  play();
  // Each level once, and the look at the place of the stop.
  ASSERT_EQ(sink.sent.size(), 101U);
  std::string levels;
  for (const Sent& one : sink.sent)
    if (levels.empty() || levels.back() != one.bytes.back()) levels += one.bytes.back();
  EXPECT_EQ(levels.size(), 100U);
  EXPECT_NEAR(static_cast<double>(sink.sent.back().time), static_cast<double>(12'400 * kMs), 50.0 * kMs);
}

TEST_F(StopBySystemTest, AFadeStandsMeanwhile) {
  record({{dmx("\xC8"), 0}, {dmx("\xC8"), 40 * kSecond}});
  options.fade_in = 4 * kSecond;
  play();
  const std::vector<Sent> after = sent_within(3500 * kMs, 3600 * kMs);
  ASSERT_FALSE(after.empty());
  for (const Sent& one : after) EXPECT_NEAR(static_cast<std::uint8_t>(one.bytes.back()), 51, 7) << one.time;
}

TEST_F(PlayerTest, StopsDuringAPause) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kSecond}});
  command_at({{kSecond, {Kind::Pause}}});
  stop_at(4 * kSecond);
  play();
  EXPECT_TRUE(state.paused);
  EXPECT_NEAR(static_cast<double>(state.position), static_cast<double>(kSecond), 21.0 * kMs);
  EXPECT_LE(now(), 4 * kSecond + 20 * kMs);
}

// Failures and damage

TEST_F(PlayerTest, RemembersTheFirstAndTheLastFailureWithItsTime) {
  record({{dmx("a"), 0}, {dmx("b"), 5}, {dmx("c"), 5}, {dmx("d"), 5}});
  int call = 0;
  sink.on_send = [&call] {
    ++call;
    return call == 2 ? ENETUNREACH : call == 3 ? ECONNREFUSED : 0;
  };
  play();
  EXPECT_EQ(state.failed, 2U);
  EXPECT_EQ(state.sent, 2U);
  EXPECT_EQ(state.first_failure.error, ENETUNREACH);
  EXPECT_EQ(state.first_failure.position, 5);
  EXPECT_EQ(state.last_failure.error, ECONNREFUSED);
  EXPECT_EQ(state.last_failure.position, 10);
  EXPECT_EQ(state.last_failure.offset, 74U);
}

TEST_F(PlayerTest, CountsBlackOutsThatWereNotSent) {
  record({{dmx("a"), 0}});
  options.blackout = true;
  int call = 0;
  sink.on_send = [&call] { return ++call == 1 ? 0 : ENETDOWN; };
  play();
  EXPECT_EQ(state.failed, 3U);
  EXPECT_EQ(state.first_failure.error, ENETDOWN);
}

TEST_F(PlayerTest, PassesOverDamageInEachPassAndTellsOfItOnce) {
  std::string file = dmx("a") + delay(10 * kMs) + "Art";
  file += std::string(9000, 'U') + delay(10 * kMs) + dmx("b") + delay(50 * kMs) + dmx("c");
  options.file = directory.write("show.cue", file);
  options.loops = 2;
  options.selection.start = 5 * kMs;
  std::vector<std::uint64_t> offsets;
  options.on_damage = [&](const cue::RecordingReader&, const cue::Damage& damage) {
    offsets.push_back(damage.offset);
  };
  std::string levels;
  for (const Sent& one : play()) levels += one.bytes.back();
  EXPECT_EQ(levels, "abcabc");
  EXPECT_EQ(offsets.size(), 1U);
  EXPECT_EQ(state.damaged, 1U);
}

TEST_F(PlayerTest, FadesOutUpToTheEndBehindDamageToo) {
  options.file = directory.write("show.cue", dmx("\xC8") + delay(kSecond) + "Art" + std::string(9000, 'U') +
                                                 delay(kSecond) + dmx("\xC8"));
  int told = 0;
  options.on_damage = [&](const cue::RecordingReader&, const cue::Damage&) { ++told; };
  options.fade_out = kSecond / 2;
  play();
  EXPECT_GE(state.position, kSecond);
  EXPECT_EQ(sink.sent.back(), (Sent{state.position, dmx(packets::byte(0))}));
  EXPECT_EQ(told, 1);
}

}  // namespace
