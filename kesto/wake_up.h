#pragma once

#include <semaphore.h>

#include <cerrno>
#include <chrono>
#include <ctime>

namespace kesto {

/// Ends the waits of one thread. It takes no mutex: with a condition variable, a thread that has been woken
/// costs a third system call, because it unlocks the mutex as if others waited for it.
class WakeUp {
public:
  using Clock = std::chrono::steady_clock;

  WakeUp() { sem_init(&semaphore, 0, 0); }
  ~WakeUp() { sem_destroy(&semaphore); }
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;
  WakeUp(WakeUp&&) = delete;
  WakeUp& operator=(WakeUp&&) = delete;

  /// Ends the present wait, or the next one at once. Any thread.
  void wake() { sem_post(&semaphore); }

  /// Waits for wake(), until @p deadline at most; max(): without limit.
  void wait_until(Clock::time_point deadline) {
    const auto since = deadline.time_since_epoch();
    const auto whole = std::chrono::floor<std::chrono::seconds>(since);
    const timespec time{static_cast<time_t>(whole.count()), static_cast<long>((since - whole).count())};
    int result = 0;
    do {
      result = deadline == Clock::time_point::max() ? sem_wait(&semaphore)
                                                    : sem_clockwait(&semaphore, CLOCK_MONOTONIC, &time);
    } while (result == -1 && errno == EINTR);
  }

private:
  sem_t semaphore{};
};

}  // namespace kesto
