#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "kesto/thread_annotations.h"

namespace kesto {

/// std::mutex with the annotations that the standard library lacks.
class CAPABILITY("mutex") Mutex {
public:
  void lock() ACQUIRE() { mutex.lock(); }
  void unlock() RELEASE() { mutex.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex.try_lock(); }

private:
  friend class ConditionVariable;
  std::mutex mutex;
};

/// Holds a mutex as long as it lives.
class SCOPED_CAPABILITY MutexLock {
public:
  explicit MutexLock(Mutex& held) ACQUIRE(held) : mutex(held) { mutex.lock(); }
  ~MutexLock() RELEASE() { mutex.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

private:
  Mutex& mutex;
};

/// std::condition_variable for a Mutex. A wait may end for no reason: test the condition again.
class ConditionVariable {
public:
  /// Releases @p mutex during the wait.
  void wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex, std::adopt_lock);
    condition.wait(lock);
    lock.release();
  }

  /// @return false when @p deadline (of the steady clock) has passed
  bool wait_until(Mutex& mutex, std::chrono::steady_clock::time_point deadline) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex, std::adopt_lock);
    const bool in_time = condition.wait_until(lock, deadline) == std::cv_status::no_timeout;
    lock.release();
    return in_time;
  }

  void notify_one() { condition.notify_one(); }
  void notify_all() { condition.notify_all(); }

private:
  std::condition_variable condition;
};

}  // namespace kesto
