#include "src/OpenFile.h"

#include <fcntl.h>

#include <QFile>
#include <cerrno>
#include <chrono>

#include "kesto/delay.h"
#include "src/ThreadSignals.h"

namespace {

// The kernel has asked the holder of a lease to give it up when it refuses the first time.
constexpr auto kLeasePatience = std::chrono::seconds(1);
constexpr auto kLeaseLook = std::chrono::milliseconds(5);

}  // namespace

int open_file(const QString& path, int flags, mode_t permissions) {
  const QByteArray name = QFile::encodeName(path);
  const auto deadline = kesto::Clock::now() + kLeasePatience;
  for (;;) {
    const int fd = ::open(name.constData(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, permissions);
    const bool leased = fd == -1 && errno == EWOULDBLOCK;
    if (!leased || end_requested() || kesto::Clock::now() >= deadline) return fd;
    kesto::sleep_for(kLeaseLook);
  }
}
