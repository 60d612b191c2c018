#include "src/ServiceManager.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "unit/src/manager_socket.h"

namespace {

using unit::ManagerSocket;
using Messages = std::vector<std::string>;

#ifdef KADREL_SYSTEMD

TEST(ServiceManager, IsToldBySocketsWithAPathAndWithoutOne) {
  for (const char* const prefix : {"/tmp/kadrel_manager_", "@kadrel_manager_"}) {
    const ManagerSocket socket(ManagerSocket::own_name(prefix));
    const ServiceManager manager;
    EXPECT_TRUE(manager.is_there());
    EXPECT_TRUE(manager.tell("READY=1\nSTATUS=off\n"));
    EXPECT_TRUE(manager.tell("WATCHDOG=1\n"));
    EXPECT_EQ(socket.messages(), (Messages{"READY=1\nSTATUS=off\n", "WATCHDOG=1\n"}));
  }
}

TEST(ServiceManager, IsNotThereWithoutANameOrWithOneThatCannotBe) {
  unsetenv("NOTIFY_SOCKET");
  EXPECT_FALSE(ServiceManager().is_there());
  const std::string longest = "/tmp/" + std::string(102, 'n');
  for (const std::string& name : {std::string(), std::string("/"), std::string("@"), std::string("relative"),
                                  std::string("vsock:2:1234"), longest + "n"}) {
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    const ServiceManager manager;
    EXPECT_FALSE(manager.is_there()) << name;
    EXPECT_FALSE(manager.tell("READY=1\n")) << name;
  }
  const ManagerSocket socket(longest);
  EXPECT_TRUE(ServiceManager().tell("READY=1\n"));
  EXPECT_EQ(socket.messages(), Messages{"READY=1\n"});
}

TEST(ServiceManager, SaysHowLongItWaits) {
  struct Row {
    const char* time;
    std::string process;
    std::optional<std::chrono::microseconds> watchdog;
  };
  const std::string own = std::to_string(getpid());
  for (const Row& row : std::vector<Row>{{"30000000", own, std::chrono::seconds(30)},
                                         {"18446744073709551614", own, std::chrono::hours(24)},
                                         {"30000000", "1", std::nullopt},
                                         {"0", own, std::nullopt},
                                         {"soon", own, std::nullopt},
                                         {"-1", own, std::nullopt}}) {
    const ManagerSocket socket(ManagerSocket::own_name("@kadrel_watchdog_"));
    setenv("WATCHDOG_USEC", row.time, 1);
    setenv("WATCHDOG_PID", row.process.c_str(), 1);
    EXPECT_EQ(ServiceManager().watchdog(), row.watchdog) << row.time << ' ' << row.process;
  }
  const ManagerSocket socket(ManagerSocket::own_name("@kadrel_watchdog_"));
  EXPECT_EQ(ServiceManager().watchdog(), std::nullopt);
}

TEST(ServiceManager, DoesNotWaitWhenItsQueueIsFullOrItIsGone) {
  auto socket = std::make_unique<ManagerSocket>(ManagerSocket::own_name("/tmp/kadrel_manager_"));
  const ServiceManager manager;
  int taken = 0;
  while (manager.tell("WATCHDOG=1\n")) ++taken;
  EXPECT_GT(taken, 0);
  EXPECT_EQ(socket->messages().size(), static_cast<std::size_t>(taken));
  EXPECT_TRUE(manager.tell("WATCHDOG=1\n"));
  socket.reset();
  EXPECT_FALSE(manager.tell("WATCHDOG=1\n"));
  // A manager that starts anew is found again.
  socket = std::make_unique<ManagerSocket>(ManagerSocket::own_name("/tmp/kadrel_manager_"));
  EXPECT_TRUE(manager.tell("WATCHDOG=1\n"));
}

#else

TEST(ServiceManager, IsNeverThereInABuildWithoutLibsystemd) {
  const ManagerSocket socket(ManagerSocket::own_name("@kadrel_manager_"));
  setenv("WATCHDOG_USEC", "30000000", 1);
  const ServiceManager manager;
  EXPECT_FALSE(manager.is_there());
  EXPECT_EQ(manager.watchdog(), std::nullopt);
  EXPECT_FALSE(manager.tell("READY=1\n"));
  EXPECT_EQ(socket.messages(), Messages{});
}

#endif

}  // namespace
