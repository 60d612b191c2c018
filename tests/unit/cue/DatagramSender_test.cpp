#include "cue/DatagramSender.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "cue/CueError.h"
#include "unit/cue/receiver.h"
#include "unit/cue/recordings.h"
#include "unit/cue/refused_call.h"
#include "unit/support/emulator.h"

using packets::dmx;
using unit::Receiver;

namespace {

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

/// A port of 127.0.0.N at which nobody listens.
int unused_port(const char* address) {
  return Receiver(address).port;
}

kesto::Clock::time_point soon() {
  return kesto::Clock::now() + std::chrono::seconds(10);
}

TEST(UdpSender, CountsWhatIsRefusedAndSendsOn) {
  const int port = unused_port("127.0.0.3");
  cue::UdpSender sender({"127.0.0.3", port}, std::nullopt);
  for (std::uint64_t sent = 1; sent <= 3; ++sent) {
    EXPECT_EQ(send(sender, dmx("abc")), 0);
    sender.settle(soon());
    EXPECT_EQ(sender.failures().count, sent);
  }
  EXPECT_EQ(sender.failures().first_error, ECONNREFUSED);
  EXPECT_EQ(send(sender, dmx("lost")), 0);
  Receiver late("127.0.0.3", port);
  EXPECT_EQ(send(sender, dmx("here")), 0);
  EXPECT_EQ(late.receive(), dmx("here"));
}

TEST(UdpSender, SettlesAtTheDeadlineWhenNothingIsSaid) {
  const Receiver receiver("127.0.0.3");
  cue::UdpSender sender({"127.0.0.3", receiver.port}, std::nullopt);
  EXPECT_EQ(send(sender, dmx("abc")), 0);
  const auto deadline = kesto::Clock::now() + std::chrono::milliseconds(2);
  sender.settle(deadline);
  EXPECT_EQ(sender.failures().count, 0U);
}

TEST(UdpSender, FailsWithoutARouteAndLooksForItAgain) {
  // No host sends from a loopback address to others.
  cue::UdpSender sender({"192.0.2.1", 6454}, cue::Destination{"127.0.0.1", 0});
  const int error = send(sender, dmx("abc"));
  EXPECT_NE(error, 0);
  EXPECT_EQ(send(sender, dmx("abc")), error);
  EXPECT_EQ(sender.failures().count, 2U);
  EXPECT_EQ(sender.failures().first_error, error);
}

TEST(UdpSender, DoesNotWaitAgainForALinkThatIsStuck) {
  NOT_UNDER_AN_EMULATOR("seccomp filters");
  Receiver receiver("127.0.0.3");
  cue::UdpSender sender({"127.0.0.3", receiver.port}, std::nullopt);
  constexpr int kNotWaited = EMSGSIZE;
  const std::vector<unit::RefusedCall> stuck{{SYS_sendto, kNotWaited, 3, MSG_DONTWAIT},
                                             {SYS_sendto, EAGAIN, 0, 0}};
  const auto send_twice = [&] {
    EXPECT_EQ(send(sender, dmx("waits")), EAGAIN);
    EXPECT_EQ(send(sender, dmx("does not")), kNotWaited);
  };
  unit::with_refused(stuck, send_twice);
  EXPECT_EQ(send(sender, dmx("taken")), 0);
  EXPECT_EQ(receiver.receive(), dmx("taken"));
  unit::with_refused(stuck, send_twice);
  EXPECT_EQ(sender.failures().count, 4U);
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
  EXPECT_EQ(sender.failures().count, 1U);
  EXPECT_EQ(sender.failures().first_error, EMSGSIZE);
}

TEST(RelaySender, FailsAtOnceWhereNoServiceListens) {
  cue::RelaySender sender(unused_port("127.0.0.1"), {"10.77.255.255", 6454}, 0x1234);
  EXPECT_EQ(send(sender, dmx("abc")), ECONNREFUSED);
  EXPECT_EQ(sender.failures().count, 1U);
  EXPECT_EQ(sender.failures().first_error, ECONNREFUSED);
}

TEST(RelaySender, RefusesWhatTheServiceWouldNotSend) {
  EXPECT_THROW(cue::RelaySender(6454, {"127.0.0.1", 6454}, 0), cue::CueError);
  EXPECT_THROW(cue::RelaySender(6454, {"10.0.0.1", 1023}, 0), cue::CueError);
}

}  // namespace
