#include "cue/SacnSender.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "unit/cue/errors.h"
#include "unit/cue/receiver.h"
#include "unit/cue/recordings.h"
#include "unit/cue/sacn.h"
#include "unit/support/emulator.h"

using packets::dmx;
using unit::Receiver;

namespace {

int send(cue::DatagramSink& sink, const std::string& datagram) {
  return sink.send(recordings::bytes_of(datagram), datagram.size());
}

/// A sender to a receiver, with a clock that only the test turns.
class SacnSenderTest : public testing::Test {
protected:
  SacnSenderTest() {
    options.source.cid.fill('C');
    options.source.name = "desk";
    options.source.priority = 120;
    options.targets = {{{"127.0.0.3", receiver.port}, std::nullopt}};
  }

  cue::SacnSender sender() {
    return cue::SacnSender(options, [this] { return time; });
  }

  static std::string packet(const std::string& levels, unsigned universe, unsigned sequence,
                            unsigned flags = 0) {
    sacn::Data data;
    data.levels = levels;
    data.universe = universe;
    data.sequence = sequence;
    data.priority = 120;
    data.options = flags;
    return sacn::data(data);
  }

  static constexpr unsigned kTerminated = 0x40;

  Receiver receiver{"127.0.0.3"};
  cue::SacnOptions options;
  kesto::Clock::time_point time;
};

TEST_F(SacnSenderTest, SendsEveryArtDmxAsAPacketWithNumbersOfItsUniverse) {
  cue::SacnSender sink = sender();
  EXPECT_EQ(send(sink, dmx("a", 0) + "between" + dmx("bc", 299)), 0);
  EXPECT_EQ(send(sink, dmx("d", 0)), 0);
  EXPECT_EQ(receiver.receive(), packet("a", 1, 0));
  EXPECT_EQ(receiver.receive(), packet("bc", 300, 0));
  EXPECT_EQ(receiver.receive(), packet("d", 1, 1));
  EXPECT_EQ(sink.sent(), 3U);
}

TEST_F(SacnSenderTest, EndsEveryStreamWithThreePackets) {
  cue::SacnSender sink = sender();
  send(sink, dmx("a", 0));
  send(sink, dmx("b", 1));
  receiver.receive();
  receiver.receive();
  sink.finish();
  for (unsigned number = 1; number <= 3; ++number) {
    EXPECT_EQ(receiver.receive(), packet("a", 1, number, kTerminated));
    EXPECT_EQ(receiver.receive(), packet("b", 2, number, kTerminated));
  }
}

TEST_F(SacnSenderTest, RepeatsAUniverseThatTheShowLeavesAlone) {
  cue::SacnSender sink = sender();
  send(sink, dmx("a", 0));
  time += std::chrono::milliseconds(600);
  send(sink, dmx("b", 1));
  time += std::chrono::milliseconds(299);
  sink.idle();
  time += std::chrono::milliseconds(1);
  sink.idle();
  time += std::chrono::milliseconds(600);
  send(sink, dmx("c", 2));
  EXPECT_EQ(receiver.receive(), packet("a", 1, 0));
  EXPECT_EQ(receiver.receive(), packet("b", 2, 0));
  EXPECT_EQ(receiver.receive(), packet("a", 1, 1));
  EXPECT_EQ(receiver.receive(), packet("c", 3, 0));
  EXPECT_EQ(receiver.receive(), packet("b", 2, 1));
}

TEST_F(SacnSenderTest, SendsAUniverseToThoseThatNameIt) {
  Receiver other("127.0.0.4");
  cue::UniverseSet second;
  second.insert(1);
  options.targets.push_back({{"127.0.0.4", other.port}, second});
  cue::SacnSender sink = sender();
  send(sink, dmx("a", 0) + dmx("b", 1));
  EXPECT_EQ(receiver.receive(), packet("a", 1, 0));
  EXPECT_EQ(other.receive(), packet("b", 2, 0));
}

TEST_F(SacnSenderTest, LeavesOutWhatThisProtocolCannotCarry) {
  cue::SacnSender sink = sender();
  EXPECT_EQ(send(sink, dmx("", 0)), 0);
  EXPECT_EQ(send(sink, packets::poll()), 0);
  EXPECT_EQ(send(sink, dmx("a", 63999)), EADDRNOTAVAIL);
  EXPECT_EQ(send(sink, dmx("a", 63998)), 0);
  EXPECT_EQ(receiver.receive(), packet("a", 63999, 0));
  const auto deliveries = sink.deliveries();
  ASSERT_EQ(deliveries.size(), 2U);
  EXPECT_EQ(deliveries[0].failures.count, 0U);
  EXPECT_EQ(deliveries[1].target, "universes above 63999");
  EXPECT_EQ(deliveries[1].failures.count, 1U);
}

/// Lets a socket receive what is sent to a group over the loopback interface.
void join(const char* group, int fd) {
  ip_mreq membership{};
  inet_pton(AF_INET, group, &membership.imr_multiaddr);
  inet_pton(AF_INET, "127.0.0.1", &membership.imr_interface);
  ASSERT_EQ(setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership), 0);
}

TEST_F(SacnSenderTest, SendsToTheGroupOfTheUniverseFromTheInterfaceThatIsAskedFor) {
  NOT_UNDER_AN_EMULATOR("IP_MULTICAST_IF");
  Receiver group("239.255.18.52", cue::kSacnPort);
  join("239.255.18.52", group.descriptor());
  options.targets.clear();
  options.from = cue::Destination{"127.0.0.1", 0};
  cue::SacnSender sink = sender();
  EXPECT_EQ(send(sink, dmx("a", 0x1233)), 0);
  EXPECT_EQ(group.receive(), packet("a", 0x1234, 0));
  EXPECT_EQ(group.sender, "127.0.0.1");
  EXPECT_EQ(sink.sent(), 1U);
  ASSERT_EQ(sink.deliveries().size(), 1U);
  EXPECT_EQ(sink.deliveries()[0].target, "multicast");
  EXPECT_EQ(sink.deliveries()[0].failures.count, 0U);
}

TEST_F(SacnSenderTest, NamesAnAddressThatItCannotSendFrom) {
  NOT_UNDER_AN_EMULATOR("IP_MULTICAST_IF");
  options.targets.clear();
  options.from = cue::Destination{"192.0.2.1", 0};
  EXPECT_EQ(unit::error_of([&] { sender(); }), "192.0.2.1:0: Cannot assign requested address");
}

TEST(Cid, IsAUuidOfItsHostAlone) {
  const cue::SacnCid one = cue::cid_of("a host");
  EXPECT_EQ(one, cue::cid_of("a host"));
  EXPECT_NE(one, cue::cid_of("another host"));
  EXPECT_EQ(one[6] >> 4, 5);
  EXPECT_EQ(one[8] >> 6, 2);
  EXPECT_EQ(cue::cid_of_this_host(), cue::cid_of_this_host());
}

}  // namespace
