#pragma once

#include <sys/resource.h>

#include <csignal>
#include <cstdint>

namespace unit {

/// As long as it lives, a file of this process can grow to a number of bytes. A write beyond takes what fits,
/// then fails, as on a full disk.
class Room {
public:
  explicit Room(std::int64_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit{static_cast<rlim_t>(bytes), before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~Room() { setrlimit(RLIMIT_FSIZE, &before); }
  Room(const Room&) = delete;
  Room& operator=(const Room&) = delete;
  Room(Room&&) = delete;
  Room& operator=(Room&&) = delete;

private:
  rlimit before{};
};

}  // namespace unit
