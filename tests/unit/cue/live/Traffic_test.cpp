#include "cue/live/Traffic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "cue/Time.h"
#include "unit/cue/recordings.h"
#include "unit/cue/sacn.h"

using cue::kSecond;
using packets::byte;
using packets::dmx;
using packets::high_first;

namespace {

constexpr std::uint32_t kDesk = 0x0A000001;       // 10.0.0.1
constexpr std::uint32_t kOther = 0x0A000002;      // 10.0.0.2
constexpr std::uint32_t kEverybody = 0x0AFFFFFF;  // 10.255.255.255
constexpr std::int64_t kMillisecond = kSecond / 1000;

class Traffic : public testing::Test {
protected:
  cue::Traffic traffic;
  std::int64_t now = 1000 * kSecond;

  void send(const std::string& payload, std::uint32_t sender = kDesk, std::uint32_t receiver = kEverybody,
            int port = 6454) {
    // A copy of its own, so that a look behind its end is found.
    const std::vector<std::uint8_t> copy(payload.begin(), payload.end());
    cue::UdpDatagram datagram;
    datagram.sender = sender;
    datagram.receiver = receiver;
    datagram.port = port;
    datagram.payload = {copy.data(), copy.size()};
    traffic.add(datagram, now);
  }

  cue::TrafficFigures figures() { return traffic.figures(now); }

  std::vector<cue::StreamFigures> streams() { return figures().streams; }

  /// The first stream of a protocol.
  cue::StreamFigures stream_of(cue::Protocol protocol) {
    for (const cue::StreamFigures& one : streams())
      if (one.protocol == protocol) return one;
    return {};
  }

  /// The only stream there is.
  cue::StreamFigures stream() {
    const cue::TrafficFigures all = figures();
    EXPECT_EQ(all.streams.size(), 1U);
    return all.streams.empty() ? cue::StreamFigures() : all.streams.front();
  }
};

TEST_F(Traffic, TellsWhoSendsWhichLevelsWhere) {
  send(dmx("\1\xC8\3", 0x7A1B, 7));
  now += 300 * kMillisecond;
  const cue::StreamFigures one = stream();
  EXPECT_EQ(one.protocol, cue::Protocol::ArtNet);
  EXPECT_EQ(one.universe, 0x7A1B);
  EXPECT_EQ(one.sender, kDesk);
  EXPECT_EQ(one.datagrams, 1U);
  EXPECT_EQ(one.slots, 3);
  EXPECT_EQ(one.highest, 0xC8);
  EXPECT_EQ(one.levels[0], 1);
  EXPECT_EQ(one.levels[2], 3);
  EXPECT_EQ(one.levels[3], 0);
  EXPECT_EQ(one.age, 300 * kMillisecond);
}

/// An ArtPollReply as far as its name, and its bind index.
std::string reply(const std::string& name, unsigned bind_index = 0) {
  std::string bytes = packets::header(0x2100) + std::string(229, '\0');
  bytes.replace(26, name.size(), name);
  bytes[211] = static_cast<char>(bind_index);
  return bytes;
}

TEST_F(Traffic, ShowsTheLevelsOfTheLastDatagram) {
  send(dmx("\7\7\7\7"));
  send(dmx("\2"));
  EXPECT_EQ(stream().slots, 1);
  EXPECT_EQ(stream().highest, 2);
  EXPECT_EQ(stream().levels[1], 0);
  send(dmx(std::string(512, '\xFF')));
  EXPECT_EQ(stream().levels[511], 255);
  send(dmx(""));
  EXPECT_EQ(stream().slots, 0);
  EXPECT_EQ(stream().highest, 0);
  EXPECT_EQ(stream().datagrams, 4U);
}

TEST_F(Traffic, CountsTheRateOfTheLastWholeSecond) {
  for (int i = 0; i < 3 * 40; ++i) {
    send(dmx("x"));
    now += 25 * kMillisecond;
  }
  EXPECT_EQ(stream().rate, 40);
  EXPECT_EQ(figures().art_dmx.rate, 40);
  EXPECT_EQ(figures().art_dmx.packets, 120U);
  now += 2 * kSecond + cue::Traffic::kSettled;
  EXPECT_EQ(stream().rate, 0);
  EXPECT_EQ(figures().art_dmx.rate, 0);
}

TEST_F(Traffic, CountsTheRateOfAYoungStreamFromItsIntervals) {
  send(dmx("x"));
  now += 20 * kMillisecond;
  send(dmx("x"));
  EXPECT_EQ(stream().rate, 0);
  now += 20 * kMillisecond;
  send(dmx("x"));
  EXPECT_EQ(stream().rate, 50);
  send(dmx("x", 1));
  send(dmx("x", 1));
  send(dmx("x", 1));
  EXPECT_EQ(figures().streams[1].rate, 0);  // all at once: there is no interval
}

TEST_F(Traffic, MeasuresTheJitter) {
  for (int i = 0; i < 1000; ++i) {
    send(dmx("x"));
    now += (i % 2 == 0 ? 20 : 30) * kMillisecond;
  }
  EXPECT_NEAR(stream().jitter, 5, 0.5);
  // A datagram out of order has no interval.
  now -= 100 * kMillisecond;
  send(dmx("x"));
  now += 100 * kMillisecond;
  EXPECT_NEAR(stream().jitter, 5, 0.5);
}

TEST_F(Traffic, CountsWhatIsMissingBySequenceNumber) {
  for (const unsigned number : {250U, 251U, 253U, 254U, 255U, 1U, 2U, 4U, 3U, 6U, 6U}) {
    send(dmx(byte(number), 0, number));
    now += 25 * kMillisecond;
  }
  EXPECT_TRUE(stream().counts);
  EXPECT_EQ(stream().counting, cue::Counting::Own);
  EXPECT_EQ(stream().missing, 2U);
  EXPECT_EQ(stream().disordered, 2U);
}

TEST_F(Traffic, KnowsASenderThatDoesNotCount) {
  for (int i = 0; i < 20; ++i) send(dmx(byte(static_cast<unsigned>(i)), 0, 0));
  EXPECT_FALSE(stream().counts);
  EXPECT_EQ(stream().missing, 0U);
}

TEST_F(Traffic, KnowsASenderThatCountsFromZero) {
  for (unsigned i = 200; i < 2000; ++i) {
    send(dmx(byte(i), 0, i & 0xFFU));
    now += 25 * kMillisecond;
  }
  EXPECT_TRUE(stream().counts);
  EXPECT_EQ(stream().missing, 0U);
  EXPECT_EQ(stream().disordered, 0U);
}

TEST_F(Traffic, KnowsACounterThatUniversesShare) {
  unsigned number = 0;
  for (int look = 0; look < 100; ++look) {
    for (unsigned universe = 0; universe < 3; ++universe) {
      // Two numbers are lost on their way.
      if (number != 100 && number != 200) send(dmx(byte(number), universe, 1 + number % 255));
      ++number;
    }
    now += 25 * kMillisecond;
  }
  const cue::TrafficFigures all = figures();
  ASSERT_EQ(all.streams.size(), 3U);
  for (const cue::StreamFigures& one : all.streams) {
    EXPECT_EQ(one.counting, cue::Counting::Shared);
    EXPECT_TRUE(one.counts);
    EXPECT_EQ(one.missing, 2U);
    EXPECT_FALSE(one.contested);
  }
}

TEST_F(Traffic, MarksTwoSendersOnOneUniverse) {
  send(dmx("x", 7), kDesk);
  EXPECT_FALSE(stream().contested);
  send(dmx("x", 8), kOther);
  send(sacn::data({"x", 8}), kOther);
  for (const cue::StreamFigures& one : streams()) EXPECT_FALSE(one.contested);
  send(dmx("y", 7), kOther);
  now += 4 * kSecond;
  cue::TrafficFigures all = figures();
  ASSERT_EQ(all.streams.size(), 4U);
  EXPECT_TRUE(all.streams[0].contested);
  EXPECT_EQ(all.streams[0].sender, kDesk);
  EXPECT_EQ(all.streams[1].protocol, cue::Protocol::ArtNet);
  EXPECT_TRUE(all.streams[1].contested);
  EXPECT_FALSE(all.streams[2].contested);
  EXPECT_FALSE(all.streams[3].contested);
  // One of them is silent for longer than any sender is that still means it.
  send(dmx("y", 7), kOther);
  now += kSecond + 1;
  all = figures();
  EXPECT_FALSE(all.streams[0].contested);
  EXPECT_FALSE(all.streams[1].contested);
}

TEST_F(Traffic, MarksTwoSendersBehindOneAddress) {
  for (unsigned i = 0; i < 200; ++i) {
    send(dmx("desk", 0, 1 + i % 255));
    now += 10 * kMillisecond;
    send(dmx("node", 0, 1 + (i + 128) % 255));
    now += 10 * kMillisecond;
  }
  EXPECT_EQ(stream().counting, cue::Counting::Two);
  EXPECT_TRUE(stream().contested);
  EXPECT_EQ(stream().missing, 0U);
}

TEST_F(Traffic, MarksTwoSendersBehindOneAddressNoLongerThanBothSend) {
  for (unsigned i = 0; i < 200; ++i) {
    send(dmx("desk", 0, 1 + i % 255));
    send(dmx("node", 0, 1 + (i + 128) % 255));
    now += 25 * kMillisecond;
  }
  ASSERT_TRUE(stream().contested);
  for (unsigned i = 200; i < 420; ++i) {
    send(dmx("desk", 0, 1 + i % 255));
    now += 25 * kMillisecond;
  }
  EXPECT_FALSE(stream().contested);
  EXPECT_EQ(stream().counting, cue::Counting::Two);
}

TEST_F(Traffic, TellsUnicastFromBroadcast) {
  const auto is_unicast = [this](std::uint32_t receiver) {
    send(dmx("x"), kDesk, receiver);
    return stream().unicast;
  };
  EXPECT_TRUE(is_unicast(0x0A000002));
  EXPECT_FALSE(is_unicast(0xFFFFFFFF));
  EXPECT_FALSE(is_unicast(0xC0A801FF));  // 192.168.1.255
  EXPECT_FALSE(is_unicast(cue::sacn_group(1)));
  EXPECT_FALSE(is_unicast(0));  // a recording does not tell
  // To everybody in a small network: the frame says so.
  cue::UdpDatagram datagram;
  const std::string bytes = dmx("x");
  datagram.sender = kDesk;
  datagram.receiver = 0x0A00007F;
  datagram.payload = {recordings::bytes_of(bytes), bytes.size()};
  datagram.to_many = true;
  traffic.add(datagram, now);
  EXPECT_FALSE(stream().unicast);
}

TEST_F(Traffic, KnowsSendersByTheNameOfTheirReplies) {
  send(dmx("x"));
  EXPECT_EQ(stream().name, "");
  send(reply("Dimmer \xE4\x1B[1m"));
  EXPECT_EQ(stream().name, "Dimmer \u00E4[1m");
  send(reply("renamed"));
  send(reply("another's"), kOther);
  EXPECT_EQ(stream().name, "renamed");
  send(reply(""));
  EXPECT_EQ(stream().name, "renamed");
  EXPECT_EQ(figures().art_poll_reply.packets, 4U);
}

TEST_F(Traffic, TakesTheNameOfANodeFromItsFirstReply) {
  send(dmx("x"));
  send(reply("ports 5-8", 2));
  EXPECT_EQ(stream().name, "ports 5-8");
  send(reply("node", 1));
  send(reply("ports 5-8", 2));
  EXPECT_EQ(stream().name, "node");
}

TEST_F(Traffic, TakesNamesOfShortRepliesToo) {
  send(dmx("x"));
  send(reply("short").substr(0, 43));
  EXPECT_EQ(stream().name, "");
  send(reply("eighteen letters.x").substr(0, 44));
  EXPECT_EQ(stream().name, "eighteen letters.x");
}

TEST_F(Traffic, CountsPacketsByKind) {
  send(packets::poll());
  send(packets::header(0x5200) + high_first(14) + high_first(0));
  send(packets::header(0x9700));
  send(packets::trigger(1, 2));
  send(sacn::sync());
  send(sacn::discovery());
  send(sacn::root(9, ""));
  send("Art-Net");
  send("something else", kDesk, kEverybody, 5568);
  send("something else", kDesk, kEverybody, 6455);
  send(sacn::preamble());
  send(packets::dmx_announcing(512, "too short"));
  const cue::TrafficFigures all = figures();
  std::string counts;
  for (const cue::TrafficKind& kind : cue::kTrafficKinds)
    counts += std::string(kind.name) + " " + std::to_string((all.*kind.figures).packets) + "\n";
  EXPECT_EQ(counts,
            "art_dmx 0\nart_sync 1\nart_poll 1\nart_poll_reply 0\nart_other 2\nsacn_data 0\nsacn_sync 1\n"
            "sacn_discovery 1\nsacn_other 1\nbroken 4\n");
  EXPECT_TRUE(all.streams.empty());
}

TEST_F(Traffic, CountsAPacketThatTheCaptureCutOffAsBroken) {
  const std::string bytes = dmx("x");
  cue::UdpDatagram datagram;
  datagram.payload = {recordings::bytes_of(bytes), bytes.size()};
  datagram.cut = true;
  traffic.add(datagram, now);
  EXPECT_EQ(figures().broken.packets, 1U);
  EXPECT_TRUE(figures().streams.empty());
}

TEST_F(Traffic, FindsEveryPacketOfADatagramAsTheRecorderDoes) {
  send(packets::poll() + dmx("a", 1) + dmx("b", 2));
  send("junk" + dmx("c", 3));
  const cue::TrafficFigures all = figures();
  EXPECT_EQ(all.art_poll.packets, 1U);
  EXPECT_EQ(all.art_dmx.packets, 3U);
  EXPECT_EQ(all.broken.packets, 0U);
  ASSERT_EQ(all.streams.size(), 3U);
  EXPECT_EQ(all.streams[2].levels[0], 'c');
}

TEST_F(Traffic, FollowsSourcesOfSacn) {
  sacn::Data data{"\1\x99", 63999};
  data.sequence = 5;
  data.priority = 120;
  data.name = "Desk \x1B[2J";
  send(sacn::data(data), kDesk, cue::sacn_group(63999), 5568);
  now += kSecond;
  const cue::StreamFigures one = stream();
  EXPECT_EQ(one.protocol, cue::Protocol::Sacn);
  EXPECT_EQ(one.universe, 63998);
  EXPECT_EQ(one.cid[15], 'C');
  EXPECT_EQ(one.name, "Desk [2J");
  EXPECT_EQ(one.priority, 120);
  EXPECT_EQ(one.slots, 2);
  EXPECT_EQ(one.highest, 0x99);
  EXPECT_FALSE(one.unicast);
  EXPECT_EQ(figures().sacn_data.packets, 1U);
  data.name = std::string(64, 'n');
  send(sacn::data(data), kDesk, kOther, 5568);
  EXPECT_EQ(stream().name, std::string(64, 'n'));
  EXPECT_TRUE(stream().unicast);
}

TEST_F(Traffic, CountsSequenceNumbersOfSacnFromZero) {
  sacn::Data data{"x"};
  for (unsigned i = 0; i < 1200; ++i) {
    data.sequence = i & 0xFFU;
    if (i != 300 && i != 512) send(sacn::data(data));  // the second is a zero
    now += 25 * kMillisecond;
  }
  EXPECT_EQ(stream().counting, cue::Counting::Own);
  EXPECT_EQ(stream().missing, 2U);
}

TEST_F(Traffic, TakesNoLevelsOfSacnThatAreNotForTheStage) {
  sacn::Data data{"\1"};
  data.options = 0x80;
  send(sacn::data(data));
  data.options = 0;
  data.start_code = 0xDD;
  send(sacn::data(data));
  data.start_code = 0;
  data.options = 0x40;
  send(sacn::data(data));
  EXPECT_TRUE(figures().streams.empty());
  EXPECT_EQ(figures().sacn_data.packets, 3U);
}

TEST_F(Traffic, CountsNumbersOverPacketsWithoutLevels) {
  sacn::Data data{"\5"};
  for (unsigned number = 0; number < 20; ++number) {
    data.sequence = number;
    data.start_code = number % 2 == 0 ? 0 : 0xDD;
    data.levels = number % 2 == 0 ? "\5" : "\x64";
    send(sacn::data(data));
    now += 25 * kMillisecond;
  }
  EXPECT_EQ(stream().missing, 0U);
  EXPECT_EQ(stream().datagrams, 10U);
  EXPECT_EQ(stream().highest, 5);
}

TEST_F(Traffic, KnowsASourceThatEnds) {
  sacn::Data data{"\5"};
  send(sacn::data(data));
  data.sequence = 1;
  data.options = 0x40;
  data.levels = "\xFF";
  send(sacn::data(data));
  EXPECT_TRUE(stream().ended);
  EXPECT_EQ(stream().highest, 5);
  data.options = 0;
  send(sacn::data(data));
  EXPECT_FALSE(stream().ended);
}

TEST_F(Traffic, TellsAConflictOfSourcesFromABackup) {
  sacn::Data main{"x"};
  sacn::Data other{"x"};
  other.cid = std::string(16, 'D');
  other.priority = 99;
  send(sacn::data(main));
  send(sacn::data(other));  // at the same address
  ASSERT_EQ(figures().streams.size(), 2U);
  for (const cue::StreamFigures& one : streams()) EXPECT_FALSE(one.contested);
  other.priority = 100;
  send(sacn::data(other));
  for (const cue::StreamFigures& one : streams()) EXPECT_TRUE(one.contested);
  other.options = 0x40;
  send(sacn::data(other));
  for (const cue::StreamFigures& one : streams()) EXPECT_FALSE(one.contested);
}

TEST_F(Traffic, ListsStreamsByUniverseProtocolAndSender) {
  send(sacn::data({"x", 2}), kDesk);
  send(dmx("x", 0x7FFF), kDesk);
  send(dmx("x", 1), kOther);
  send(dmx("x", 1), kDesk);
  send(dmx("x", 0), kOther);
  std::string order;
  for (const cue::StreamFigures& one : streams())
    order += std::to_string(one.universe) + (one.protocol == cue::Protocol::Sacn ? "s" : "a") +
             std::to_string(one.sender & 0xFFU) + " ";
  EXPECT_EQ(order, "0a2 1a1 1a2 1s1 32767a1 ");
}

TEST_F(Traffic, ForgetsAStreamThatIsSilent) {
  send(dmx("x", 1));
  now += 30 * kSecond;
  send(dmx("x", 2));
  now += 30 * kSecond;
  EXPECT_EQ(figures().streams.size(), 2U);
  now += 1;
  EXPECT_EQ(stream().universe, 2);
}

TEST_F(Traffic, MakesRoomForNewStreams) {
  for (unsigned universe = 0; universe < cue::Traffic::kMostStreams; ++universe) send(dmx("x", universe));
  now += 1;
  send(dmx("x", 0));
  EXPECT_EQ(figures().streams_not_shown, 0U);
  send(dmx("x", 0x7000));
  cue::TrafficFigures all = figures();
  ASSERT_EQ(all.streams.size(), cue::Traffic::kMostStreams);
  EXPECT_EQ(all.streams[0].universe, 0);
  EXPECT_EQ(all.streams[1].universe, 2);
  EXPECT_EQ(all.streams.back().universe, 0x7000);
  EXPECT_EQ(all.streams_not_shown, 1U);
  // Nobody misses what is not sent any more.
  now += cue::Traffic::kPresent;
  send(dmx("x", 0x7001));
  EXPECT_EQ(figures().streams_not_shown, 1U);
}

TEST_F(Traffic, IsNotFilledByMadeUpSenders) {
  send(dmx("x", 7));
  for (std::uint32_t sender = 1; sender < 20'000; ++sender) {
    send(dmx("x", sender & 0xFFFFU), sender << 8);
    send(reply("made up"), sender << 8);
    if (sender % 200 == 0) send(dmx("x", 7));
  }
  const cue::TrafficFigures all = figures();
  EXPECT_EQ(all.streams.size(), cue::Traffic::kMostStreams);
  const auto desk = std::find_if(all.streams.begin(), all.streams.end(),
                                 [](const cue::StreamFigures& one) { return one.sender == kDesk; });
  ASSERT_NE(desk, all.streams.end());
  EXPECT_EQ(desk->datagrams, 100U);
}

TEST_F(Traffic, GoesOnWhenTheClockIsSet) {
  for (const std::int64_t set : {-3600 * kSecond, 3600 * kSecond}) {
    now += set;
    for (int i = 0; i < 120; ++i) {
      send(dmx("x"));
      now += 25 * kMillisecond;
    }
    EXPECT_EQ(stream().rate, 40) << set;
    EXPECT_EQ(stream().age, 25 * kMillisecond) << set;
  }
}

TEST_F(Traffic, TakesWhatComesLaterThanALookAtTheFigures) {
  for (int i = 0; i < 200; ++i) {
    send(dmx("x"));
    traffic.figures(now + 10 * kSecond);
    now += 25 * kMillisecond;
  }
  EXPECT_EQ(stream().rate, 40);
  EXPECT_EQ(stream().jitter, 0);
}

TEST_F(Traffic, StandsAnyTime) {
  using Limits = std::numeric_limits<std::int64_t>;
  unsigned number = 0;
  for (const std::int64_t time :
       {Limits::max(), Limits::min(), std::int64_t{0}, Limits::max(), std::int64_t{-1}, Limits::min()})
    for (int i = 0; i < 5; ++i) {
      now = time;
      number += 1 + number % 7;
      send(dmx("x", 0, 1 + number % 255));
      send(sacn::data({"x", 1, number & 0xFFU}));
      EXPECT_GE(stream_of(cue::Protocol::ArtNet).age, 0);
    }
}

}  // namespace
