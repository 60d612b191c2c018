#include "kesto/udpsocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "kesto/delay.h"
#include "unit/support/child.h"
#include "unit/support/emulator.h"
#include "unit/support/private_network.h"

using kesto::net::Datagram;
using kesto::net::HostAddress;
using kesto::net::UdpSocket;

namespace {

/// The system as the socket sees it: its calls, and the failures that a test wants.
struct System {
  std::vector<std::string> calls;
  std::map<std::string, std::deque<int>> errors;   // per function, the errno of its next calls; 0: go through
  std::optional<int> select_result;                // what select() returns without waiting
  std::optional<std::pair<int, int>> send_buffer;  // bytes in use and size that the system reports
  std::atomic<bool> selecting{false};
  int socket = -1;                                       // the last one
  std::function<void(msghdr&)> on_receive;               // changes what came with each datagram
  std::size_t control_room = 0;                          // for the control messages of a datagram
  std::function<std::int64_t()> steady_time, wall_time;  // instead of the clocks, ns
};

System& system_calls() {
  static System system;
  return system;
}

/// Notes a call. @return true when it is to fail; errno is set.
bool fails(const std::string& function, const std::string& arguments = "") {
  system_calls().calls.push_back(arguments.empty() ? function : function + ' ' + arguments);
  const auto planned = system_calls().errors.find(function);
  if (planned == system_calls().errors.end() || planned->second.empty()) return false;
  const int error = planned->second.front();
  planned->second.pop_front();
  if (error != 0) errno = error;
  return error != 0;
}

}  // namespace

// The linker sends the calls of the library under test here. The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);
int __real_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...);
int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t length);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length);
int __real_getsockopt(int fd, int level, int name, void* value, socklen_t* length);
int __wrap_getsockopt(int fd, int level, int name, void* value, socklen_t* length);
int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
int __real_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout);
int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout);
ssize_t __real_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                      socklen_t length);
ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                      socklen_t length);
kesto::Clock::time_point __real__ZN5kesto5Clock3nowEv();
kesto::Clock::time_point __wrap__ZN5kesto5Clock3nowEv();
int __real_clock_gettime(clockid_t clock, timespec* time);
int __wrap_clock_gettime(clockid_t clock, timespec* time);
int __real_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout);
int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout);

int __wrap_socket(int domain, int type, int protocol) {
  if (fails("socket", std::to_string(domain) + ' ' + std::to_string(type) + ' ' + std::to_string(protocol)))
    return -1;
  return system_calls().socket = __real_socket(domain, type, protocol);
}

int __wrap_fcntl64(int fd, int command, ...) {
  va_list args;
  va_start(args, command);
  int result = -1;
  if (command == F_GETFL) {
    if (!fails("fcntl_get")) result = __real_fcntl64(fd, command);
  } else {
    const int flags = va_arg(args, int);
    if (!fails("fcntl_set", std::to_string(flags))) result = __real_fcntl64(fd, command, flags);
  }
  va_end(args);
  return result;
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
  const std::string text = std::to_string(level) + ' ' + std::to_string(name) + ' ' +
                           std::to_string(*static_cast<const int*>(value)) + ' ' + std::to_string(length);
  if (fails("setsockopt", text)) return -1;
  const int result = __real_setsockopt(fd, level, name, value, length);
  // What the tests let come with a datagram is believed only where the kernel was asked for it.
  return unit::is_emulated() && (name == SO_TIMESTAMPNS || name == SO_RXQ_OVFL) ? 0 : result;
}

int __wrap_getsockopt(int fd, int level, int name, void* value, socklen_t* length) {
  if (fails("getsockopt", std::to_string(level) + ' ' + std::to_string(name))) return -1;
  if (!system_calls().send_buffer) return __real_getsockopt(fd, level, name, value, length);
  *static_cast<int*>(value) = system_calls().send_buffer->second;
  return 0;
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
  va_list args;
  va_start(args, request);
  int* const value = va_arg(args, int*);
  va_end(args);
  if (fails("ioctl", std::to_string(request))) return -1;
  if (!system_calls().send_buffer) return __real_ioctl(fd, request, value);
  *value = system_calls().send_buffer->first;
  return 0;
}

int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout) {
  if (fails("recvmmsg", flags == MSG_DONTWAIT && timeout == nullptr ? "" : "waiting")) return -1;
  system_calls().control_room = messages[0].msg_hdr.msg_controllen;
  const int received = __real_recvmmsg(fd, messages, count, flags, timeout);
  for (int i = 0; i < received && system_calls().on_receive; ++i)
    system_calls().on_receive(messages[i].msg_hdr);
  return received;
}

ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                      socklen_t length) {
  if (fails("sendto", std::to_string(size) + ' ' + std::to_string(flags))) return -1;
  return __real_sendto(fd, data, size, flags, address, length);
}

kesto::Clock::time_point __wrap__ZN5kesto5Clock3nowEv() {
  if (!system_calls().steady_time) return __real__ZN5kesto5Clock3nowEv();
  return kesto::Clock::time_point(kesto::Clock::duration(system_calls().steady_time()));
}

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  if (clock != CLOCK_REALTIME || !system_calls().wall_time) return __real_clock_gettime(clock, time);
  const std::int64_t wall = system_calls().wall_time();
  time->tv_sec = static_cast<time_t>(wall / 1'000'000'000);
  time->tv_nsec = static_cast<long>(wall % 1'000'000'000);
  return 0;
}

int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
  const std::string sets = std::string(read != nullptr ? "read " : "") + (write != nullptr ? "write " : "") +
                           (except != nullptr ? "except " : "");
  const std::string time =
      timeout == nullptr ? "no time-out"
                         : std::to_string(timeout->tv_sec) + " s " + std::to_string(timeout->tv_usec) + " us";
  if (fails("select", sets + time)) return -1;
  if (system_calls().select_result) return *system_calls().select_result;
  system_calls().selecting = true;
  return __real_select(count, read, write, except, timeout);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

int allocations_left = -1;  // that succeed, of those that return null on failure; -1: all

bool memory_is_short() {
  if (allocations_left < 0) return false;
  return allocations_left-- == 0;
}

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return memory_is_short() ? nullptr : ::operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return memory_is_short() ? nullptr : ::operator new[](size);
}

namespace {

using Calls = std::vector<std::string>;

bool network_is_private = false;

/// The tests bind wildcard addresses and send broadcasts, in a network of their own where that is permitted.
class PrivateNetwork : public testing::Environment {
public:
  void SetUp() override { network_is_private = unit::enter_private_network(); }
};

[[maybe_unused]] testing::Environment* const private_network =
    testing::AddGlobalTestEnvironment(new PrivateNetwork);  // owned by the framework

sockaddr_in socket_address(const char* ip, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, ip, &address.sin_addr);
  return address;
}

/// A plain socket of another host.
class Peer {
public:
  explicit Peer(const char* ip = "127.0.0.2", int wanted_port = 0)
      : fd(__real_socket(AF_INET, SOCK_DGRAM, 0)) {
    const sockaddr_in address = socket_address(ip, wanted_port);
    bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~Peer() { close(fd); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  Peer(Peer&&) = delete;
  Peer& operator=(Peer&&) = delete;

  bool is_bound() const { return bound; }

  int port() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
  }

  void send(const std::string& bytes, int port, const char* ip = "127.0.0.1") const {
    const sockaddr_in address = socket_address(ip, port);
    ASSERT_EQ(__real_sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                            sizeof address),
              static_cast<ssize_t>(bytes.size()));
  }

  /// The next datagram; on the loopback network it is there as soon as it has been sent.
  std::optional<std::string> receive() const {
    std::string bytes(70000, '\0');
    const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size < 0) return std::nullopt;
    bytes.resize(static_cast<size_t>(size));
    return bytes;
  }

private:
  int fd;
  bool bound = false;
};

int free_port() {
  return Peer("0.0.0.0").port();
}

int open_descriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

class UdpSocketTest : public testing::Test {
protected:
  UdpSocketTest() { reset(); }
  ~UdpSocketTest() override { reset(); }

  static void reset() {
    system_calls().calls.clear();
    system_calls().errors.clear();
    system_calls().select_result.reset();
    system_calls().send_buffer.reset();
    system_calls().on_receive = nullptr;
    system_calls().steady_time = nullptr;
    system_calls().wall_time = nullptr;
  }

  /// Binds the socket to a port that is free.
  void bind_somewhere() {
    port = free_port();
    ASSERT_TRUE(socket.bind(port));
    system_calls().calls.clear();
  }

  struct Received {
    std::int64_t result = 0;
    std::string bytes;
    std::string address;
    int port = -2;
  };

  Received read(unsigned int size) {
    Received received;
    std::string data(size, '#');
    HostAddress address("untouched");
    received.result = socket.readDatagram(data.data(), size, &address, &received.port);
    if (received.result > 0) received.bytes = data.substr(0, static_cast<size_t>(received.result));
    received.address = address.text();
    return received;
  }

  UdpSocket socket;
  const UdpSocket& const_socket = socket;
  int port = 0;
};

static_assert(!std::is_copy_constructible_v<UdpSocket> && !std::is_copy_assignable_v<UdpSocket>);
static_assert(!std::is_move_constructible_v<UdpSocket> && !std::is_move_assignable_v<UdpSocket>);

TEST(HostAddress, IsItsText) {
  EXPECT_EQ(HostAddress("192.168.1.20").text(), "192.168.1.20");
  EXPECT_TRUE(HostAddress("10.0.0.1") == "10.0.0.1");
  EXPECT_TRUE("10.0.0.1" == HostAddress(std::string("10.0.0.1")));
  EXPECT_TRUE(HostAddress("10.0.0.1") != "10.0.0.2");
  EXPECT_FALSE(HostAddress("10.0.0.1") != HostAddress("10.0.0.1"));
}

TEST(HostAddress, IsEmptyByDefaultAndForANullText) {
  EXPECT_TRUE(HostAddress().empty());
  EXPECT_TRUE(HostAddress(static_cast<const char*>(nullptr)).empty());
  EXPECT_FALSE(HostAddress("0.0.0.0").empty());
  EXPECT_EQ(HostAddress(), "");
}

TEST(HostAddress, HasANumberWhenItIsAnAddress) {
  std::uint32_t number = 0;
  EXPECT_TRUE(HostAddress("192.168.1.20").ipv4(number));
  EXPECT_EQ(number, htonl(0xC0A80114));
  EXPECT_EQ(HostAddress::from_ipv4(htonl(0xC0A80114)), "192.168.1.20");
  EXPECT_EQ(HostAddress::from_ipv4(0), "0.0.0.0");
  EXPECT_EQ(HostAddress::from_ipv4(0xFFFFFFFF).text(), "255.255.255.255");
  for (const char* const text : {"", "localhost", "10.0.0", "256.0.0.1", "10.0.0.1 ", "010.0.0.1"}) {
    EXPECT_FALSE(HostAddress(text).ipv4(number)) << text;
    EXPECT_EQ(HostAddress(text).text(), text);
  }
  EXPECT_EQ(number, htonl(0xC0A80114));
}

TEST(HostAddress, IsReadUpToAZeroByteButKeepsWhatFollows) {
  const std::string text("10.0.0.1\0x", 10);
  const HostAddress address(text);
  EXPECT_EQ(address.text(), text);
  EXPECT_NE(address, "10.0.0.1");
  std::uint32_t number = 0;
  EXPECT_TRUE(address.ipv4(number));
  EXPECT_EQ(number, htonl(0x0A000001));
}

TEST_F(UdpSocketTest, ConstructionMakesNoSystemCall) {
  const int before = open_descriptors();
  { const UdpSocket unused; }
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(system_calls().calls, Calls{});
}

TEST_F(UdpSocketTest, QueriesBeforeCreationCreateNothing) {
  const int before = open_descriptors();
  EXPECT_FALSE(const_socket.hasPendingDatagrams());
  EXPECT_EQ(const_socket.pendingDatagramSize(), -1);
  EXPECT_EQ(const_socket.select_with_tm(0, true), -1);
  EXPECT_EQ(const_socket.select_with_tm(-1, false), -1);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(system_calls().calls, Calls{});
}

TEST_F(UdpSocketTest, InitializeMakesANonBlockingSocketWithBroadcastThatTellsOfArrivalsAndDrops) {
  EXPECT_TRUE(socket.initialize());
  const auto set = [](int option) {
    return "setsockopt " + std::to_string(SOL_SOCKET) + ' ' + std::to_string(option) + " 1 4";
  };
  EXPECT_EQ(
      system_calls().calls,
      (Calls{"socket 2 2 0", "fcntl_get", "fcntl_set " + std::to_string(O_RDWR | O_NONBLOCK),
             set(SO_BROADCAST), "getsockopt " + std::to_string(SOL_SOCKET) + ' ' + std::to_string(SO_SNDBUF),
             set(SO_TIMESTAMPNS), set(SO_RXQ_OVFL)}));
}

TEST_F(UdpSocketTest, InitializeDoesItsWorkOnce) {
  const int before = open_descriptors();
  EXPECT_TRUE(socket.initialize());
  system_calls().calls.clear();
  EXPECT_TRUE(socket.initialize());
  EXPECT_EQ(system_calls().calls, Calls{});
  EXPECT_EQ(open_descriptors(), before + 1);
}

TEST_F(UdpSocketTest, DestructionClosesTheSocket) {
  const int before = open_descriptors();
  {
    UdpSocket other;
    EXPECT_TRUE(other.initialize());
    EXPECT_EQ(open_descriptors(), before + 1);
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(UdpSocketTest, FailedStepOfInitializeIsReportedAndRetriedWithoutALeak) {
  const std::vector<std::pair<std::string, int>> steps{{"socket", EMFILE},
                                                       {"fcntl_get", EIO},
                                                       {"fcntl_set", EPERM},
                                                       {"setsockopt", ENOMEM},
                                                       {"getsockopt", ENOMEM}};
  for (const auto& [function, error] : steps) {
    const int before = open_descriptors();
    {
      UdpSocket other;
      system_calls().errors[function] = {error, error, error};
      for (int attempt = 0; attempt < 3; ++attempt) {
        errno = 0;
        EXPECT_FALSE(other.initialize()) << function;
        EXPECT_EQ(errno, error) << function;
        EXPECT_FALSE(other.hasPendingDatagrams()) << function;
        EXPECT_EQ(other.pendingDatagramSize(), -1) << function;
      }
      EXPECT_TRUE(other.initialize()) << function;
      EXPECT_EQ(open_descriptors(), before + 1) << function;
    }
    EXPECT_EQ(open_descriptors(), before) << function;
  }
}

TEST_F(UdpSocketTest, LackOfMemoryIsReportedAndRetriedWithoutALeak) {
  const int before = open_descriptors();
  for (int large_enough = 0; large_enough < 2; ++large_enough) {
    UdpSocket other;
    for (int attempt = 0; attempt < 3; ++attempt) {
      allocations_left = large_enough;
      EXPECT_FALSE(other.initialize());
      EXPECT_EQ(errno, ENOMEM);
      allocations_left = -1;
      EXPECT_FALSE(other.hasPendingDatagrams());
      EXPECT_EQ(open_descriptors(), before + 1);
    }
    EXPECT_TRUE(other.initialize());
    EXPECT_EQ(open_descriptors(), before + 1);
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(UdpSocketTest, OperationsOfASocketThatCannotBeCreatedFail) {
  system_calls().errors["socket"] = {EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE};
  EXPECT_FALSE(socket.bind(6454));
  EXPECT_FALSE(socket.bind("0.0.0.0", 6454));
  const Received received = read(16);
  EXPECT_EQ(received.result, 0);
  EXPECT_EQ(received.address, "untouched");
  EXPECT_EQ(received.port, -2);
  EXPECT_EQ(socket.readDatagram(nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(socket.writeDatagram("x", 1, "127.0.0.1", 6454), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_FALSE(socket.waitForReadyRead(-1));
  EXPECT_EQ(system_calls().calls, Calls(6, "socket 2 2 0"));
}

CHILD_SCENARIO(no_descriptor_left) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlim_t normal = limit.rlim_cur;
  const int next = dup(STDIN_FILENO);
  close(next);
  limit.rlim_cur = static_cast<rlim_t>(next);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  UdpSocket socket;
  for (int attempt = 0; attempt < 3; ++attempt) {
    EXPECT_FALSE(socket.initialize());
    EXPECT_EQ(errno, EMFILE);
  }
  limit.rlim_cur = normal;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_TRUE(socket.initialize());
  EXPECT_EQ(fcntl(next, F_GETFL), O_RDWR | O_NONBLOCK);
  EXPECT_EQ(fcntl(next + 1, F_GETFL), -1);
}

TEST_F(UdpSocketTest, IsCreatedOnceADescriptorIsLeft) {
  const unit::Outcome child = unit::run_child("no_descriptor_left");
  EXPECT_EQ(child.status, 0) << child.out;
}

TEST_F(UdpSocketTest, BindsTheWildcardAddress) {
  bind_somewhere();
  const Peer peer;
  peer.send("one", port, "127.0.0.1");
  peer.send("two", port, "127.0.0.3");
  EXPECT_EQ(read(16).bytes, "one");
  EXPECT_EQ(read(16).bytes, "two");
}

TEST_F(UdpSocketTest, BindsTheArtNetPort) {
  if (!network_is_private) GTEST_SKIP() << "needs a network of its own";
  EXPECT_TRUE(socket.bind(6454));
  EXPECT_FALSE(Peer("0.0.0.0", 6454).is_bound());
  EXPECT_FALSE(Peer("127.0.0.1", 6454).is_bound());
  const Peer peer;
  peer.send("here", 6454);
  EXPECT_EQ(read(16).bytes, "here");
}

TEST_F(UdpSocketTest, BindsNoAddressButTheWildcard) {
  port = free_port();
  for (const char* const address : {"192.168.0.10", "127.0.0.1", "", "0.0.0.0 ", "00.0.0.0", "0", "any"}) {
    EXPECT_FALSE(socket.bind(address, port)) << address;
  }
  EXPECT_TRUE(Peer("0.0.0.0", port).is_bound());
  EXPECT_TRUE(socket.bind("0.0.0.0", port));
}

TEST_F(UdpSocketTest, BindToAnOccupiedPortFails) {
  const Peer occupant("0.0.0.0");
  EXPECT_FALSE(socket.bind(occupant.port()));
  EXPECT_EQ(errno, EADDRINUSE);
}

TEST_F(UdpSocketTest, SecondBindFails) {
  bind_somewhere();
  EXPECT_FALSE(socket.bind(free_port()));
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(UdpSocketTest, NothingIsPendingOnAnEmptyQueue) {
  bind_somewhere();
  EXPECT_FALSE(const_socket.hasPendingDatagrams());
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(const_socket.pendingDatagramSize(), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(system_calls().calls, (Calls{"recvmmsg", "recvmmsg"}));
}

TEST_F(UdpSocketTest, PendingSizeIsThatOfTheFirstDatagramWhichStays) {
  bind_somewhere();
  const Peer peer;
  for (const size_t size : {size_t{0}, size_t{1}, size_t{2}, size_t{530}, size_t{8190}, size_t{8191}}) {
    peer.send(std::string(size, 'x'), port);
    peer.send("second", port);
    EXPECT_TRUE(const_socket.hasPendingDatagrams()) << size;
    EXPECT_EQ(const_socket.pendingDatagramSize(), static_cast<std::int64_t>(size));
    EXPECT_EQ(const_socket.pendingDatagramSize(), static_cast<std::int64_t>(size));
    EXPECT_TRUE(const_socket.hasPendingDatagrams()) << size;
    const Received received = read(8192);
    EXPECT_EQ(received.result, static_cast<std::int64_t>(size));
    EXPECT_EQ(received.bytes, std::string(size, 'x'));
    EXPECT_EQ(read(8192).bytes, "second");
  }
}

TEST_F(UdpSocketTest, DatagramOf8192BytesOrMoreHasNoPendingSizeAndCanBeDiscarded) {
  bind_somewhere();
  const Peer peer;
  for (const size_t size : {size_t{8192}, size_t{8193}, size_t{65507}}) {
    peer.send(std::string(size, 'x'), port);
    EXPECT_TRUE(const_socket.hasPendingDatagrams()) << size;
    EXPECT_EQ(const_socket.pendingDatagramSize(), -1) << size;
    EXPECT_EQ(socket.readDatagram(nullptr, 0, nullptr, nullptr), 0) << size;
    EXPECT_FALSE(const_socket.hasPendingDatagrams()) << size;
  }
}

TEST_F(UdpSocketTest, ReadReportsTheSender) {
  bind_somewhere();
  const Peer peer;
  peer.send("abc", port);
  const Received received = read(16);
  EXPECT_EQ(received.result, 3);
  EXPECT_EQ(received.bytes, "abc");
  EXPECT_EQ(received.address, "127.0.0.2");
  EXPECT_EQ(received.port, peer.port());
  EXPECT_EQ(system_calls().calls, (Calls{"recvmmsg"}));
}

TEST_F(UdpSocketTest, ReadWithoutSenderIsPermitted) {
  bind_somewhere();
  const Peer peer;
  peer.send("abc", port);
  peer.send("def", port);
  peer.send("ghi", port);
  std::array<char, 3> data{};
  EXPECT_EQ(socket.readDatagram(data.data(), 3, nullptr, nullptr), 3);
  HostAddress address;
  EXPECT_EQ(socket.readDatagram(data.data(), 3, &address, nullptr), 3);
  EXPECT_EQ(address, "127.0.0.2");
  int sender_port = 0;
  EXPECT_EQ(socket.readDatagram(data.data(), 3, nullptr, &sender_port), 3);
  EXPECT_EQ(sender_port, peer.port());
  EXPECT_EQ(std::string(data.data(), data.size()), "ghi");
}

TEST_F(UdpSocketTest, ReadCutsALongerDatagram) {
  bind_somewhere();
  const Peer peer;
  peer.send("abcdefgh", port);
  peer.send("next", port);
  EXPECT_EQ(read(4).bytes, "abcd");
  EXPECT_EQ(read(4).bytes, "next");
}

TEST_F(UdpSocketTest, ReadOfSizeZeroDiscardsOneDatagram) {
  bind_somewhere();
  const Peer peer;
  peer.send("abcdefgh", port);
  peer.send("", port);
  peer.send("next", port);
  for (int i = 0; i < 2; ++i) {
    const Received received = read(0);
    EXPECT_EQ(received.result, 0);
    EXPECT_EQ(received.address, "127.0.0.2");
    EXPECT_EQ(received.port, peer.port());
  }
  EXPECT_EQ(read(16).bytes, "next");
  EXPECT_EQ(system_calls().calls, (Calls{"recvmmsg"}));
}

TEST_F(UdpSocketTest, ReadFromAnEmptyQueueFailsWithoutASender) {
  bind_somewhere();
  for (const unsigned int size : {16U, 0U}) {
    const Received received = read(size);
    EXPECT_EQ(received.result, -1) << size;
    EXPECT_EQ(errno, EAGAIN) << size;
    EXPECT_EQ(received.address, "0.0.0.0") << size;
    EXPECT_EQ(received.port, 0) << size;
  }
}

TEST_F(UdpSocketTest, ReadCreatesTheSocket) {
  EXPECT_EQ(read(16).result, -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(system_calls().calls.front(), "socket 2 2 0");
}

TEST_F(UdpSocketTest, ReceivingIsRepeatedWhenASignalInterrupts) {
  bind_somewhere();
  const Peer peer;
  peer.send("abc", port);
  system_calls().errors["recvmmsg"] = {EINTR, EINTR};
  EXPECT_TRUE(const_socket.hasPendingDatagrams());
  EXPECT_EQ(read(16).bytes, "abc");
  peer.send("defg", port);
  system_calls().errors["recvmmsg"] = {EINTR, EINTR};
  EXPECT_EQ(const_socket.pendingDatagramSize(), 4);
  EXPECT_EQ(read(16).bytes, "defg");
  peer.send("hi", port);
  system_calls().errors["recvmmsg"] = {EINTR, EINTR, EINTR};
  EXPECT_EQ(read(16).bytes, "hi");
  EXPECT_EQ(system_calls().calls, Calls(3 + 3 + 4, "recvmmsg"));
}

TEST_F(UdpSocketTest, ReceivingIsGivenUpWhenSignalsInterruptItForEver) {
  bind_somewhere();
  const Peer peer;
  peer.send("abc", port);
  system_calls().errors["recvmmsg"].assign(100, EINTR);
  EXPECT_FALSE(const_socket.hasPendingDatagrams());
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(system_calls().calls, Calls(5, "recvmmsg"));
  system_calls().errors.clear();
  EXPECT_EQ(read(16).bytes, "abc");
}

TEST_F(UdpSocketTest, ErrorsOfReceivingAreReported) {
  bind_somewhere();
  const Peer peer;
  peer.send("abc", port);
  system_calls().errors["recvmmsg"] = {ENOMEM, EMSGSIZE, ENOMEM, ENOMEM, ENOMEM};
  EXPECT_EQ(const_socket.pendingDatagramSize(), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_TRUE(const_socket.hasPendingDatagrams());
  EXPECT_FALSE(const_socket.hasPendingDatagrams());
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(read(16).result, -1);
  EXPECT_EQ(read(0).result, -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(read(16).bytes, "abc");
}

TEST_F(UdpSocketTest, DatagramsAreFetchedInBatchesAndReadInOrderWithTheirSenders) {
  bind_somewhere();
  const Peer first;
  const Peer second("127.0.0.3");
  constexpr int kCount = 150;
  for (int i = 0; i < kCount; ++i) (i % 2 == 0 ? first : second).send(std::to_string(i), port);
  for (int i = 0; i < kCount; ++i) {
    const Received received = read(16);
    EXPECT_EQ(received.bytes, std::to_string(i));
    EXPECT_EQ(received.address, i % 2 == 0 ? "127.0.0.2" : "127.0.0.3");
    EXPECT_EQ(received.port, (i % 2 == 0 ? first : second).port());
  }
  EXPECT_EQ(system_calls().calls, (Calls{"recvmmsg", "recvmmsg", "recvmmsg"}));
  EXPECT_FALSE(const_socket.hasPendingDatagrams());
}

TEST_F(UdpSocketTest, FetchedDatagramsAreReadyWithoutAWait) {
  bind_somewhere();
  const Peer peer;
  EXPECT_FALSE(const_socket.hasFetchedDatagrams());
  peer.send("a", port);
  peer.send("b", port);
  EXPECT_FALSE(const_socket.hasFetchedDatagrams());
  EXPECT_TRUE(const_socket.hasPendingDatagrams());
  EXPECT_EQ(read(16).bytes, "a");
  EXPECT_TRUE(const_socket.hasFetchedDatagrams());
  EXPECT_EQ(const_socket.select_with_tm(-1, true), 1);
  EXPECT_TRUE(socket.waitForReadyRead(-1));
  EXPECT_EQ(read(16).bytes, "b");
  EXPECT_FALSE(const_socket.hasFetchedDatagrams());
  EXPECT_EQ(system_calls().calls, (Calls{"recvmmsg"}));
}

TEST_F(UdpSocketTest, TakenDatagramKeepsItsBytesAndSender) {
  bind_somewhere();
  const Peer peer;
  Datagram datagram;
  EXPECT_FALSE(socket.takeDatagram(datagram));
  EXPECT_EQ(errno, EAGAIN);
  peer.send(std::string(65507, 'x'), port);
  peer.send("", port);
  EXPECT_TRUE(socket.takeDatagram(datagram));
  EXPECT_EQ(datagram.bytes, std::string(65507, 'x'));
  EXPECT_EQ(datagram.sender_address, "127.0.0.2");
  EXPECT_EQ(datagram.sender_port, peer.port());
  EXPECT_TRUE(socket.takeDatagram(datagram));
  EXPECT_EQ(datagram.bytes, "");
}

std::int64_t steady_time() {
  return kesto::Clock::now().time_since_epoch().count();
}

/// A control message with its payload.
template <typename Data>
std::string control_message(int level, int type, Data data, std::size_t length = CMSG_LEN(sizeof(Data))) {
  cmsghdr header{};
  header.cmsg_len = static_cast<decltype(header.cmsg_len)>(length);
  header.cmsg_level = level;
  header.cmsg_type = type;
  std::string bytes(CMSG_SPACE(sizeof data), '\0');
  std::memcpy(bytes.data(), &header, sizeof header);
  std::memcpy(bytes.data() + CMSG_LEN(0), &data, sizeof data);
  return bytes;
}

timespec stamp(std::int64_t nanoseconds) {
  timespec time{};
  time.tv_sec = static_cast<time_t>(nanoseconds / 1'000'000'000);
  time.tv_nsec = static_cast<long>(nanoseconds % 1'000'000'000);
  return time;
}

/// Lets the datagrams that are received come with these control messages.
void come_with(const std::string& messages) {
  system_calls().on_receive = [messages](msghdr& header) {
    ASSERT_GE(system_calls().control_room, messages.size());
    std::memcpy(header.msg_control, messages.data(), messages.size());
    header.msg_controllen = messages.size();
  };
}

TEST_F(UdpSocketTest, TellsWhenEachDatagramArrived) {
  NOT_UNDER_AN_EMULATOR("stamps and counts of drops");
  bind_somewhere();
  const Peer peer;
  Datagram datagram;
  // The kernel begins to stamp soon after it was asked to. The first looks at the clocks may be inexact.
  constexpr int kExact = 50;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (int exact = 0; exact < kExact && std::chrono::steady_clock::now() < deadline;) {
    peer.send("abc", port);
    const std::int64_t sent = steady_time();
    ASSERT_TRUE(socket.takeDatagram(datagram));
    if (datagram.rx_time <= sent) ++exact;
  }
  // More than one batch.
  std::vector<std::int64_t> moments;
  for (int i = 0; i < 100; ++i) {
    moments.push_back(steady_time());
    peer.send("abc", port);
  }
  moments.push_back(steady_time());
  for (std::size_t i = 0; i + 1 < moments.size(); ++i) {
    ASSERT_TRUE(socket.takeDatagram(datagram));
    EXPECT_TRUE(datagram.stamped);
    EXPECT_GE(datagram.rx_time, moments[i]);
    EXPECT_LE(datagram.rx_time, moments[i + 1]);
    EXPECT_EQ(datagram.kernel_drops, 0U);
  }
}

TEST_F(UdpSocketTest, CountsWhatDidNotFitIntoTheReceiveBuffer) {
  NOT_UNDER_AN_EMULATOR("stamps and counts of drops");
  constexpr int kSent = 100;
  bind_somewhere();
  const int size = 16384;
  ASSERT_EQ(__real_setsockopt(system_calls().socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size), 0);
  const Peer peer;
  Datagram datagram;
  std::uint32_t lost = 0;
  for (int overflow = 0; overflow < 2; ++overflow) {
    for (int i = 0; i < kSent; ++i) peer.send(std::string(1000, 'x'), port);
    const auto dropped = socket.kernelDrops();
    std::uint32_t received = 0;
    while (socket.takeDatagram(datagram)) {
      EXPECT_EQ(datagram.kernel_drops, lost);
      ++received;
    }
    EXPECT_GT(received, 0U);
    EXPECT_LT(received, kSent);
    lost += kSent - received;
    EXPECT_EQ(dropped, lost) << "the socket tells it before the next datagram does";
    peer.send("next", port);
    ASSERT_TRUE(socket.takeDatagram(datagram));
    EXPECT_EQ(datagram.kernel_drops, lost);
    EXPECT_TRUE(datagram.stamped);
  }
}

TEST_F(UdpSocketTest, WorksWhereTheSystemRefusesToTellMore) {
  NOT_UNDER_AN_EMULATOR("stamps and counts of drops");
  struct Row {
    const char* refused;
    std::deque<int> errors;  // of the options, broadcast first
    bool stamped;
    bool counted;
  };
  for (const Row& row :
       {Row{"nothing", {0, 0, 0}, true, true}, Row{"stamps", {0, ENOPROTOOPT, 0}, false, true},
        Row{"drops", {0, 0, EPERM}, true, false}, Row{"both", {0, EPERM, EPERM}, false, false}}) {
    SCOPED_TRACE(row.refused);
    UdpSocket other;
    const int other_port = free_port();
    system_calls().errors["setsockopt"] = row.errors;
    ASSERT_TRUE(other.bind(other_port));
    const int size = 4096;
    ASSERT_EQ(__real_setsockopt(system_calls().socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size), 0);
    const Peer peer;
    peer.send("abc", other_port);
    const std::int64_t sent = steady_time();
    Datagram datagram;
    ASSERT_TRUE(other.takeDatagram(datagram));
    EXPECT_EQ(datagram.bytes, "abc");
    EXPECT_EQ(datagram.stamped, row.stamped);
    EXPECT_LE(datagram.rx_time, steady_time());
    if (!row.stamped) {
      EXPECT_GE(datagram.rx_time, sent);
    }
    // Which are too many for the buffer.
    std::uint32_t lost = 100;
    for (std::uint32_t i = 0; i < 100; ++i) peer.send(std::string(1000, 'x'), other_port);
    while (other.takeDatagram(datagram)) --lost;
    peer.send("next", other_port);
    ASSERT_TRUE(other.takeDatagram(datagram));
    EXPECT_EQ(datagram.kernel_drops, row.counted ? lost : 0);
    EXPECT_EQ(other.kernelDrops(), row.counted ? std::optional(lost) : std::nullopt);
  }
}

/// Clocks that stand still but for what a test lets pass.
struct Clocks {
  static constexpr std::int64_t kDifference = 1'800'000'000'000'000'000;
  static constexpr std::int64_t k2038 = 2'147'483'648'000'000'000;  // 2^31 s

  /// The socket's clocks from now on. They are read in the order steady, wall, steady.
  void install() {
    system_calls().steady_time = [this] {
      ++readings;
      return steady;
    };
    system_calls().wall_time = [this] {
      const std::int64_t wall = steady + difference;
      if (!preemptions.empty()) {
        steady += preemptions.front();
        preemptions.pop_front();
      }
      return wall;
    };
  }

  std::int64_t steady = 1'000'000'000'000;
  std::int64_t difference = kDifference;  // of the wall clock to the steady one
  std::deque<std::int64_t> preemptions;   // ns that pass after each reading of the wall clock
  int readings = 0;                       // of the steady clock
};

TEST_F(UdpSocketTest, LooksAtTheClocksOnceAfterAFetchUnlessItWasPreempted) {
  constexpr std::int64_t kMs = 1'000'000;
  struct Row {
    std::deque<std::int64_t> preemptions;
    int readings;
    std::int64_t error;  // of the arrival
  };
  for (const Row& row : {Row{{}, 2, 0}, Row{{4 * kMs, 0}, 4, 0}, Row{{4 * kMs, 6 * kMs, 0}, 6, 0},
                         Row{{9 * kMs, 4 * kMs, 6 * kMs}, 6, 2 * kMs}}) {
    Clocks clocks;
    clocks.preemptions = row.preemptions;
    const std::int64_t arrival = clocks.steady - 250 * kMs;
    UdpSocket other;
    const int other_port = free_port();
    ASSERT_TRUE(other.bind(other_port));
    come_with(control_message(SOL_SOCKET, SCM_TIMESTAMPNS, stamp(arrival + Clocks::kDifference)));
    clocks.install();
    const Peer peer;
    for (int i = 0; i < 3; ++i) peer.send("abc", other_port);
    Datagram datagram;
    for (int i = 0; i < 3; ++i) {
      ASSERT_TRUE(other.takeDatagram(datagram));
      EXPECT_TRUE(datagram.stamped);
      EXPECT_EQ(datagram.rx_time, arrival + row.error);
      EXPECT_EQ(clocks.readings, row.readings);
    }
    // Nothing was fetched.
    EXPECT_FALSE(other.takeDatagram(datagram));
    EXPECT_EQ(clocks.readings, row.readings);
    reset();
  }
}

TEST_F(UdpSocketTest, StampsBeforeAndBeyond2038) {
  constexpr std::int64_t kMs = 1'000'000;
  bind_somewhere();
  const Peer peer;
  Clocks clocks;
  clocks.install();
  for (const std::int64_t wall :
       {Clocks::k2038 - kMs, Clocks::k2038, Clocks::k2038 + kMs, 2 * Clocks::k2038 + kMs}) {
    SCOPED_TRACE(wall);
    clocks.difference = wall - clocks.steady;
    for (const std::int64_t age : {std::int64_t{0}, 2 * kMs}) {
      come_with(control_message(SOL_SOCKET, SCM_TIMESTAMPNS, stamp(wall - age)));
      peer.send("abc", port);
      Datagram datagram;
      ASSERT_TRUE(socket.takeDatagram(datagram));
      EXPECT_TRUE(datagram.stamped);
      EXPECT_EQ(datagram.rx_time, clocks.steady - age);
    }
    clocks.steady += 120'000 * kMs;
  }
}

TEST_F(UdpSocketTest, BelievesOnlyWholeControlMessages) {
  Clocks clocks;
  const std::int64_t arrival = clocks.steady - 1'000'000;
  const timespec time = stamp(arrival + Clocks::kDifference);
  const std::size_t length = CMSG_LEN(sizeof time);
  const auto stamped = [&](std::size_t given) {
    return control_message(SOL_SOCKET, SCM_TIMESTAMPNS, time, given);
  };
  const std::string good = stamped(length);
  const std::string drops = control_message(SOL_SOCKET, SO_RXQ_OVFL, 0xFFFFFFFFU);
  struct Row {
    const char* what;
    std::string messages;
    bool stamped;
    std::uint32_t drops;
  };
  const std::vector<Row> rows = {
      {"none", "", false, 0},
      {"both", good + drops, true, 0xFFFFFFFF},
      {"the other order", drops + good, true, 0xFFFFFFFF},
      {"a drop alone", drops, false, 0xFFFFFFFF},
      {"less than a header", good.substr(0, sizeof(cmsghdr) - 1), false, 0},
      {"a header alone", good.substr(0, sizeof(cmsghdr)), false, 0},
      {"cut off", good.substr(0, length - 1), false, 0},
      {"too short", stamped(length - 1) + drops, false, 0xFFFFFFFF},
      {"too long", stamped(length + 1), false, 0},
      {"beyond the end", stamped(1000) + drops, false, 0},
      {"the longest length", stamped(~std::size_t{0}) + drops, false, 0},
      {"no length", stamped(0) + drops, false, 0},
      {"another level", control_message(IPPROTO_IP, SCM_TIMESTAMPNS, time) + drops, false, 0xFFFFFFFF},
      {"another type", control_message(SOL_SOCKET, SO_RXQ_OVFL + 1, time) + drops, false, 0xFFFFFFFF},
      {"a drop of another size", good + control_message(SOL_SOCKET, SO_RXQ_OVFL, std::uint16_t{9}), true, 0},
  };
  bind_somewhere();
  const Peer peer;
  clocks.install();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    come_with(row.messages);
    peer.send("abc", port);
    Datagram datagram;
    ASSERT_TRUE(socket.takeDatagram(datagram));
    EXPECT_EQ(datagram.stamped, row.stamped);
    EXPECT_EQ(datagram.rx_time, row.stamped ? arrival : clocks.steady);
    EXPECT_EQ(datagram.kernel_drops, row.drops);
  }
}

TEST_F(UdpSocketTest, TakesTheTimeOfReadingForAStampThatMakesNoSense) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  bind_somewhere();
  const Peer peer;
  Clocks clocks;
  clocks.install();
  const std::int64_t wall = clocks.steady + Clocks::kDifference;
  timespec largest{};
  largest.tv_sec = std::numeric_limits<time_t>::max();
  largest.tv_nsec = std::numeric_limits<long>::max();
  for (const timespec& time :
       {stamp(0), stamp(wall + 1), stamp(wall - 61 * kSecond), stamp(-wall), largest}) {
    come_with(control_message(SOL_SOCKET, SCM_TIMESTAMPNS, time));
    peer.send("abc", port);
    Datagram datagram;
    ASSERT_TRUE(socket.takeDatagram(datagram));
    EXPECT_FALSE(datagram.stamped) << time.tv_sec;
    EXPECT_EQ(datagram.rx_time, clocks.steady);
  }
}

TEST_F(UdpSocketTest, GivesEverySlotItsWholeControlBufferAgain) {
  NOT_UNDER_AN_EMULATOR("stamps");
  bind_somewhere();
  const Peer peer;
  Datagram datagram;
  for (int round = 0; round < 3; ++round) {
    // The first slots are used in each round, with nothing in their control buffers the last time.
    for (int i = 0; i < 3; ++i) peer.send("abc", port);
    system_calls().on_receive = [](msghdr& header) { header.msg_controllen = 0; };
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(socket.takeDatagram(datagram));
    EXPECT_FALSE(datagram.stamped);
    system_calls().on_receive = nullptr;
    for (int i = 0; i < 3; ++i) peer.send("abc", port);
    for (int i = 0; i < 3; ++i) {
      ASSERT_TRUE(socket.takeDatagram(datagram));
      EXPECT_TRUE(datagram.stamped);
    }
  }
}

TEST_F(UdpSocketTest, WriteSendsToTheAddressAndPort) {
  const Peer peer;
  const Peer other("127.0.0.3", peer.port());
  ASSERT_TRUE(other.is_bound());
  EXPECT_EQ(socket.writeDatagram("abcdef", 3, "127.0.0.2", peer.port()), 3);
  EXPECT_EQ(socket.writeDatagram("xyz", 3, HostAddress(std::string("127.0.0.3")), peer.port()), 3);
  EXPECT_EQ(peer.receive(), "abc");
  EXPECT_EQ(peer.receive(), std::nullopt);
  EXPECT_EQ(other.receive(), "xyz");
}

TEST_F(UdpSocketTest, WriteLeavesFromTheBoundPort) {
  bind_somewhere();
  UdpSocket receiver;
  const int receiver_port = free_port();
  ASSERT_TRUE(receiver.bind(receiver_port));
  EXPECT_EQ(socket.writeDatagram("abc", 3, "127.0.0.1", receiver_port), 3);
  HostAddress address;
  int sender_port = 0;
  std::array<char, 8> data{};
  EXPECT_EQ(receiver.readDatagram(data.data(), 8, &address, &sender_port), 3);
  EXPECT_EQ(address, "127.0.0.1");
  EXPECT_EQ(sender_port, port);
}

TEST_F(UdpSocketTest, WriteSendsEmptyAndLargestDatagrams) {
  const Peer peer;
  EXPECT_EQ(socket.writeDatagram("", 0, "127.0.0.2", peer.port()), 0);
  EXPECT_EQ(peer.receive(), "");
  const std::string largest(65507, 'x');
  EXPECT_EQ(socket.writeDatagram(largest.data(), 65507, "127.0.0.2", peer.port()), 65507);
  EXPECT_EQ(peer.receive(), largest);
}

TEST_F(UdpSocketTest, WriteOfMoreThanADatagramHoldsFails) {
  const Peer peer;
  const std::string bytes(65508, 'x');
  EXPECT_EQ(socket.writeDatagram(bytes.data(), 65508, "127.0.0.2", peer.port()), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(peer.receive(), std::nullopt);
}

TEST_F(UdpSocketTest, WriteToATextThatIsNoAddressSendsNothing) {
  EXPECT_TRUE(socket.initialize());
  system_calls().calls.clear();
  for (const char* const text : {"", "localhost", "10.0.0", "::1", "1.2.3.4.5", "256.0.0.1", " 127.0.0.1",
                                 "127.0.0.1 ", "0x7f.0.0.1", "127.0.0.1:6454"}) {
    errno = 0;
    EXPECT_EQ(socket.writeDatagram("abc", 3, text, 6454), -1) << text;
    EXPECT_EQ(errno, EINVAL) << text;
  }
  EXPECT_EQ(socket.writeDatagram("abc", 3, HostAddress(), 6454), -1);
  EXPECT_EQ(system_calls().calls, Calls{});
}

TEST_F(UdpSocketTest, WriteIsNotRepeated) {
  EXPECT_TRUE(socket.initialize());
  system_calls().calls.clear();
  for (const int error : {EINTR, EAGAIN, ENETUNREACH}) {
    system_calls().errors["sendto"] = {error};
    EXPECT_EQ(socket.writeDatagram("abc", 3, "127.0.0.1", 6454), -1);
    EXPECT_EQ(errno, error);
  }
  EXPECT_EQ(system_calls().calls, Calls(3, "sendto 3 0"));
}

TEST_F(UdpSocketTest, TheSendBufferOfNoSocketIsEmpty) {
  EXPECT_TRUE(const_socket.sendBufferIsBelow(1));
  EXPECT_EQ(system_calls().calls, Calls{});
}

TEST_F(UdpSocketTest, TheSendBufferIsBelowAPartOfTheSizeThatTheSystemReports) {
  struct Case {
    int used;
    int size;
    int percent;
    bool below;
  };
  for (const Case& c : {Case{0, 1000, 1, true}, Case{9, 1000, 1, true}, Case{10, 1000, 1, false},
                        Case{499, 1000, 50, true}, Case{500, 1000, 50, false}, Case{999, 1000, 100, true},
                        Case{1000, 1000, 100, false}, Case{1000, 1000, 12, false},
                        Case{1073741822, 2147483647, 50, true}, Case{1073741823, 2147483647, 50, false}}) {
    UdpSocket other;
    system_calls().send_buffer = {c.used, c.size};
    ASSERT_TRUE(other.initialize());
    system_calls().calls.clear();
    EXPECT_EQ(other.sendBufferIsBelow(c.percent), c.below) << c.used << ' ' << c.size << ' ' << c.percent;
    EXPECT_EQ(system_calls().calls, (Calls{"ioctl " + std::to_string(SIOCOUTQ)}));
  }
}

CHILD_SCENARIO(send_buffer) {
  ASSERT_TRUE(unit::enter_private_network());
  // Nobody answers for 10.9.0.2: what is sent there stays in the send buffer.
  ASSERT_TRUE(
      unit::shell("ip link add eth0 type veth peer name far && ip link set eth0 up && ip link set far up && "
                  "ip addr add 10.9.0.1/24 dev eth0 && cd /proc/sys/net/ipv4/neigh/eth0 && "
                  "echo 10000000 > unres_qlen_bytes && echo 100000000 > retrans_time_ms"));
  UdpSocket socket;
  const std::string reply(239, 'x');
  const auto sent = [&] { return socket.writeDatagram(reply.data(), 239, "10.9.0.2", 6454) == 239; };
  int first_half = 0;
  while (socket.sendBufferIsBelow(50) && sent()) ++first_half;
  int second_half = 0;
  while (socket.sendBufferIsBelow(100) && sent()) ++second_half;
  EXPECT_GT(first_half, 0);
  EXPECT_NEAR(first_half, second_half, 1);
  EXPECT_FALSE(sent());
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(UdpSocketTest, TheSendBufferIsFullWhenTheSystemRefusesADatagram) {
  if (!network_is_private) GTEST_SKIP() << "needs a network of its own";
  const unit::Outcome child = unit::run_child("send_buffer");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CHILD_SCENARIO(broadcast) {
  ASSERT_TRUE(unit::enter_private_network());
  ASSERT_TRUE(
      unit::shell("ip link add eth0 type veth peer name far && ip link set eth0 up && ip link set far up && "
                  "ip addr add 10.9.0.1/24 broadcast 10.9.0.255 dev eth0 && "
                  "ip route add default dev eth0"));
  UdpSocket socket;
  EXPECT_EQ(socket.writeDatagram("abc", 3, "255.255.255.255", 6454), 3);
  EXPECT_EQ(socket.writeDatagram("abc", 3, "10.9.0.255", 6454), 3);

  const int plain = __real_socket(AF_INET, SOCK_DGRAM, 0);
  const sockaddr_in everyone = socket_address("255.255.255.255", 6454);
  EXPECT_EQ(sendto(plain, "abc", 3, 0, reinterpret_cast<const sockaddr*>(&everyone), sizeof everyone), -1);
  EXPECT_EQ(errno, EACCES);
  close(plain);
}

TEST_F(UdpSocketTest, MayBroadcast) {
  if (!network_is_private) GTEST_SKIP() << "needs a network of its own";
  const unit::Outcome child = unit::run_child("broadcast");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST_F(UdpSocketTest, WaitSplitsItsTimeoutIntoSecondsAndMicroseconds) {
  EXPECT_TRUE(socket.initialize());
  system_calls().calls.clear();
  system_calls().select_result = 0;
  for (const int timeout : {0, 1, 999, 1000, 1500, 2147483647, -1, -1500, -2147483647 - 1}) {
    EXPECT_EQ(const_socket.select_with_tm(timeout, true), 0) << timeout;
  }
  EXPECT_EQ(const_socket.select_with_tm(1500, false), 0);
  EXPECT_EQ(system_calls().calls,
            (Calls{"select read 0 s 0 us", "select read 0 s 1000 us", "select read 0 s 999000 us",
                   "select read 1 s 0 us", "select read 1 s 500000 us", "select read 2147483 s 647000 us",
                   "select read no time-out", "select read no time-out", "select read no time-out",
                   "select write 1 s 500000 us"}));
}

TEST_F(UdpSocketTest, WaitReturnsTheResultOfTheSystem) {
  EXPECT_TRUE(socket.initialize());
  for (const int result : {1, 0, -1, 5}) {
    system_calls().select_result = result;
    EXPECT_EQ(const_socket.select_with_tm(0, true), result);
    EXPECT_EQ(socket.waitForReadyRead(0), result > 0);
  }
  system_calls().errors["select"] = {EINTR, EINTR};
  EXPECT_EQ(const_socket.select_with_tm(0, true), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_FALSE(socket.waitForReadyRead(0));
}

TEST_F(UdpSocketTest, WaitKnowsReadableAndWritable) {
  bind_somewhere();
  EXPECT_EQ(const_socket.select_with_tm(0, true), 0);
  EXPECT_EQ(const_socket.select_with_tm(0, false), 1);
  EXPECT_FALSE(socket.waitForReadyRead(0));
  const Peer peer;
  peer.send("", port);
  EXPECT_EQ(const_socket.select_with_tm(0, true), 1);
  EXPECT_TRUE(socket.waitForReadyRead(0));
}

TEST_F(UdpSocketTest, WaitForReadCreatesTheSocket) {
  system_calls().select_result = 0;
  EXPECT_FALSE(socket.waitForReadyRead(1500));
  EXPECT_EQ(system_calls().calls.front(), "socket 2 2 0");
  EXPECT_EQ(system_calls().calls.back(), "select read 1 s 500000 us");
}

TEST_F(UdpSocketTest, WaitWithoutTimeoutLastsUntilADatagramArrives) {
  bind_somewhere();
  const Peer peer;
  system_calls().selecting = false;
  std::thread sender([&] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!system_calls().selecting && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    peer.send("abc", port);
  });
  EXPECT_TRUE(socket.waitForReadyRead(-1));
  sender.join();
  EXPECT_EQ(read(16).bytes, "abc");
}

CHILD_SCENARIO(descriptor_beyond_the_set) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = FD_SETSIZE + 16;
  if (limit.rlim_max < limit.rlim_cur) limit.rlim_max = limit.rlim_cur;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  UdpSocket last_that_fits;
  UdpSocket first_beyond;
  int highest = 0;
  while (highest < FD_SETSIZE - 2) highest = dup(STDIN_FILENO);
  ASSERT_TRUE(last_that_fits.initialize());
  ASSERT_TRUE(first_beyond.initialize());
  ASSERT_GE(fcntl(FD_SETSIZE, F_GETFL), 0);

  EXPECT_EQ(last_that_fits.select_with_tm(0, false), 1);
  system_calls().calls.clear();
  errno = 0;
  EXPECT_EQ(first_beyond.select_with_tm(0, false), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(first_beyond.select_with_tm(-1, true), -1);
  EXPECT_FALSE(first_beyond.waitForReadyRead(-1));
  EXPECT_EQ(system_calls().calls, Calls{});
  EXPECT_EQ(first_beyond.writeDatagram("abc", 3, "127.0.0.1", 9), 3);
}

TEST_F(UdpSocketTest, WaitOnADescriptorThatNoSetHoldsFails) {
  const unit::Outcome child = unit::run_child("descriptor_beyond_the_set");
  EXPECT_EQ(child.status, 0) << child.out;
}

}  // namespace
