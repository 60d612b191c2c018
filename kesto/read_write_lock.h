#pragma once

#include <sched.h>

#include <atomic>
#include <cstdint>

#include "kesto/thread_annotations.h"

namespace kesto {

/// Spinning reader-writer lock with writer preference, made for one long-lived reader and brief writers.
///
/// It waits with sched_yield() only and never sleeps on a kernel object; an uncontended read lock costs one
/// compare-and-swap, one load and one subtraction. No thread of a real-time class may use it together with
/// one of a lower class: on a processor that both share it would yield to itself for ever. Not recursive for
/// writers; a holder of one role must not take the other. Unlocking a role that is not held corrupts the
/// counts. Neither copied nor moved.
class CAPABILITY("lock") ReadWriteLock {
public:
  enum Type { Reader = 0, Writer = 1 };

  /// One role of a lock, for std::lock_guard and its kin.
  template <Type type>
  class Lock {
  public:
    explicit Lock(ReadWriteLock* lock) : owner(lock) {}

    // Not checked: to the checker a role is no lock.
    void lock() NO_THREAD_SAFETY_ANALYSIS {
      if constexpr (type == Reader)
        owner->lock_as_reader();
      else
        owner->lock_as_writer();
    }

    void unlock() NO_THREAD_SAFETY_ANALYSIS {
      if constexpr (type == Reader)
        owner->unlock_as_reader();
      else
        owner->unlock_as_writer();
    }

  private:
    ReadWriteLock* owner;
  };

  ReadWriteLock() : reader_role(this), writer_role(this) {
    writing.store(false);
    readers.store(0);
  }
  ~ReadWriteLock() = default;
  ReadWriteLock(const ReadWriteLock&) = delete;
  ReadWriteLock& operator=(const ReadWriteLock&) = delete;
  ReadWriteLock(ReadWriteLock&&) = delete;
  ReadWriteLock& operator=(ReadWriteLock&&) = delete;

  Lock<Reader>& reader() { return reader_role; }
  Lock<Writer>& writer() { return writer_role; }

  /// Waits while a writer holds or has claimed the lock.
  void lock_as_reader() ACQUIRE_SHARED() {
    for (;;) {
      std::uint32_t count = readers.load();
      if (!readers.compare_exchange_weak(count, count + 1)) continue;
      if (!writing.load()) return;
      readers.fetch_sub(1);
      while (writing.load()) sched_yield();
    }
  }

  void unlock_as_reader() RELEASE_SHARED() { readers.fetch_sub(1); }

  /// Claims the lock, which keeps new readers out, then waits for the readers inside to leave.
  void lock_as_writer() ACQUIRE() {
    for (;;) {
      const bool seen = writing.load();
      bool expected = seen;
      if (!writing.compare_exchange_weak(expected, true)) continue;
      if (!seen) break;
      sched_yield();
    }
    while (readers.load() != 0) sched_yield();
  }

  void unlock_as_writer() RELEASE() { writing.store(false); }

  /// Lets a waiting writer go first, then takes the read lock again. Without a waiting writer it costs one
  /// load.
  void resolve_pending_write() REQUIRES_SHARED(this) {
    if (!writing.load()) return;
    unlock_as_reader();
    while (writing.load()) sched_yield();
    lock_as_reader();
  }

private:
  std::atomic<bool> writing;
  std::atomic<std::uint32_t> readers;
  Lock<Reader> reader_role;
  Lock<Writer> writer_role;
};

}  // namespace kesto
