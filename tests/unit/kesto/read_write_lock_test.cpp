#include "kesto/read_write_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>
#include <type_traits>
#include <vector>

using kesto::ReadWriteLock;

namespace {

// Action of the calling thread whenever the lock yields. A thread that yields inside the lock waits there, so
// a test never has to guess how far another thread has come.
thread_local std::function<void()> on_yield;
thread_local int yields = 0;

}  // namespace

// The linker sends the calls of the lock here. The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __real_sched_yield();
int __wrap_sched_yield();

int __wrap_sched_yield() {
  ++yields;
  if (on_yield) on_yield();
  return __real_sched_yield();
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

static_assert(!std::is_copy_constructible_v<ReadWriteLock> && !std::is_copy_assignable_v<ReadWriteLock>);
static_assert(!std::is_move_constructible_v<ReadWriteLock> && !std::is_move_assignable_v<ReadWriteLock>);
static_assert(ReadWriteLock::Reader == 0 && ReadWriteLock::Writer == 1);
static_assert(sizeof(ReadWriteLock::Lock<ReadWriteLock::Reader>) == sizeof(void*));
static_assert(std::is_same_v<decltype(std::declval<ReadWriteLock&>().reader()),
                             ReadWriteLock::Lock<static_cast<ReadWriteLock::Type>(0)>&>);
static_assert(std::is_same_v<decltype(std::declval<ReadWriteLock&>().writer()),
                             ReadWriteLock::Lock<static_cast<ReadWriteLock::Type>(1)>&>);

/// Waits for an event of another thread.
void await(const std::atomic<bool>& event) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!event.load()) {
    if (std::chrono::steady_clock::now() > deadline) {
      fputs("an awaited event did not come\n", stderr);
      abort();
    }
    __real_sched_yield();
  }
}

class ReadWriteLockTest : public testing::Test {
protected:
  ReadWriteLockTest() { yields = 0; }
  ~ReadWriteLockTest() override { on_yield = nullptr; }

  /// Number of yields that the next writer of this thread waits, when one of @p readers read locks is
  /// released at each third yield.
  int yields_until_writer_enters(int readers) {
    yields = 0;
    on_yield = [this, &readers] {
      if (readers > 0 && yields % 3 == 0) {
        lock.unlock_as_reader();
        --readers;
      }
    };
    lock.lock_as_writer();
    lock.unlock_as_writer();
    on_yield = nullptr;
    return yields;
  }

  ReadWriteLock lock;
};

TEST_F(ReadWriteLockTest, FreeLockIsTakenWithoutYielding) {
  lock.lock_as_reader();
  lock.unlock_as_reader();
  lock.lock_as_writer();
  lock.unlock_as_writer();
  lock.lock_as_reader();
  lock.unlock_as_reader();
  EXPECT_EQ(yields, 0);
}

TEST_F(ReadWriteLockTest, TwoReadersHoldItTogether) {
  lock.lock_as_reader();
  lock.lock_as_reader();
  EXPECT_EQ(yields, 0);
  lock.unlock_as_reader();
  lock.unlock_as_reader();
}

TEST_F(ReadWriteLockTest, WriterWaitsUntilBothReadersHaveLeft) {
  lock.lock_as_reader();
  lock.lock_as_reader();
  EXPECT_EQ(yields_until_writer_enters(2), 6);
  EXPECT_EQ(yields_until_writer_enters(0), 0);
}

TEST_F(ReadWriteLockTest, ReaderThatArrivesWhileAWriterWaitsEntersAfterThatWriter) {
  std::atomic<bool> writer_waits{false};
  std::atomic<bool> writer_entered{false};
  std::atomic<bool> writer_may_leave{false};
  std::atomic<bool> writer_leaves{false};
  std::atomic<bool> reader_waits{false};
  std::atomic<bool> reader_entered{false};
  std::atomic<bool> writer_was_first{false};

  lock.lock_as_reader();
  std::thread writer([&] {
    on_yield = [&] { writer_waits = true; };
    lock.lock_as_writer();
    writer_entered = true;
    await(writer_may_leave);
    writer_leaves = true;
    lock.unlock_as_writer();
  });
  await(writer_waits);
  std::thread reader([&] {
    on_yield = [&] { reader_waits = true; };
    lock.lock_as_reader();
    writer_was_first = writer_leaves.load();
    reader_entered = true;
    lock.unlock_as_reader();
  });
  await(reader_waits);
  EXPECT_FALSE(writer_entered);
  EXPECT_FALSE(reader_entered);

  lock.unlock_as_reader();
  await(writer_entered);
  reader_waits = false;
  await(reader_waits);
  EXPECT_FALSE(reader_entered);

  writer_may_leave = true;
  writer.join();
  reader.join();
  EXPECT_TRUE(reader_entered);
  EXPECT_TRUE(writer_was_first);
}

TEST_F(ReadWriteLockTest, ReaderKeepsItsLockWhenNoWriterIsPending) {
  lock.lock_as_reader();
  lock.resolve_pending_write();
  EXPECT_EQ(yields, 0);
  EXPECT_EQ(yields_until_writer_enters(1), 3);
}

TEST_F(ReadWriteLockTest, ReaderStepsAsideForAPendingWriterAndHoldsItsLockAgain) {
  std::atomic<bool> writer_waits{false};
  std::atomic<bool> writer_entered{false};
  std::atomic<bool> reader_yielded{false};
  std::atomic<bool> writer_leaves{false};
  int guarded = 1;

  lock.lock_as_reader();
  std::thread writer([&] {
    on_yield = [&] { writer_waits = true; };
    lock.lock_as_writer();
    writer_entered = true;
    await(reader_yielded);
    guarded = 2;
    writer_leaves = true;
    lock.unlock_as_writer();
  });
  await(writer_waits);
  EXPECT_FALSE(writer_entered);
  on_yield = [&] { reader_yielded = true; };
  lock.resolve_pending_write();
  on_yield = nullptr;
  EXPECT_TRUE(writer_leaves);
  EXPECT_EQ(guarded, 2);
  writer.join();
  EXPECT_EQ(yields_until_writer_enters(1), 3);
}

TEST_F(ReadWriteLockTest, SecondWriterWaitsForTheFirst) {
  std::atomic<bool> second_waits{false};
  std::atomic<bool> second_entered{false};
  std::atomic<bool> first_leaves{false};
  std::atomic<bool> first_had_left{false};

  lock.lock_as_writer();
  std::thread second([&] {
    on_yield = [&] { second_waits = true; };
    lock.lock_as_writer();
    first_had_left = first_leaves.load();
    second_entered = true;
    lock.unlock_as_writer();
  });
  await(second_waits);
  second_waits = false;
  await(second_waits);
  EXPECT_FALSE(second_entered);
  first_leaves = true;
  lock.unlock_as_writer();
  second.join();
  EXPECT_TRUE(first_had_left);
}

TEST_F(ReadWriteLockTest, ReaderWaitsForAWriterInside) {
  std::atomic<bool> reader_waits{false};
  std::atomic<bool> reader_entered{false};
  lock.lock_as_writer();
  std::thread reader([&] {
    on_yield = [&] { reader_waits = true; };
    lock.lock_as_reader();
    reader_entered = true;
    lock.unlock_as_reader();
  });
  await(reader_waits);
  EXPECT_FALSE(reader_entered);
  lock.unlock_as_writer();
  reader.join();
  EXPECT_TRUE(reader_entered);
  EXPECT_EQ(yields_until_writer_enters(0), 0);
}

TEST_F(ReadWriteLockTest, ScopedGuardsWorkOnBothRoles) {
  {
    const std::lock_guard<ReadWriteLock::Lock<ReadWriteLock::Reader>> first(lock.reader());
    const std::lock_guard<ReadWriteLock::Lock<ReadWriteLock::Reader>> second(lock.reader());
  }
  { const std::lock_guard<ReadWriteLock::Lock<ReadWriteLock::Writer>> guard(lock.writer()); }
  { const std::lock_guard guard(lock.writer()); }
  EXPECT_EQ(yields, 0);

  lock.reader().lock();
  EXPECT_EQ(yields_until_writer_enters(1), 3);
  lock.lock_as_reader();
  lock.reader().unlock();
  EXPECT_EQ(yields_until_writer_enters(0), 0);
}

TEST_F(ReadWriteLockTest, StreamOfOverlappingReadersDoesNotStarveAWriter) {
  std::atomic<bool> writer_done{false};
  std::atomic<bool> first_holds{false};
  std::atomic<bool> second_holds{false};
  const auto read_in_turns = [&](std::atomic<bool>& mine) {
    while (!writer_done) {
      lock.lock_as_reader();
      mine = true;
      __real_sched_yield();
      mine = false;
      lock.unlock_as_reader();
    }
  };
  std::thread first([&] { read_in_turns(first_holds); });
  std::thread second([&] { read_in_turns(second_holds); });
  for (int i = 0; i < 100; ++i) {
    lock.lock_as_writer();
    EXPECT_FALSE(first_holds || second_holds);
    lock.unlock_as_writer();
  }
  writer_done = true;
  first.join();
  second.join();
}

TEST_F(ReadWriteLockTest, NothingIsLostOrTornUnderLoad) {
  constexpr int kWriters = 2;
  constexpr int kReaders = 2;
  constexpr int kWrites = 20000;
  struct {
    long a = 0;
    long b = 0;
  } guarded;  // plain values: only the lock keeps them together
  std::atomic<int> writers_left{kWriters};
  std::atomic<int> torn{0};

  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&] {
      for (int i = 0; i < kWrites; ++i) {
        const std::lock_guard guard(lock.writer());
        ++guarded.a;
        ++guarded.b;
      }
      --writers_left;
    });
  }
  for (int r = 0; r < kReaders; ++r) {
    threads.emplace_back([&] {
      while (writers_left > 0) {
        const std::lock_guard guard(lock.reader());
        if (guarded.a != guarded.b) ++torn;
      }
    });
  }
  threads.emplace_back([&] {
    const std::lock_guard guard(lock.reader());
    while (writers_left > 0) {
      if (guarded.a != guarded.b) ++torn;
      lock.resolve_pending_write();
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(guarded.a, kWriters * kWrites);
  EXPECT_EQ(guarded.b, kWriters * kWrites);
  EXPECT_EQ(yields_until_writer_enters(0), 0);
}

}  // namespace
