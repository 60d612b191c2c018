#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace unit {

/// The socket of a service manager, in the environment as well as long as it lives.
class ManagerSocket {
public:
  /// @param name  path, or "@" and a name that is in no file system
  explicit ManagerSocket(std::string name) : path(std::move(name)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@') address.sun_path[0] = '\0';
    fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), size) != 0) abort();
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  ~ManagerSocket() {
    close(fd);
    if (path[0] != '@') unlink(path.c_str());
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
  }
  ManagerSocket(const ManagerSocket&) = delete;
  ManagerSocket& operator=(const ManagerSocket&) = delete;
  ManagerSocket(ManagerSocket&&) = delete;
  ManagerSocket& operator=(ManagerSocket&&) = delete;

  /// A name that no other process uses.
  static std::string own_name(const std::string& prefix) { return prefix + std::to_string(getpid()); }

  /// Everything that has arrived since the last call.
  std::vector<std::string> messages() const {
    std::vector<std::string> received;
    char bytes[4096];
    for (;;) {
      const ssize_t size = recv(fd, bytes, sizeof bytes, 0);
      if (size < 0) return received;
      received.emplace_back(bytes, static_cast<std::size_t>(size));
    }
  }

private:
  const std::string path;
  int fd = -1;
};

}  // namespace unit
