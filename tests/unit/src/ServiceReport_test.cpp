#include "src/ServiceReport.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "src/ServiceManager.h"
#include "unit/src/manager_socket.h"

namespace {

using kesto::Clock;
using Messages = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::seconds;

class ServiceReportTest : public testing::Test {
protected:
  /// @param watchdog  how long the manager waits; 0: for ever
  void begin(seconds watchdog = seconds(0)) {
    if (watchdog.count() > 0) {
      setenv("WATCHDOG_USEC", std::to_string(std::chrono::microseconds(watchdog).count()).c_str(), 1);
      setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    }
    manager = std::make_unique<ServiceManager>();
    report.begin(*manager, [this] {
      ++looks;
      return status;
    });
    start = Clock::now();
  }

  /// Ticks so long after the beginning. @return what the manager was told
  Messages tick(milliseconds after) {
    report.tick(start + seconds(1) + after);
    return socket.messages();
  }

  int argument_count = 0;
  QCoreApplication application{argument_count, nullptr};
  unit::ManagerSocket socket{unit::ManagerSocket::own_name("@kadrel_report_")};
  std::unique_ptr<ServiceManager> manager;
  ServiceReport report;
  ServiceStatus status;
  int looks = 0;
  Clock::time_point start;
};

TEST_F(ServiceReportTest, TellsThatTheServiceIsReadyAndThenWhatChanges) {
  begin();
  EXPECT_EQ(socket.messages(), Messages{"READY=1\nSTATUS=off\n"});
  report.come_round();
  EXPECT_EQ(tick(seconds(10)), Messages{});
  status.lost = 1;
  status.grabber = ServiceStatus::Grabber::Records;
  report.come_round();
  EXPECT_EQ(tick(seconds(11)), Messages{"STATUS=recording , 0 universes, 1 lost\n"});
  report.come_round();
  EXPECT_EQ(tick(seconds(12)), Messages{});
}

TEST_F(ServiceReportTest, LooksOnceASecondHoweverOftenItIsAsked) {
  begin();
  const int before = looks;
  for (int i = 0; i < 3000; ++i) {
    report.come_round();
    tick(milliseconds(i));
  }
  EXPECT_EQ(looks - before, 4);
}

TEST_F(ServiceReportTest, ProvesThatTheServiceGoesOnFourTimesInTheTimeOfTheWatchdog) {
  begin(seconds(30));
  EXPECT_EQ(socket.messages(), Messages{"READY=1\nWATCHDOG=1\nSTATUS=off\n"});
  std::vector<int> proofs;
  for (int second = 0; second < 60; ++second) {
    report.come_round();
    if (!tick(seconds(second)).empty()) proofs.push_back(second);
  }
  EXPECT_EQ(proofs, (std::vector<int>{7, 15, 23, 31, 39, 47, 55}));
}

TEST_F(ServiceReportTest, IsSilentWhileTheReceiveThreadDoesNotGoRoundAndAsksItForNothing) {
  begin(seconds(4));
  socket.messages();
  report.come_round();
  EXPECT_EQ(tick(seconds(2)), Messages{"WATCHDOG=1\n"});
  // It may be between two rounds for a while, and then it may hold its lock.
  const int before = looks;
  for (int second = 3; second < 100; ++second) EXPECT_EQ(tick(seconds(second)), Messages{});
  EXPECT_EQ(looks, before + 2);
  report.come_round();
  EXPECT_EQ(tick(seconds(100)), Messages{"WATCHDOG=1\n"});
}

TEST_F(ServiceReportTest, TheReceiveThreadAloneProvesItDuringACallForADisk) {
  begin(seconds(4));
  socket.messages();
  const auto round = [this] { std::thread([this] { report.come_round(); }).join(); };
  const auto wait_until_told = [this, &round] {
    Messages told;
    while ((told = socket.messages()).empty()) round();
    return told;
  };
  round();
  EXPECT_EQ(socket.messages(), Messages{}) << "the main loop is at work";
  {
    const ServiceReport::DiskCall outer(report);
    { const ServiceReport::DiskCall inner(report); }
    EXPECT_EQ(wait_until_told(), Messages{"WATCHDOG=1\n"});
    EXPECT_EQ(wait_until_told(), Messages{"WATCHDOG=1\n"});
  }
  round();
  EXPECT_EQ(socket.messages(), Messages{});
}

TEST_F(ServiceReportTest, WithoutAWatchdogACallForADiskIsNothing) {
  begin();
  socket.messages();
  const ServiceReport::DiskCall disk(report);
  for (int i = 0; i < 1000; ++i) report.come_round();
  EXPECT_EQ(socket.messages(), Messages{});
}

TEST_F(ServiceReportTest, SaysAgainWhatTheManagerHadNoRoomFor) {
  const ServiceManager other;
  while (other.tell("noise")) {
  }
  begin(seconds(4));
  status.lost = 1;
  status.grabber = ServiceStatus::Grabber::Records;
  report.tick(start + seconds(2));
  for (const std::string& message : socket.messages()) EXPECT_EQ(message, "noise");
  // Even if the receive thread has not yet come round.
  EXPECT_EQ(tick(seconds(3)), Messages{"READY=1\nWATCHDOG=1\nSTATUS=recording , 0 universes, 1 lost\n"});
}

TEST_F(ServiceReportTest, TellsOfTheEndOnceAndOfAWaitAtTheEnd) {
  begin(seconds(4));
  socket.messages();
  report.end();
  report.end();
  EXPECT_EQ(socket.messages(), Messages{"STOPPING=1\nSTATUS=ending\n"});
  report.end(2500000, seconds(10));
  EXPECT_EQ(socket.messages(),
            Messages{"EXTEND_TIMEOUT_USEC=15000000\nSTATUS=ending, 2.5 MB wait for the disk\n"});
  report.come_round();
  EXPECT_EQ(tick(seconds(10)), Messages{});
}

TEST_F(ServiceReportTest, TellsOfAnEndThatWaitsFromItsBeginning) {
  begin();
  socket.messages();
  report.end(1000, seconds(10));
  EXPECT_EQ(socket.messages(),
            Messages{"STOPPING=1\nEXTEND_TIMEOUT_USEC=15000000\nSTATUS=ending, 1.0 KB wait for the disk\n"});
}

TEST_F(ServiceReportTest, TheEventLoopLooksAfterItByItself) {
  begin();
  socket.messages();
  status.has_port = false;
  Messages told;
  while ((told = socket.messages()).empty()) {
    report.come_round();
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
  }
  EXPECT_EQ(told.back(), "STATUS=off, the UDP port is not bound: nothing is heard\n");
}

TEST_F(ServiceReportTest, DoesNothingWithoutAManager) {
  unsetenv("NOTIFY_SOCKET");
  begin(seconds(4));
  const ServiceReport::DiskCall disk(report);
  report.come_round();
  report.tick(start + seconds(5));
  report.end(1000, seconds(10));
  EXPECT_EQ(looks, 0);
  EXPECT_EQ(socket.messages(), Messages{});
}

}  // namespace
