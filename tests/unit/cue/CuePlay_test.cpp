#include "cue/CuePlay.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "cue/CueError.h"
#include "unit/cue/directory.h"
#include "unit/cue/recordings.h"

using cue::kSecond;
using packets::dmx;
using recordings::delay;
using recordings::file_of;

namespace {

constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kLead = 5 * kMs;

/// A clock that stands still but for the waits, which end exactly when they should.
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

class CuePlay : public testing::Test {
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

TEST_F(CuePlay, SendsEveryDatagramAtItsTime) {
  record({{dmx("a"), 0}, {dmx("b") + "x", 20 * kMs}, {dmx("c"), 0}, {dmx("d"), 1}});
  EXPECT_EQ(play(),
            (std::vector<Sent>{
                {0, dmx("a")}, {20 * kMs, dmx("b") + "x"}, {20 * kMs, dmx("c")}, {20 * kMs + 1, dmx("d")}}));
  EXPECT_EQ(state.lateness.count(), 4U);
  EXPECT_EQ(state.position, 20 * kMs + 1);
}

TEST_F(CuePlay, NeverAddsLatenessUp) {
  std::vector<recordings::Datagram> datagrams;
  for (int i = 0; i < 1000; ++i) datagrams.emplace_back(dmx("a"), 10 * kMs);
  record(datagrams);
  sink.cost = 3 * kMs;
  EXPECT_EQ(play().back().time, 999 * 10 * kMs);
  EXPECT_EQ(state.lateness.drift(), 0);
  EXPECT_EQ(state.lateness.max(), 3 * kMs);
}

TEST_F(CuePlay, CatchesUpWithoutLosingADatagram) {
  record({{dmx("a"), 0}, {dmx("b"), kMs}, {dmx("c"), kMs}, {dmx("d"), 100 * kMs}});
  sink.cost = 10 * kMs;
  EXPECT_EQ(play(), (std::vector<Sent>{
                        {0, dmx("a")}, {10 * kMs, dmx("b")}, {20 * kMs, dmx("c")}, {102 * kMs, dmx("d")}}));
}

TEST_F(CuePlay, SleepsInShortSlicesAndSpinsOnlyAtTheEnd) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kSecond}});
  play();
  EXPECT_EQ(clock.longest_sleep, 20 * kMs);
  EXPECT_LE(clock.longest_spin, 300'000);
}

TEST_F(CuePlay, PlaysFasterAndSlower) {
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

TEST_F(CuePlay, PlaysAPart) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kMs}, {dmx("c"), 10 * kMs}, {dmx("d"), 10 * kMs}});
  options.selection.start = 5 * kMs;
  options.selection.stop = 30 * kMs;
  EXPECT_EQ(play(), (std::vector<Sent>{{5 * kMs, dmx("b")}, {15 * kMs, dmx("c")}}));
}

TEST_F(CuePlay, SendsOnlySomeUniversesAndAsOthers) {
  record({{dmx("a", 0), 0}, {dmx("b", 1), 10 * kMs}, {dmx("c", 2), 10 * kMs}});
  options.selection.only = cue::parse_universes("1,3");
  options.selection.changes = {{2, 0x1234}};
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a", 0)}, {20 * kMs, dmx("c", 0x1234)}}));
}

TEST_F(CuePlay, LoopsWithAGapAndWithoutDrift) {
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

TEST_F(CuePlay, LoopsAPartInItsOwnLength) {
  record({{dmx("a"), 0}, {dmx("b"), 10 * kMs}, {dmx("c"), 10 * kMs}});
  options.selection.start = 2 * kMs;
  options.selection.stop = 12 * kMs;
  options.loops = 2;
  EXPECT_EQ(play(), (std::vector<Sent>{{8 * kMs, dmx("b")}, {18 * kMs, dmx("b")}}));
}

TEST_F(CuePlay, LoopsForeverUntilStopped) {
  record({{dmx("a"), 0}});
  options.loops.reset();
  clock.on_sleep = [this](std::int64_t time) { stop = time > kSecond; };
  EXPECT_EQ(play().size(), 44U);
}

TEST_F(CuePlay, EndsAtOnceWhenThereIsNothingToPlay) {
  record({});
  options.loops.reset();
  options.hold_rate = 40;
  options.blackout = true;
  EXPECT_EQ(play(), std::vector<Sent>{});
}

TEST_F(CuePlay, StopsInTheMiddleOfAPause) {
  record({{dmx("a"), 0}, {dmx("b"), 3600 * kSecond}});
  std::int64_t stopped_at = 0;
  clock.on_sleep = [&](std::int64_t time) {
    if (time > kSecond && !stop.exchange(true)) stopped_at = time;
  };
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a")}}));
  EXPECT_EQ(clock.time.time_since_epoch().count(), stopped_at);
}

TEST_F(CuePlay, HoldsTheLastLookAndGoesOnCounting) {
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

TEST_F(CuePlay, BlacksOutWhatItPlayedWhenStopped) {
  record({{dmx("ab", 0, 7), 0}, {dmx("cd", 5), 0}, {dmx("ef", 6), kSecond}});
  options.blackout = true;
  clock.on_sleep = [this](std::int64_t time) { stop = time > 100 * kMs; };
  const std::string dark(2, '\0');
  const std::vector<Sent> sent = play();
  ASSERT_EQ(sent.size(), 4U);
  EXPECT_EQ(sent[2].bytes, dmx(dark, 0, 8));
  EXPECT_EQ(sent[3].bytes, dmx(dark, 5));
}

TEST_F(CuePlay, BlacksOutAtTheEnd) {
  record({{dmx("ab", 3), 0}});
  options.blackout = true;
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("ab", 3)}, {0, dmx(std::string(2, '\0'), 3)}}));
}

TEST_F(CuePlay, PlaysWhatIsGoodOfADamagedFileAndSaysWhereItBreaks) {
  options.file = directory.write("show.cue", dmx("ab", 3) + delay(5) + "Art");
  options.blackout = true;
  try {
    play();
    FAIL() << "the damage went unnoticed";
  } catch (const cue::CueError& error) {
    EXPECT_EQ(error.what(), options.file + ": byte 38: cut off within a datagram");
  }
  EXPECT_EQ(sink.sent, (std::vector<Sent>{{0, dmx("ab", 3)}, {0, dmx(std::string(2, '\0'), 3)}}));
}

TEST_F(CuePlay, GivesUpWhenTheFirstDatagramCannotBeSent) {
  record({{dmx("a"), 0}, {dmx("b"), 5}});
  sink.on_send = [] { return ENETUNREACH; };
  try {
    play();
    FAIL() << "it went on";
  } catch (const cue::CueError& error) {
    EXPECT_EQ(error.what(), options.file + ": byte 0: not sent: Network is unreachable");
  }
}

TEST_F(CuePlay, GoesOnWhenALaterDatagramCannotBeSent) {
  record({{dmx("a"), 0}, {dmx("b"), 5}, {dmx("c"), 5}});
  int call = 0;
  sink.on_send = [&call] { return ++call == 2 ? ENETUNREACH : 0; };
  EXPECT_EQ(play(), (std::vector<Sent>{{0, dmx("a")}, {10, dmx("c")}}));
  EXPECT_EQ(state.failed, 1U);
  EXPECT_EQ(state.first_error, ENETUNREACH);
  EXPECT_EQ(state.first_failed_offset, 37U);
}

TEST_F(CuePlay, TellsOfItsStateOnlyWhenThereIsTime) {
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

TEST(CuePlayText, ShowsPositionRemainingTimeDatagramsAndLateness) {
  cue::PlayState state;
  state.position = 12'345 * kMs;
  for (int i = 0; i < 99; ++i) state.lateness.add(kMs / 10);
  state.lateness.add(2 * kMs);
  EXPECT_EQ(cue::progress_text(state, 90 * kSecond),
            "12.345 s  1m30.000s left  100 datagrams  late 0.10 ms (most 2.00 ms)");
  state.holding = true;
  EXPECT_EQ(cue::progress_text(state, 0), "12.345 s  held  100 datagrams  late 0.10 ms (most 2.00 ms)");
}

TEST(Lateness, TellsPercentilesToOneThirtySecond) {
  cue::Lateness late;
  EXPECT_EQ(late.percentile(0.5), 0);
  for (int i = 1; i <= 1000; ++i) late.add(i * 1000);
  EXPECT_EQ(late.count(), 1000U);
  EXPECT_EQ(late.max(), 1'000'000);
  EXPECT_EQ(late.percentile(1), 1'000'000);
  EXPECT_NEAR(static_cast<double>(late.percentile(0.5)), 500'000, 500'000 / 32.0);
  EXPECT_NEAR(static_cast<double>(late.percentile(0.99)), 990'000, 990'000 / 32.0);
  EXPECT_EQ(late.drift(), 999'000);
}

TEST(Lateness, TakesAnyNumber) {
  cue::Lateness late;
  late.add(0);
  late.add(31);
  late.add(63);
  EXPECT_EQ(late.percentile(0), 0);
  EXPECT_EQ(late.percentile(0.6), 31);
  late.add(std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(late.percentile(1), std::numeric_limits<std::int64_t>::max());
}

/// A socket at 127.0.0.N that is read with a deadline.
class Receiver {
public:
  explicit Receiver(const char* address) : fd(socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in here{};
    here.sin_family = AF_INET;
    inet_pton(AF_INET, address, &here.sin_addr);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&here), sizeof here), 0);
    socklen_t size = sizeof here;
    getsockname(fd, reinterpret_cast<sockaddr*>(&here), &size);
    port = ntohs(here.sin_port);
    const timeval deadline{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
  }
  ~Receiver() { close(fd); }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;
  Receiver(Receiver&&) = delete;
  Receiver& operator=(Receiver&&) = delete;

  std::string receive() {
    std::string bytes(65536, '\0');
    sockaddr_in source{};
    socklen_t size = sizeof source;
    const ssize_t count =
        recvfrom(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&source), &size);
    EXPECT_NE(count, -1);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    char text[INET_ADDRSTRLEN] = {};
    sender = inet_ntop(AF_INET, &source.sin_addr, text, sizeof text);
    return bytes;
  }

  int port = 0;
  std::string sender;  // of the last datagram

private:
  int fd;
};

int send(cue::DatagramSink& sink, const std::string& datagram) {
  return sink.send(recordings::bytes_of(datagram), datagram.size());
}

TEST(UdpSender, SendsFromTheAddressThatIsAskedFor) {
  Receiver receiver("127.0.0.3");
  cue::UdpSender sender({"127.0.0.3", receiver.port}, cue::Destination{"127.0.0.2", 0});
  EXPECT_EQ(send(sender, dmx("abc")), 0);
  EXPECT_EQ(receiver.receive(), dmx("abc"));
  EXPECT_EQ(receiver.sender, "127.0.0.2");
}

TEST(UdpSender, DoesNotCareWhetherAnybodyListens) {
  int port = 0;
  {
    const Receiver gone("127.0.0.3");
    port = gone.port;
  }
  cue::UdpSender sender({"127.0.0.3", port}, std::nullopt);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(send(sender, dmx("abc")), 0);
}

TEST(UdpSender, NamesAnAddressThatItCannotSendFrom) {
  try {
    const cue::UdpSender sender({"127.0.0.3", 6454}, cue::Destination{"192.0.2.1", 7});
    FAIL() << "an address of another host was taken";
  } catch (const cue::CueError& error) {
    EXPECT_STREQ(error.what(), "192.0.2.1:7: Cannot assign requested address");
  }
}

TEST(RelaySender, AsksTheServiceToSend) {
  Receiver service("127.0.0.1");
  cue::RelaySender sender(service.port, {"10.77.255.255", 6454}, 0x1234);
  EXPECT_EQ(send(sender, dmx("abc")), 0);
  EXPECT_EQ(service.receive(), packets::text("\x34\x12\0\0"
                                             "10.77.255.255\0\0\0"
                                             "\x36\x19\0\0",
                                             24) +
                                   dmx("abc"));
  EXPECT_EQ(service.sender, "127.0.0.1");
  EXPECT_EQ(send(sender, std::string(8167, 'x')), 0);
  EXPECT_EQ(service.receive().size(), 8191U);
  EXPECT_EQ(send(sender, std::string(8168, 'x')), EMSGSIZE);
}

TEST(RelaySender, RefusesWhatTheServiceWouldNotSend) {
  EXPECT_THROW(cue::RelaySender(6454, {"127.0.0.1", 6454}, 0), cue::CueError);
  EXPECT_THROW(cue::RelaySender(6454, {"10.0.0.1", 1023}, 0), cue::CueError);
}

TEST(CuePlayCommand, PlaysToAPeerAndTellsItsTiming) {
  const unit::Directory directory;
  Receiver receiver("127.0.0.3");
  cue::PlayCommand command;
  command.options.file = directory.write("show.cue", file_of({{dmx("a"), 0}, {dmx("b"), 5}}));
  command.to = {"127.0.0.3", receiver.port};
  command.stats = true;
  command.real_time = false;
  command.progress = true;
  const std::atomic<bool> stop = false;
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_EQ(cue::run_play(command, stop, out, err), 0);
  EXPECT_EQ(receiver.receive(), dmx("a"));
  EXPECT_EQ(receiver.receive(), dmx("b"));
  EXPECT_EQ(out.str().rfind("{\"datagrams\": 2, \"failed\": 0, \"late_p50_ns\": ", 0), 0U) << out.str();
  EXPECT_NE(err.str().find("2 datagrams"), std::string::npos) << err.str();
}

}  // namespace
