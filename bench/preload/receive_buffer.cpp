// Gives every UDP socket of a process a receive buffer of BENCH_RECEIVE_BUFFER bytes, as a larger
// net.core.rmem_default would: that setting belongs to the whole machine and is not the bench's to change.
#include <dlfcn.h>
#include <sys/socket.h>

#include <cstdlib>

extern "C" int socket(int domain, int type, int protocol) noexcept {
  using Socket = int (*)(int, int, int);
  static const auto next = reinterpret_cast<Socket>(dlsym(RTLD_NEXT, "socket"));
  const int fd = next(domain, type, protocol);
  const char* const text = std::getenv("BENCH_RECEIVE_BUFFER");
  if (fd == -1 || text == nullptr || domain != AF_INET) return fd;
  if ((type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) != SOCK_DGRAM) return fd;
  // The kernel doubles what it is given; the default setting it takes as it is.
  const int size = static_cast<int>(std::strtol(text, nullptr, 10) / 2);
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  return fd;
}
