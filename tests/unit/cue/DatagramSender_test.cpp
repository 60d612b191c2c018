#include "cue/DatagramSender.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "cue/CueError.h"
#include "unit/cue/receiver.h"
#include "unit/cue/recordings.h"

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

}  // namespace
