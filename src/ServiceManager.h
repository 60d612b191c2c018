#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <optional>
#include <string>

/// The service manager that has started this process (systemd), if one has; sd_notify(3) describes how they
/// speak. A build without libsystemd never has one.
class ServiceManager {
public:
  /// Looks for it in the environment: NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID.
  ServiceManager();
  ~ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;
  ServiceManager(ServiceManager&&) = delete;
  ServiceManager& operator=(ServiceManager&&) = delete;

  bool is_there() const { return fd != -1; }

  /// How long it waits for a WATCHDOG=1 before it ends the process. @return nothing when it does not watch
  std::optional<std::chrono::microseconds> watchdog() const { return watchdog_time; }

  /// Sends the lines NAME=VALUE of @p state. Never waits. Any thread.
  /// @return false when nobody is there, or has no room now
  bool tell(const std::string& state) const;

private:
  // Constant after construction.
  int fd = -1;
  sockaddr_un address{};
  socklen_t address_size = 0;
  std::optional<std::chrono::microseconds> watchdog_time;
};
