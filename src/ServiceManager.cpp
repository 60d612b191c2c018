#include "src/ServiceManager.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#ifdef KADREL_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#ifdef KADREL_SYSTEMD
namespace {

// A proof each day costs nothing. What a starter may ask for at most, 584,942 years, is more than a clock
// counts.
constexpr std::uint64_t kLongestWatchdog = 86'400'000'000;  // us

}  // namespace
#endif

ServiceManager::ServiceManager() {
#ifdef KADREL_SYSTEMD
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
  const char* const variable = getenv("NOTIFY_SOCKET");
  const std::string_view name = variable != nullptr ? variable : "";
  // A path, or a name that is in no file system.
  const bool is_name = !name.empty() && (name.front() == '/' || name.front() == '@');
  if (!is_name || name.size() < 2 || name.size() >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, name.data(), name.size());
  address_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  if (name.front() == '@')
    address.sun_path[0] = '\0';
  else
    ++address_size;
  fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::uint64_t time = 0;
  if (fd != -1 && sd_watchdog_enabled(0, &time) > 0)
    watchdog_time = std::chrono::microseconds(std::min(time, kLongestWatchdog));
#endif
}

ServiceManager::~ServiceManager() {
  if (fd != -1) close(fd);
}

// sd_notify() would wait while the manager's queue is full, and the calls of all clients with it.
bool ServiceManager::tell(const std::string& state) const {
  return fd != -1 && sendto(fd, state.data(), state.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                            reinterpret_cast<const sockaddr*>(&address), address_size) != -1;
}
