#include "tools/HostLook.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using namespace kadrel_cue;

namespace {

TEST(HostLook, FindsTheErrorsOfUdpAmongTheCountsOfTheKernel) {
  const std::string ip = "Ip: Forwarding\nIp: 1\n";
  EXPECT_EQ(receive_errors_in(ip + "Udp: InDatagrams RcvbufErrors SndbufErrors\nUdp: 5 178 1\n"), 178U);
  EXPECT_FALSE(receive_errors_in(""));
  EXPECT_FALSE(receive_errors_in(ip));
  EXPECT_FALSE(receive_errors_in("Udp: InDatagrams RcvbufErrors\n"));
  EXPECT_FALSE(receive_errors_in("Udp: InDatagrams RcvbufErrors\nUdp: 5\n"));
  EXPECT_FALSE(receive_errors_in("Udp: InDatagrams RcvbufErrors\nUdp: 5 x\n"));
  EXPECT_TRUE(receive_errors());
}

TEST(HostLook, LooksAtThePriorityOfAProcess) {
  const PriorityLook own = look_at_priority(getpid());
  EXPECT_TRUE(own.nice);
  EXPECT_FALSE(own.service_in_real_time);
  EXPECT_FALSE(look_at_priority(0).nice);
}

/// A log of a type of its own in a folder of its own.
class LogSocket : public testing::TestWithParam<int> {
protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    name.sun_family = AF_UNIX;
    path = folder + "/log";
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    daemon = socket(AF_UNIX, GetParam(), 0);
    ASSERT_EQ(bind(daemon, address(), sizeof name), 0);
  }
  void TearDown() override {
    close(daemon);
    std::filesystem::remove_all(folder);
  }
  const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&name); }

  std::string folder = "/tmp/kadrel_unit_XXXXXX";
  std::string path;
  sockaddr_un name{};
  int daemon = -1;
};

TEST_P(LogSocket, TakesLines) {
  if (GetParam() == SOCK_STREAM) listen(daemon, 4);
  EXPECT_EQ(ask_log(path), LogAnswer::Takes);
}

TEST_P(LogSocket, HangsWhenItsQueueIsFull) {
  if (GetParam() == SOCK_STREAM) listen(daemon, 0);
  std::vector<int> writers;
  for (int count = 0; count < 4096; ++count) {
    writers.push_back(socket(AF_UNIX, GetParam() | SOCK_NONBLOCK, 0));
    if (connect(writers.back(), address(), sizeof name) == -1) break;
    if (GetParam() == SOCK_DGRAM && send(writers.back(), "x", 1, MSG_DONTWAIT) == -1) break;
  }
  EXPECT_EQ(ask_log(path), LogAnswer::Stuck);
  for (const int writer : writers) close(writer);
}

TEST_P(LogSocket, IsRefusedOrMissing) {
  close(daemon);
  daemon = -1;
  EXPECT_EQ(ask_log(path), LogAnswer::Refused);
  EXPECT_EQ(ask_log(path + "/below"), LogAnswer::Refused);
  EXPECT_EQ(ask_log(path + "2"), LogAnswer::Missing);
}

INSTANTIATE_TEST_SUITE_P(Types, LogSocket, testing::Values(SOCK_DGRAM, SOCK_STREAM));

TEST(HostLook, ALogOfAnotherTypeThanTheTwoIsNone) {
  std::string folder = "/tmp/kadrel_unit_XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  (folder + "/log").copy(name.sun_path, sizeof name.sun_path - 1);
  const int packets = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  ASSERT_EQ(bind(packets, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
  EXPECT_EQ(ask_log(folder + "/log"), LogAnswer::Refused);
  close(packets);
  std::filesystem::remove_all(folder);
}

}  // namespace
