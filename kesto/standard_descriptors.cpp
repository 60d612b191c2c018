#include "kesto/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace kesto {

void occupy_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) == -1) [[maybe_unused]]
      const int opened = open("/dev/null", O_RDWR);
  }
}

}  // namespace kesto
