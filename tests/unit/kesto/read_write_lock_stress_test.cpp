#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kesto/read_write_lock.h"

// More readers and writers than processors, all at once, for KADREL_LOCK_ROUNDS writes (default 20 000).

namespace {

using kesto::ReadWriteLock;

constexpr int kWriters = 4;
constexpr int kReaders = 3;
constexpr int kLongReaders = 2;

long rounds() {
  const char* text = std::getenv("KADREL_LOCK_ROUNDS");  // NOLINT(concurrency-mt-unsafe) one thread as yet
  return text != nullptr ? std::strtol(text, nullptr, 10) : 20000;
}

/// The guarded values, and counts of the threads inside.
struct Guarded {
  long first = 0;  // plain: only the lock keeps the two together
  long second = 0;
  std::atomic<int> writers_inside{0};
  std::atomic<int> readers_inside{0};
  std::atomic<long> faults{0};

  void write() {
    if (writers_inside.fetch_add(1) != 0 || readers_inside.load() != 0) ++faults;
    ++first;
    // Now and then the others run while the two differ.
    if (first % 64 == 0) sched_yield();
    ++second;
    if (readers_inside.load() != 0) ++faults;
    writers_inside.fetch_sub(1);
  }
  void enter_as_reader() {
    readers_inside.fetch_add(1);
    look();
  }
  void look() {
    if (writers_inside.load() != 0 || first != second) ++faults;
  }
  void leave_as_reader() {
    look();
    readers_inside.fetch_sub(1);
  }
};

TEST(ReadWriteLockStress, MoreReadersAndWritersThanProcessorsNeverMeet) {
  ReadWriteLock lock;
  Guarded guarded;
  const long writes = rounds();
  std::atomic<long> writes_left{writes};
  std::atomic<int> writers_left{kWriters};
  std::atomic<long> reads{0};
  std::vector<std::thread> threads;

  for (int i = 0; i < kWriters; ++i) {
    threads.emplace_back([&] {
      while (reads == 0) sched_yield();  // not before the readers are at work
      for (long turn = 1; writes_left.fetch_sub(1) > 0; ++turn) {
        {
          const std::lock_guard guard(lock.writer());
          guarded.write();
        }
        if (turn % 64 == 0) sched_yield();  // or one writer would take all its turns in a row
      }
      --writers_left;
    });
  }
  for (int i = 0; i < kReaders; ++i) {
    threads.emplace_back([&] {
      do {
        const std::lock_guard guard(lock.reader());
        guarded.enter_as_reader();
        guarded.leave_as_reader();
        ++reads;
      } while (writers_left > 0);
    });
  }
  // As the receive thread does: hold it for good, and step aside for writers.
  for (int i = 0; i < kLongReaders; ++i) {
    threads.emplace_back([&] {
      const std::lock_guard guard(lock.reader());
      do {
        guarded.enter_as_reader();
        guarded.leave_as_reader();
        lock.resolve_pending_write();
        ++reads;
      } while (writers_left > 0);
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(guarded.faults, 0);
  EXPECT_EQ(guarded.first, writes);
  EXPECT_EQ(guarded.second, writes);
}

}  // namespace
