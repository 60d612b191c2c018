#include "cue/live/LiveCapture.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "unit/cue/captures.h"
#include "unit/cue/errors.h"
#include "unit/support/private_network.h"

using unit::error_of;
using unit::shell;

namespace {

class LiveCapture : public testing::Test {
protected:
  void SetUp() override {
    if (getenv("KADREL_TEST_EMULATOR") != nullptr)
      GTEST_SKIP() << "the emulator has no packet sockets with a ring in shared memory";
    ASSERT_TRUE(unit::enter_private_network());
  }

  /// Sends from a port of its own.
  static void send(const std::string& payload, const char* receiver, int port, int from = 0) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(from));
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, receiver, &address.sin_addr);
    EXPECT_EQ(sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                     sizeof address),
              static_cast<ssize_t>(payload.size()));
    close(fd);
  }

  struct Seen {
    std::string payload;
    cue::UdpDatagram datagram;  // without its payload
    std::int64_t time = 0;
  };

  /// Reads until a datagram with this payload has come.
  static std::vector<Seen> read_until(cue::LiveCapture& capture, const std::string& last) {
    std::vector<Seen> seen;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd waiting{capture.descriptor(), POLLIN, 0};
      poll(&waiting, 1, 100);
      capture.read([&seen](const cue::UdpDatagram& datagram, std::int64_t time) {
        seen.push_back(
            {{reinterpret_cast<const char*>(datagram.payload.data), datagram.payload.size}, datagram, time});
      });
      if (!seen.empty() && seen.back().payload == last) return seen;
    }
    ADD_FAILURE() << "did not come: " << last;
    return seen;
  }

  static std::string payloads(const std::vector<Seen>& seen) {
    std::string text;
    for (const Seen& one : seen) text += one.payload.substr(0, 20) + "\n";
    return text;
  }
};

TEST_F(LiveCapture, SeesWhatGoesToAndFromThePortsOfLighting) {
  cue::LiveCapture capture("lo");
  send("to Art-Net", "127.0.0.1", 6454);
  send("to E1.31", "127.0.0.1", 5568);
  send("to another", "127.0.0.1", 6455);
  send("from Art-Net", "127.0.0.1", 6455, 6454);
  send("last", "127.255.255.255", 6454);
  const std::vector<Seen> seen = read_until(capture, "last");
  EXPECT_EQ(payloads(seen), "to Art-Net\nto E1.31\nfrom Art-Net\nlast\n");
  EXPECT_EQ(seen[0].datagram.sender, 0x7F000001U);
  EXPECT_EQ(seen[1].datagram.port, 5568);
  EXPECT_EQ(seen[3].datagram.receiver, 0x7FFFFFFFU);
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  EXPECT_NEAR(static_cast<double>(seen[0].time) / 1e9, std::chrono::duration<double>(now).count(), 120);
  EXPECT_EQ(capture.lost(), 0U);
}

TEST_F(LiveCapture, ComesBackWhenMoreArrivesThanIsTaken) {
  cue::LiveCapture capture("lo");
  constexpr int kEnough = 50'000;
  const std::string payload(1400, 'x');
  for (int count = 0; count < 1000; ++count) send(payload, "127.0.0.1", 6454);
  pollfd waiting{capture.descriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&waiting, 1, 60'000), 1);
  int taken = 0;
  capture.read([&](const cue::UdpDatagram&, std::int64_t) {
    if (++taken > kEnough) return;
    send(payload, "127.0.0.1", 6454);
    send(payload, "127.0.0.1", 6454);
  });
  EXPECT_GT(taken, 0);
  EXPECT_LT(taken, kEnough);
}

TEST_F(LiveCapture, PutsFragmentsTogether) {
  ASSERT_TRUE(shell("ip link set lo mtu 1500"));
  cue::LiveCapture capture("lo");
  send(std::string(8000, 'y'), "127.0.0.1", 80);
  send(std::string(8000, 'x'), "127.0.0.1", 6454);
  send("last", "127.0.0.1", 6454);
  const std::vector<Seen> seen = read_until(capture, "last");
  ASSERT_EQ(seen.size(), 2U);
  EXPECT_EQ(seen[0].payload, std::string(8000, 'x'));
}

TEST_F(LiveCapture, SeesADatagramThatPassesSeveralInterfacesOnce) {
  ASSERT_TRUE(
      shell("ip link add near type veth peer name far && ip link add bridge type bridge && "
            "ip link set near master bridge && ip link set near up && ip link set far up && "
            "ip addr add 10.0.0.1/24 dev bridge && ip link set bridge up"));
  cue::LiveCapture capture("any");
  send("look", "10.0.0.255", 6454);
  send("to one", "127.0.0.1", 6454);
  send("last", "10.0.0.255", 6454);
  EXPECT_EQ(payloads(read_until(capture, "last")), "look\nto one\nlast\n");
}

/// Sends a frame as it is.
void send_frame(const char* interface, const std::string& frame) {
  const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
  EXPECT_EQ(
      sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address),
      static_cast<ssize_t>(frame.size()));
  close(fd);
}

TEST_F(LiveCapture, SeesFramesToOthersAndWithVlanTags) {
  ASSERT_TRUE(shell("ip link add near type veth peer name far && ip link set near up && ip link set far up"));
  cue::LiveCapture near("near");
  cue::LiveCapture far("far");
  const std::string tag = packets::text("\x81\0\0\5", 4);
  send_frame("far", captures::ethernet(captures::ip("to another")));
  send_frame("far", captures::ethernet(captures::ip("with a tag", 5568), tag));
  send_frame("far",
             captures::ethernet(captures::ip("with two tags"), packets::text("\x88\xA8\0\7", 4) + tag));
  send_frame("far", captures::ethernet(captures::ip("of another port", 80), tag));
  send_frame("far", "\xFF" + captures::ethernet(captures::ip("last")).substr(1));
  const std::string all = "to another\nwith a tag\nwith two tags\nlast\n";
  const std::vector<Seen> seen = read_until(near, "last");
  EXPECT_EQ(payloads(seen), all);
  EXPECT_FALSE(seen.front().datagram.to_many);
  EXPECT_TRUE(seen.back().datagram.to_many);
  // Where they leave, the tags are still in the frames.
  EXPECT_EQ(payloads(read_until(far, "last")), all);
}

TEST_F(LiveCapture, CountsWhatItDoesNotTakeInTime) {
  cue::LiveCapture capture("lo");
  const std::string large(60'000, 'x');
  for (int i = 0; i < 1000 && capture.lost() == 0; ++i) send(large, "127.0.0.1", 6454);
  const std::uint64_t lost = capture.lost();
  EXPECT_GT(lost, 0U);
  EXPECT_GE(capture.lost(), lost);
  std::uint64_t taken = 0;
  capture.read([&taken](const cue::UdpDatagram& /*datagram*/, std::int64_t /*time*/) { ++taken; });
  EXPECT_GT(taken, 100U);
}

TEST_F(LiveCapture, HandsOnWhatItsReaderThrows) {
  cue::LiveCapture capture("lo");
  send("look", "127.0.0.1", 6454);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  bool thrown = false;
  while (!thrown && std::chrono::steady_clock::now() < deadline) {
    pollfd waiting{capture.descriptor(), POLLIN, 0};
    poll(&waiting, 1, 100);
    try {
      capture.read([](const cue::UdpDatagram& /*datagram*/, std::int64_t /*time*/) {
        throw std::runtime_error("enough");
      });
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "enough");
      thrown = true;
    }
  }
  EXPECT_TRUE(thrown);
  send("last", "127.0.0.1", 6454);
  EXPECT_EQ(payloads(read_until(capture, "last")), "last\n");
}

/// What read() says when no more datagrams come.
std::string end_of(cue::LiveCapture& capture) {
  return error_of([&capture] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline)
      capture.read([](const cue::UdpDatagram& /*datagram*/, std::int64_t /*time*/) {});
  });
}

TEST_F(LiveCapture, SaysWhenTheInterfaceGoesDown) {
  cue::LiveCapture capture("lo");
  ASSERT_TRUE(shell("ip link set lo down"));
  EXPECT_EQ(end_of(capture), "lo: the interface is down");
}

TEST_F(LiveCapture, SaysWhenTheInterfaceGoesAway) {
  ASSERT_TRUE(shell("ip link add near type veth peer name far && ip link set near up && ip link set far up"));
  cue::LiveCapture capture("near");
  ASSERT_TRUE(shell("ip link del near"));
  EXPECT_EQ(end_of(capture), "near: there is no such interface");
}

TEST_F(LiveCapture, TakesOnlyInterfacesThatAreUp) {
  ASSERT_TRUE(shell("ip link add near type veth peer name far && ip link set near up"));
  EXPECT_EQ(cue::capture_interfaces(), (std::vector<std::string>{"lo", "near"}));
  const auto refusal = [](const std::string& interface) {
    return error_of([&interface] { const cue::LiveCapture capture(interface); });
  };
  EXPECT_EQ(refusal("far"), "far: the interface is down");
  EXPECT_EQ(refusal("none"), "none: there is no such interface");
  EXPECT_EQ(refusal(""), ": there is no such interface");
  EXPECT_EQ(refusal("\x1B[2J"), "[2J: there is no such interface");
  EXPECT_EQ(refusal("nameofaninterfacethatistoolong"),
            "nameofaninterfacethatistoolong: there is no such interface");
}

/// Leaves this process these capabilities alone. @param bits  of the first 32
void keep_capabilities(std::uint32_t bits) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct data[2] = {{bits, bits, 0}, {}};
  ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
}

TEST_F(LiveCapture, NamesTheWaysToTheRightToCapture) {
  keep_capabilities(0);
  std::string text;
  for (const char* const interface : {"lo", "any"}) try {
      const cue::LiveCapture capture(interface);
      ADD_FAILURE() << interface;
    } catch (const cue::NoCaptureRight& error) {
      text = error.what();
    }
  EXPECT_EQ(text.substr(0, 5), "any: ");
  // setcap takes away what it does not name: playbacks want one, too.
  EXPECT_NE(text.find("sudo setcap cap_net_raw,cap_sys_nice+ep /"), std::string::npos);
  EXPECT_NE(text.find("sudo chgrp"), std::string::npos);
  EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST_F(LiveCapture, NeedsNoOtherRightThanTheOneItNames) {
  ASSERT_TRUE(shell("ip link add near type veth peer name far && ip link set near up && ip link set far up"));
  keep_capabilities(1U << CAP_NET_RAW);
  cue::LiveCapture capture("near");
  const cue::LiveCapture everywhere("any");
  send_frame("far", captures::ethernet(captures::ip("to another")));
  EXPECT_EQ(payloads(read_until(capture, "to another")), "to another\n");
}

}  // namespace
