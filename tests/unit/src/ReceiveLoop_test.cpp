#include "src/ReceiveLoop.h"

#include <gtest/gtest.h>
#include <sys/select.h>

#include <QCoreApplication>
#include <atomic>
#include <thread>

#include "kesto/logger.h"
#include "src/Dump.h"
#include "unit/support/private_network.h"

namespace {

std::atomic<bool> waiting{false};

}  // namespace

// The linker sends the calls of the socket here: a wait for a datagram has no time-out. The names are the
// linker's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" int __real_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout);
extern "C" int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* /*timeout*/) {
  waiting = true;
  return __real_select(count, read, write, except, nullptr);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

TEST(ReceiveLoop, EndsAtOnceThoughNoDatagramComes) {
  ASSERT_TRUE(unit::enter_private_network());
  kesto::Logger::instance()->setOutput(kesto::Logger::None);
  int argument_count = 0;
  QCoreApplication application(argument_count, nullptr);
  {
    const Dump service(6454);
    while (!waiting) std::this_thread::yield();
  }
  // Without a wake-up the end would wait for ever.
  SUCCEED();
}

}  // namespace
