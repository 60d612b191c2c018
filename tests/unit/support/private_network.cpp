#include "unit/support/private_network.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace unit {
namespace {

bool write_file(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd == -1) return false;
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return written;
}

/// New namespaces; whoever is not root becomes root of a user namespace first.
bool enter_namespaces(int kinds) {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (user == 0) return unshare(kinds) == 0;
  return unshare(CLONE_NEWUSER | kinds) == 0 && write_file("/proc/self/setgroups", "deny") &&
         write_file("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
         write_file("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

bool raise_loopback() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd == -1) return false;
  ifreq request;
  memset(&request, 0, sizeof request);
  strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  const bool raised = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  close(fd);
  return raised;
}

}  // namespace

bool enter_private_network() {
  return enter_namespaces(CLONE_NEWNET) && raise_loopback();
}

bool enter_private_network_and_opt() {
  return enter_namespaces(CLONE_NEWNET | CLONE_NEWNS) && raise_loopback() &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", "/opt", "tmpfs", 0, nullptr) == 0;
}

bool shell(const char* command) {
  return std::system(command) == 0;
}  // NOLINT(concurrency-mt-unsafe) one thread

}  // namespace unit
