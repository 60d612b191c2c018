#include "tools/ServiceProcess.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "tests/unit/support/temporary_file.h"

using namespace kadrel_cue;

namespace {

const char* const kTable =
    "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref "
    "pointer drops            \n"
    "  100: 0100007F:1936 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 41 2 0 3\n"
    "  101: 00000000:1936 00000000:0000 07 00000000:00000500 00:00000000 00000000     0        0 42 2 0 17\n"
    "  102: 00000000:1937 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 43 2 0 0\n";

TEST(UdpTable, HasTheSocketsAtAPort) {
  const auto sockets = parse_udp_table(kTable, 6454);
  ASSERT_EQ(sockets.size(), 2U);
  EXPECT_FALSE(sockets[0].any_address);
  EXPECT_TRUE(sockets[1].any_address);
  EXPECT_FALSE(sockets[1].ipv6);
  EXPECT_EQ(sockets[1].inode, 42U);
  EXPECT_EQ(sockets[1].waiting, 0x500U);
  EXPECT_EQ(sockets[1].drops, 17U);
  EXPECT_EQ(sockets[1].port, 6454);
}

TEST(UdpTable, KnowsSocketsOverIPv6) {
  const std::string any(32, '0');
  const auto sockets =
      parse_udp_table("1: " + any + ":1936 " + any + ":0000 07 0:0 00:0 0 0 0 42 2 0 0\n", 6454);
  ASSERT_EQ(sockets.size(), 1U);
  EXPECT_TRUE(sockets[0].ipv6);
  EXPECT_TRUE(sockets[0].any_address);
}

TEST(UdpTable, PassesOverWhatIsNoLineOfIt) {
  for (const char* const line :
       {"", "1: 00000000:1936\n", "1: 00000000 0:0 07 0:0 0 0 0 0 42 2 0 0\n",
        "1: 00000000:19x6 0:0 07 0:0 0 0 0 0 42 2 0 0\n", "1: 00000000:1936 0:0 07 00 0 0 0 0 42 2 0 0\n",
        "1: 00000000:1936 0:0 07 0:0 0 0 0 0 x 2 0 0\n", "1: 00000000:1936 0:0 07 0:0 0 0 0 0 42 2 0 -1\n"})
    EXPECT_TRUE(parse_udp_table(line, 6454).empty()) << line;
}

/// A socket of this process at 127.0.0.1 or at all addresses.
class BoundSocket {
public:
  explicit BoundSocket(in_addr_t address) : descriptor(socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(address);
    socklen_t size = sizeof name;
    if (bind(descriptor, reinterpret_cast<sockaddr*>(&name), size) == 0)
      getsockname(descriptor, reinterpret_cast<sockaddr*>(&name), &size);
    port = ntohs(name.sin_port);
  }
  ~BoundSocket() { close(descriptor); }
  BoundSocket(const BoundSocket&) = delete;
  BoundSocket& operator=(const BoundSocket&) = delete;
  BoundSocket(BoundSocket&&) = delete;
  BoundSocket& operator=(BoundSocket&&) = delete;

  int descriptor;
  int port = 0;
};

TEST(UdpSockets, AreFoundWithTheirReceiveBufferAndOwner) {
  const BoundSocket bound(INADDR_ANY);
  int size = 0;
  socklen_t length = sizeof size;
  ASSERT_EQ(getsockopt(bound.descriptor, SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
  const auto found = find_udp_socket(bound.port);
  ASSERT_TRUE(found);
  EXPECT_TRUE(found->any_address);
  EXPECT_EQ(found->buffer_limit.value_or(static_cast<std::uint64_t>(size)), static_cast<std::uint64_t>(size))
      << "where the kernel tells";
  const auto owner = owner_of_socket(found->inode);
  ASSERT_TRUE(owner);
  EXPECT_EQ(owner->pid, getpid());
}

TEST(UdpSockets, AtOneAddressAreNotTheServices) {
  const BoundSocket bound(INADDR_LOOPBACK);
  EXPECT_FALSE(find_udp_socket(bound.port));
  EXPECT_EQ(udp_sockets(bound.port).size(), 1U);
}

TEST(UdpSockets, OwnersCannotWriteToTheTerminalByTheirNames) {
  char before[16] = {};
  prctl(PR_GET_NAME, before);
  prctl(PR_SET_NAME, "\x1b[2Jolad\n\x9b");
  const BoundSocket bound(INADDR_ANY);
  const auto found = find_udp_socket(bound.port);
  const auto owner = owner_of_socket(found ? found->inode : 0);
  prctl(PR_SET_NAME, before);
  ASSERT_TRUE(owner);
  EXPECT_EQ(owner->name, "?[2Jolad??");
}

TEST(UdpSockets, ThatNobodyHasHaveNoOwner) {
  EXPECT_FALSE(owner_of_socket(0xFFFFFFFFFFU));
}

std::string environment(const std::string& one, const std::string& other = "X=1") {
  return one + '\0' + other + '\0';
}

TEST(ServiceProcess, AnnouncesWhatItsEnvironmentSays) {
  EXPECT_EQ(announced_in(""), 1);
  EXPECT_EQ(announced_in(environment("KADREL_UNIVERSE_COUNT=64")), 64);
  EXPECT_EQ(announced_in(environment("X=2", "KADREL_UNIVERSE_COUNT=32768")), 32768);
  EXPECT_EQ(announced_in(environment("KADREL_UNIVERSE_COUNT=2", "KADREL_UNIVERSE_COUNT=3")), 2);
  EXPECT_EQ(announced_in("KADREL_UNIVERSE_COUNT=5"), 5) << "the last 0 may be missing";
  for (const char* const wrong : {"=0", "=32769", "=-1", "=", "=4x", "=99999999999", "S=4", ""})
    EXPECT_EQ(announced_in(environment(std::string("KADREL_UNIVERSE_COUNT") + wrong)), 1) << wrong;
}

TEST(ServiceProcess, LogsWhereItsEnvironmentSays) {
  EXPECT_EQ(log_output_in(""), LogOutput::System);
  EXPECT_EQ(log_output_in(environment("KADREL_LOG_OUTPUT=console")), LogOutput::Console);
  EXPECT_EQ(log_output_in(environment("KADREL_LOG_OUTPUT=none")), LogOutput::None);
  EXPECT_EQ(log_output_in(environment("KADREL_LOG_OUTPUT=elsewhere")), LogOutput::System);
}

TEST(ServiceProcess, HasTheVersionInItsProgram) {
  const std::string what = "@(#)kadrel 1.5.2";
  EXPECT_EQ(version_in(unit::TemporaryFile(what).path()), "1.5.2");
  EXPECT_EQ(version_in(unit::TemporaryFile("x" + what + '\0' + "@(#)kadrel 9").path()), "1.5.2");
  EXPECT_EQ(version_in(unit::TemporaryFile(what + "\x1b[2J\n").path()), "1.5.2?[2J");
  EXPECT_EQ(version_in(unit::TemporaryFile(what + std::string(1000, '1')).path()).size(), 64U);
  EXPECT_EQ(version_in(unit::TemporaryFile("@(#)kadrel-cue 1").path()), "");
  EXPECT_EQ(version_in(unit::TemporaryFile("").path()), "");
  EXPECT_EQ(version_in("/nowhere"), "");
  EXPECT_EQ(version_in("/"), "");
}

TEST(ServiceProcess, FindsTheVersionAcrossTwoPieces) {
  for (std::size_t before = 65536 - 20; before <= 65536 + 2; ++before) {
    const std::string text = std::string(before, 'x') + "@(#)kadrel 1.5.2" + std::string(70000, '\0');
    EXPECT_EQ(version_in(unit::TemporaryFile(text).path()), "1.5.2") << before;
  }
}

TEST(ServiceProcess, OfAnotherProgramTellsNothing) {
  const ServiceProcess self = look_at_service(getpid());
  EXPECT_EQ(self.pid, getpid());
  EXPECT_EQ(self.port, 0);
  EXPECT_FALSE(self.replaced);
  EXPECT_TRUE(self.announced);
  const ServiceProcess nobody = look_at_service(INT_MAX);
  EXPECT_FALSE(nobody.announced);
  EXPECT_FALSE(nobody.log);
  EXPECT_EQ(nobody.version, "");
  EXPECT_FALSE(nobody.replaced);
}

}  // namespace
