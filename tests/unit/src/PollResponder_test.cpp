#include "src/PollResponder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "unit/artnet/packets.h"

using Asked = PollResponder::Asked;
using Wait = PollResponder::Wait;
using kesto::net::HostAddress;

namespace {

/// One reply as it was handed over for sending.
struct Packet {
  std::string address;
  int port = 0;
  std::string bytes;

  friend bool operator==(const Packet& a, const Packet& b) {
    return std::tie(a.address, a.port, a.bytes) == std::tie(b.address, b.port, b.bytes);
  }
  friend void PrintTo(const Packet& packet, std::ostream* out) {
    *out << packet.address << ':' << packet.port << ' ' << testing::PrintToString(packet.bytes);
  }
};

/// Keeps what is sent, and takes as many replies as it has room for.
class FakeSender : public ReplySender {
public:
  bool has_room() override { return room > 0; }
  void send(const ArtPollReply& reply, const HostAddress& address, int port) override {
    --room;
    packets.push_back({address.text(), port, packets::bytes_of(reply)});
  }

  /// Replies sent since the last call.
  std::vector<Packet> taken() { return std::exchange(packets, {}); }

  int room = std::numeric_limits<int>::max();

private:
  std::vector<Packet> packets;
};

NodeIdentity identity() {
  return {"c0a80114", "b827eb123456", 0x2111, 0x7074, "Recorder", "Tolvek ArtNet Recorder"};
}

/// All 239 bytes of the reply for a port-address.
std::string reply(unsigned index) {
  std::string bytes(239, '\0');
  const auto put = [&bytes](std::size_t offset, const std::string& part) {
    bytes.replace(offset, part.size(), part);
  };
  put(0, packets::header(0x2100));
  put(10, packets::text("\xC0\xA8\x01\x14\x36\x19\x01\x00", 8));
  put(18, packets::byte(index / 256 % 128) + packets::byte(index / 16 % 16));
  put(20, packets::high_first(0x2111));
  put(24, packets::low_first(0x7074));
  put(26, "Recorder");
  put(44, "Tolvek ArtNet Recorder");
  put(172, packets::text("\x00\x01\xC5", 3));
  put(186, packets::byte(index % 16));
  put(190, packets::byte(index % 16));
  put(201, packets::text("\xB8\x27\xEB\x12\x34\x56\xC0\xA8\x01\x14", 10));
  put(211, packets::byte(index + 1));
  return bytes;
}

/// The replies to 10.0.0.@p host for the port-addresses @p from to @p end - 1.
std::vector<Packet> replies(unsigned from, unsigned end, int host = 2) {
  std::vector<Packet> result;
  for (unsigned index = from; index < end; ++index)
    result.push_back({"10.0.0." + std::to_string(host), 6454, reply(index)});
  return result;
}

std::vector<Packet> operator+(std::vector<Packet> a, const std::vector<Packet>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class PollResponderTest : public testing::Test {
protected:
  /// An ArtPoll comes from 10.0.0.@p host.
  Asked ask(PollResponder& responder, int host = 2) {
    return responder.ask("10.0.0." + std::to_string(host), 6454, sender);
  }

  /// Replies that go out until nothing is due.
  std::vector<Packet> rest(PollResponder& responder, int limit = PollResponder::kAtOnce) {
    while (responder.send_due(limit, now, sender) == Wait::MoreDue) {
    }
    return sender.taken();
  }

  FakeSender sender;
  std::int64_t now = 1;
};

TEST_F(PollResponderTest, SendsOneReplyForEachUniverseInOrderToTheAddressAndPortThatAsked) {
  for (const std::int32_t count : {1, 3, 63, 64}) {
    PollResponder responder(identity(), count);
    EXPECT_EQ(responder.ask("10.0.0.7", 1025, sender), Asked::Taken);
    std::vector<Packet> expected;
    for (unsigned index = 0; index < static_cast<unsigned>(count); ++index)
      expected.push_back({"10.0.0.7", 1025, reply(index)});
    EXPECT_EQ(sender.taken(), expected);
    EXPECT_EQ(responder.waiting(), 0U);
    EXPECT_EQ(responder.send_due(64, now, sender), Wait::NothingDue);
    EXPECT_EQ(sender.taken(), std::vector<Packet>{});
  }
}

TEST_F(PollResponderTest, SendsAllOf32768Replies) {
  PollResponder responder(identity(), 32768);
  ask(responder);
  EXPECT_EQ(rest(responder), replies(0, 32768));
}

TEST_F(PollResponderTest, AnswersNobodyWhenNothingIsAnnounced) {
  for (const std::int32_t count : {0, -1, std::numeric_limits<std::int32_t>::min()}) {
    PollResponder responder(identity(), count);
    EXPECT_EQ(ask(responder), Asked::Taken);
    EXPECT_EQ(responder.waiting(), 0U);
    EXPECT_EQ(responder.send_due(64, now, sender), Wait::NothingDue);
    EXPECT_EQ(sender.taken(), std::vector<Packet>{});
  }
}

TEST_F(PollResponderTest, SendsTheFirst64AtOnceAndTheOthersInPortions) {
  PollResponder responder(identity(), 70);
  ask(responder);
  EXPECT_EQ(sender.taken(), replies(0, 64));
  EXPECT_EQ(responder.waiting(), 1U);
  EXPECT_EQ(responder.send_due(0, now, sender), Wait::MoreDue);
  EXPECT_EQ(sender.taken(), std::vector<Packet>{});
  EXPECT_EQ(responder.send_due(4, now, sender), Wait::MoreDue);
  EXPECT_EQ(sender.taken(), replies(64, 68));
  EXPECT_EQ(responder.send_due(4, now, sender), Wait::NothingDue);
  EXPECT_EQ(sender.taken(), replies(68, 70));
}

TEST_F(PollResponderTest, AnswersEachPollThatComesAfterAWholeAnswer) {
  PollResponder responder(identity(), 2);
  for (int poll = 0; poll < 3; ++poll) ask(responder);
  EXPECT_EQ(sender.taken(), replies(0, 2) + replies(0, 2) + replies(0, 2));
}

TEST_F(PollResponderTest, AnswersOnceMoreHoweverManyPollsComeDuringAnAnswer) {
  for (const int polls : {1, 2, 600}) {
    PollResponder responder(identity(), 100);
    ask(responder);
    for (int poll = 0; poll < polls; ++poll) EXPECT_EQ(ask(responder), Asked::Taken);
    EXPECT_EQ(sender.taken(), replies(0, 64)) << polls;
    EXPECT_EQ(rest(responder), replies(64, 100) + replies(0, 100)) << polls;
  }
}

TEST_F(PollResponderTest, AnswersOnceMoreForThePollsThatComeDuringTheSecondAnswer) {
  PollResponder responder(identity(), 100);
  ask(responder);
  ask(responder);
  responder.send_due(36, now, sender);
  responder.send_due(1, now, sender);
  EXPECT_EQ(sender.taken(), replies(0, 100) + replies(0, 1));
  ask(responder);
  ask(responder);
  EXPECT_EQ(rest(responder), replies(1, 100) + replies(0, 100));
}

TEST_F(PollResponderTest, AskersOfDifferentAddressesOrPortsAreDifferent) {
  PollResponder responder(identity(), 65);
  responder.ask("10.0.0.2", 6454, sender);
  responder.ask("10.0.0.2", 6455, sender);
  responder.ask("10.0.0.3", 6454, sender);
  EXPECT_EQ(responder.waiting(), 3U);
  responder.ask("10.0.0.2", 6455, sender);
  EXPECT_EQ(responder.waiting(), 3U);
}

TEST_F(PollResponderTest, AskersTakeTurns) {
  PollResponder responder(identity(), 70);
  ask(responder, 2);
  ask(responder, 3);
  EXPECT_EQ(sender.taken(), replies(0, 64, 2) + replies(0, 64, 3));
  EXPECT_EQ(rest(responder, 4),
            replies(64, 68, 2) + replies(64, 68, 3) + replies(68, 70, 2) + replies(68, 70, 3));
}

TEST_F(PollResponderTest, AnAskerThatAskedAgainTakesItsTurnAfterTheOthers) {
  PollResponder responder(identity(), 66);
  ask(responder, 2);
  ask(responder, 3);
  ask(responder, 2);
  sender.taken();
  EXPECT_EQ(rest(responder, 40), replies(64, 66, 2) + replies(64, 66, 3) + replies(0, 66, 2));
}

TEST_F(PollResponderTest, RepliesWithoutRoomWaitAndNoneIsLostOrSentTwice) {
  PollResponder responder(identity(), 5);
  sender.room = 2;
  ask(responder);
  EXPECT_EQ(sender.taken(), replies(0, 2));
  EXPECT_EQ(responder.send_due(4, now, sender), Wait::NoRoom);
  EXPECT_EQ(sender.taken(), std::vector<Packet>{});
  sender.room = 1;
  EXPECT_EQ(responder.send_due(4, now, sender), Wait::NoRoom);
  EXPECT_EQ(sender.taken(), replies(2, 3));
  sender.room = 2;
  EXPECT_EQ(responder.send_due(4, now, sender), Wait::NothingDue);
  EXPECT_EQ(sender.taken(), replies(3, 5));
}

TEST_F(PollResponderTest, AnAskerWithoutRoomKeepsItsTurn) {
  PollResponder responder(identity(), 70);
  ask(responder, 2);
  ask(responder, 3);
  sender.room = 2;
  responder.send_due(4, now, sender);
  sender.taken();
  sender.room = 100;
  EXPECT_EQ(rest(responder, 4), replies(66, 70, 2) + replies(64, 68, 3) + replies(68, 70, 3));
}

TEST_F(PollResponderTest, AnAskerThatHoldsTheRoomForHalfASecondGetsNoMore) {
  PollResponder responder(identity(), 100);
  ask(responder, 3);  // its next reply is 64
  sender.room = 20;
  ask(responder, 2);
  ask(responder, 2);
  EXPECT_EQ(sender.taken(), replies(0, 64, 3) + replies(0, 20, 2));
  EXPECT_EQ(responder.send_due(64, now, sender), Wait::NoRoom);
  EXPECT_EQ(responder.send_due(64, now + PollResponder::kUnreachable - 1, sender), Wait::NoRoom);
  EXPECT_EQ(responder.waiting(), 2U);
  EXPECT_EQ(responder.send_due(64, now + PollResponder::kUnreachable, sender), Wait::NoRoom);
  EXPECT_EQ(responder.waiting(), 1U);
  // The others are not forgotten, however long it takes.
  EXPECT_EQ(responder.send_due(64, now + 10 * PollResponder::kUnreachable, sender), Wait::NoRoom);
  sender.room = 100;
  EXPECT_EQ(rest(responder), replies(64, 100, 3));
}

TEST_F(PollResponderTest, TheLastAskerThatHoldsTheRoomLeavesNothingDue) {
  PollResponder responder(identity(), 100);
  sender.room = 20;
  ask(responder);
  EXPECT_EQ(responder.send_due(64, now, sender), Wait::NoRoom);
  EXPECT_EQ(responder.send_due(64, now + PollResponder::kUnreachable, sender), Wait::NothingDue);
}

TEST_F(PollResponderTest, AnAskerWhoseRepliesLeaveSlowlyGetsThemAll) {
  PollResponder responder(identity(), 8);
  sender.room = 1;
  ask(responder);
  EXPECT_EQ(responder.send_due(64, now, sender), Wait::NoRoom);
  for (unsigned sent = 1; sent < 7; ++sent) {
    now += PollResponder::kUnreachable - 1;
    EXPECT_EQ(responder.send_due(64, now, sender), Wait::NoRoom);
    sender.room = 1;
    EXPECT_EQ(responder.send_due(64, now, sender), Wait::NoRoom);
  }
  sender.room = 1;
  EXPECT_EQ(responder.send_due(64, now, sender), Wait::NothingDue);
  EXPECT_EQ(sender.taken(), replies(0, 8));
}

TEST_F(PollResponderTest, The257thAskerIsRefusedAndTheFirstRefusalSaidOnce) {
  PollResponder responder(identity(), 65);
  for (int host = 0; host < 256; ++host) EXPECT_EQ(ask(responder, host), Asked::Taken) << host;
  sender.taken();
  EXPECT_EQ(ask(responder, 256), Asked::FirstRefused);
  EXPECT_EQ(ask(responder, 256), Asked::Refused);
  EXPECT_EQ(ask(responder, 257), Asked::Refused);
  EXPECT_EQ(ask(responder, 255), Asked::Taken);
  EXPECT_EQ(sender.taken(), std::vector<Packet>{});
  EXPECT_EQ(responder.waiting(), 256U);
}

TEST_F(PollResponderTest, ARefusalIsSaidAgainOnlyAfterNobodyWaited) {
  PollResponder responder(identity(), 65);
  for (int host = 0; host < 256; ++host) ask(responder, host);
  EXPECT_EQ(ask(responder, 256), Asked::FirstRefused);
  EXPECT_EQ(responder.send_due(64, now, sender), Wait::MoreDue);
  EXPECT_EQ(ask(responder, 256), Asked::Taken);
  EXPECT_EQ(ask(responder, 257), Asked::Refused);
  rest(responder);
  for (int host = 0; host < 256; ++host) ask(responder, host);
  EXPECT_EQ(ask(responder, 256), Asked::FirstRefused);
}

}  // namespace
