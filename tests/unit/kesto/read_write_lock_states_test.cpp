#include <gtest/gtest.h>
#include <sched.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <vector>

// The algorithm of the reader-writer lock as a machine whose steps are the atomic operations of the lock.
// Every state that a few readers and writers can reach in any order of steps is visited and checked. To show
// that the machine equals the lock's code, both run side by side, one atomic operation at a time.

namespace {

/// One thread. A reader runs: lock, resolve a pending write, unlock, and again; a writer: lock, unlock, and
/// again.
enum Place : std::uint8_t {
  // Reader.
  LoadReaders,
  RaiseReaders,
  LookForWriter,
  BackOut,
  AwaitWriter,
  Holding,  // next: the look of resolve_pending_write()
  StepAside,
  AwaitPendingWriter,
  Leaving,  // still holding; next: unlock
  // Writer.
  LoadWriting,
  ClaimWriting,
  AwaitReaders,
  Writing,
};

struct Thread {
  Place place;
  std::uint8_t seen;  // what was loaded for the compare-and-swap
  std::uint8_t
      stepping;  // reader in resolve_pending_write(): the writer's claim 2: stands, 1: has been released
};

constexpr std::size_t kMostThreads = 5;

struct State {
  std::uint8_t writing = 0;
  std::uint8_t readers = 0;
  std::array<Thread, kMostThreads> threads{};

  std::string key() const { return {reinterpret_cast<const char*>(this), sizeof *this}; }
};
static_assert(sizeof(State) == 2 + 3 * kMostThreads, "no padding: the bytes are the identity of a state");

bool is_inside(const Thread& thread) {
  return thread.place == Holding || thread.place == StepAside || thread.place == Leaving;
}

/// What went wrong in a step; empty when nothing did.
using Fault = std::string;

/// One atomic operation of one thread. @param weak_failure  a compare-and-swap fails although the values
/// agree
/// @return whether such a failure was possible here
bool step(State& state, std::size_t who, bool weak_failure, Fault& fault) {
  Thread& self = state.threads[who];
  const auto enter_as_reader = [&] {
    for (std::size_t i = 0; i < kMostThreads; ++i) {
      const Place place = state.threads[i].place;
      if (place == Writing || place == AwaitReaders)
        fault = "a reader enters although a writer has claimed the lock";
    }
    if (self.stepping == 2) fault = "a reader comes back before the pending writer has released";
    self.place = self.stepping != 0 ? Leaving : Holding;
    self.stepping = 0;
  };
  const auto lower_readers = [&] {
    if (state.readers == 0) fault = "more readers leave than have entered";
    --state.readers;
  };
  switch (self.place) {
    case LoadReaders:
      self.seen = state.readers;
      self.place = RaiseReaders;
      return false;
    case RaiseReaders:
      if (self.seen == state.readers && !weak_failure) {
        ++state.readers;
        self.place = LookForWriter;
      } else {
        self.place = LoadReaders;
      }
      self.seen = 0;
      return true;
    case LookForWriter:
      if (state.writing == 0)
        enter_as_reader();
      else
        self.place = BackOut;
      return false;
    case BackOut:
      lower_readers();
      self.place = AwaitWriter;
      return false;
    case AwaitWriter:
      if (state.writing == 0) self.place = LoadReaders;
      return false;
    case Holding:
      self.place = state.writing == 0 ? Leaving : StepAside;
      return false;
    case StepAside:
      lower_readers();
      self.stepping = 2;
      self.place = AwaitPendingWriter;
      return false;
    case AwaitPendingWriter:
      if (state.writing == 0) self.place = LoadReaders;
      return false;
    case Leaving:
      lower_readers();
      self.place = LoadReaders;
      return false;
    case LoadWriting:
      self.seen = state.writing;
      self.place = ClaimWriting;
      return false;
    case ClaimWriting:
      if (self.seen == state.writing && !weak_failure) {
        state.writing = 1;
        self.place = self.seen == 0 ? AwaitReaders : LoadWriting;
      } else {
        self.place = LoadWriting;
      }
      self.seen = 0;
      return true;
    case AwaitReaders:
      if (state.readers != 0) return false;
      self.place = Writing;
      for (std::size_t i = 0; i < kMostThreads; ++i) {
        if (i != who && state.threads[i].place == Writing) fault = "two writers are inside";
        if (is_inside(state.threads[i])) fault = "a writer enters although a reader is inside";
      }
      return false;
    case Writing:
      state.writing = 0;
      self.place = LoadWriting;
      for (Thread& thread : state.threads)
        if (thread.stepping == 2) thread.stepping = 1;
      return false;
  }
  return false;
}

State initial(std::size_t readers, std::size_t writers) {
  State state;
  for (std::size_t i = 0; i < kMostThreads; ++i) {
    state.threads[i].place = i < readers ? LoadReaders : LoadWriting;
    // Threads that do not take part never move from here.
    if (i >= readers + writers) state.threads[i].place = LoadReaders;
  }
  return state;
}

struct Exploration {
  std::size_t states = 0;
  Fault fault;
  std::size_t stuck = 0;                    // states from which the lock never gets free again
  std::vector<std::size_t> reached_inside;  // per thread: states in which it holds the lock
};

/// Visits every state that the threads can reach by any order of their steps.
Exploration explore(std::size_t readers, std::size_t writers) {
  const std::size_t threads = readers + writers;
  Exploration result;
  result.reached_inside.assign(threads, 0);
  std::unordered_map<std::string, std::uint32_t> numbers;
  std::vector<State> states;
  std::vector<std::vector<std::uint32_t>> before;  // per state: states that lead to it
  const auto number_of = [&](const State& state) {
    const auto [at, is_new] = numbers.emplace(state.key(), static_cast<std::uint32_t>(states.size()));
    if (is_new) {
      states.push_back(state);
      before.emplace_back();
    }
    return at->second;
  };
  number_of(initial(readers, writers));
  for (std::uint32_t current = 0; current < states.size(); ++current) {
    for (std::size_t who = 0; who < threads; ++who) {
      const Place place = states[current].threads[who].place;
      if (place == Writing || is_inside(states[current].threads[who])) ++result.reached_inside[who];
      for (const bool weak_failure : {false, true}) {
        State next = states[current];
        const bool may_fail = step(next, who, weak_failure, result.fault);
        if (!result.fault.empty()) return result;
        if (weak_failure && !may_fail) continue;
        before[number_of(next)].push_back(current);
      }
    }
  }
  result.states = states.size();

  // Backwards from the free lock: states that cannot reach it are deadlocks or endless livelocks.
  std::vector<bool> gets_free(states.size(), false);
  std::vector<std::uint32_t> open{0};
  gets_free[0] = true;
  while (!open.empty()) {
    const std::uint32_t current = open.back();
    open.pop_back();
    for (const std::uint32_t earlier : before[current]) {
      if (gets_free[earlier]) continue;
      gets_free[earlier] = true;
      open.push_back(earlier);
    }
  }
  for (const bool free : gets_free) result.stuck += free ? 0 : 1;
  return result;
}

void expect_safe(std::size_t readers, std::size_t writers) {
  const Exploration result = explore(readers, writers);
  EXPECT_EQ(result.fault, "");
  EXPECT_EQ(result.stuck, 0U);
  for (const std::size_t inside : result.reached_inside) EXPECT_GT(inside, 0U);
  testing::Test::RecordProperty("states", std::to_string(result.states));
}

TEST(ReadWriteLockStates, TwoReadersAndTwoWritersAreSafeInEveryOrderOfTheirSteps) {
  expect_safe(2, 2);
}

TEST(ReadWriteLockStates, ThreeReadersAndOneWriterAreSafeInEveryOrderOfTheirSteps) {
  expect_safe(3, 1);
}

TEST(ReadWriteLockStates, OneReaderAndThreeWritersAreSafeInEveryOrderOfTheirSteps) {
  expect_safe(1, 3);
}

TEST(ReadWriteLockStates, ThreeReadersAndTwoWritersAreSafeInEveryOrderOfTheirSteps) {
  expect_safe(3, 2);
}

}  // namespace

// ---- the machine and the code, side by side ----

namespace stepping {

/// Next operation of a thread, and its word.
enum Operation { LoadOfReaders, LoadOfWriting, SwapOfReaders, SwapOfWriting, Subtraction, Store, None };

/// Lets one of several threads at a time do one atomic operation.
class Baton {
public:
  struct Over {};

  /// Called by a thread before an operation: waits for its turn. @throws Over when there will be none
  void await_turn(std::size_t who, Operation operation) {
    std::unique_lock<std::mutex> lock(mutex);
    next[who] = operation;
    arrived = true;
    changed.notify_all();
    changed.wait(lock, [&] { return turn == static_cast<int>(who) || over; });
    if (over) throw Over();
    turn = -1;
  }

  /// Called by the driver: returns when the thread that `start` starts has come to its first operation.
  void await_arrival(const std::function<void()>& start) {
    std::unique_lock<std::mutex> lock(mutex);
    arrived = false;
    start();
    changed.wait(lock, [&] { return arrived; });
  }

  /// Called by the driver: lets a thread do its operation and returns when it has come to the next one.
  void hand_to(std::size_t who) {
    std::unique_lock<std::mutex> lock(mutex);
    arrived = false;
    turn = static_cast<int>(who);
    changed.notify_all();
    changed.wait(lock, [&] { return arrived; });
  }

  void end() {
    const std::lock_guard<std::mutex> lock(mutex);
    over = true;
    changed.notify_all();
  }

  // Written by the driver between the turns.
  bool weak_failure = false;
  std::array<Operation, kMostThreads> next{};

private:
  std::mutex mutex;
  std::condition_variable changed;
  int turn = -1;
  bool arrived = false;
  bool over = false;
};

Baton* baton = nullptr;
thread_local std::size_t own_number = 0;

/// An atomic word whose every operation waits for the turn of its thread. The value is seen from outside.
template <typename Value>
class SteppedAtomic {
public:
  static inline Value value{};

  void store(Value wanted) {
    await_turn(Store);
    value = wanted;
  }
  Value load() const {
    await_turn(kIsWriting ? LoadOfWriting : LoadOfReaders);
    return value;
  }
  bool compare_exchange_weak(Value& expected, Value wanted) {
    await_turn(kIsWriting ? SwapOfWriting : SwapOfReaders);
    if (value != expected || baton->weak_failure) {
      expected = value;
      return false;
    }
    value = wanted;
    return true;
  }
  Value fetch_sub(Value less) {
    await_turn(Subtraction);
    const Value before = value;
    value -= less;
    return before;
  }

private:
  static constexpr bool kIsWriting = std::is_same_v<Value, bool>;

  /// There is no baton yet while the lock is constructed.
  static void await_turn(Operation operation) {
    if (baton != nullptr) baton->await_turn(own_number, operation);
  }
};

}  // namespace stepping

// The source of the lock again, under another name and with these words instead of std::atomic.
namespace std {
template <typename Value>
using stepped_atomic = stepping::SteppedAtomic<Value>;
}  // namespace std
#define atomic stepped_atomic
#define kesto stepped
#include "kesto/read_write_lock.h"
#undef kesto
#undef atomic

namespace {

using stepping::Operation;
using stepping::SteppedAtomic;

Operation operation_at(Place place) {
  switch (place) {
    case LoadReaders:
    case AwaitReaders:
      return Operation::LoadOfReaders;
    case RaiseReaders:
      return Operation::SwapOfReaders;
    case ClaimWriting:
      return Operation::SwapOfWriting;
    case BackOut:
    case StepAside:
    case Leaving:
      return Operation::Subtraction;
    case Writing:
      return Operation::Store;
    default:
      return Operation::LoadOfWriting;
  }
}

/// Runs real threads through the source of the lock, one operation at a time in a random order, and the
/// machine with them.
class SideBySide {
public:
  SideBySide(std::size_t readers, std::size_t writers, unsigned seed)
      : state(initial(readers, writers)), count(readers + writers), dice(seed) {
    stepping::baton = &turns;
    for (std::size_t i = 0; i < count; ++i)
      turns.await_arrival([&] { threads.emplace_back(&SideBySide::run, this, i, i < readers); });
  }
  SideBySide(const SideBySide&) = delete;
  SideBySide& operator=(const SideBySide&) = delete;
  SideBySide(SideBySide&&) = delete;
  SideBySide& operator=(SideBySide&&) = delete;
  ~SideBySide() {
    turns.end();
    for (std::thread& thread : threads) thread.join();
    stepping::baton = nullptr;
  }

  /// One step of both. @return whether both have the same words now and every thread the same operation
  /// before it
  bool advance() {
    const std::size_t who = dice() % count;
    turns.weak_failure = dice() % 8 == 0;
    Fault fault;
    step(state, who, turns.weak_failure, fault);
    turns.hand_to(who);
    bool same = fault.empty() && SteppedAtomic<bool>::value == (state.writing != 0) &&
                SteppedAtomic<std::uint32_t>::value == state.readers;
    for (std::size_t i = 0; i < count; ++i)
      same = same && turns.next[i] == operation_at(state.threads[i].place);
    return same;
  }

private:
  void run(std::size_t who, bool is_reader) {
    stepping::own_number = who;
    try {
      for (;;) {
        if (is_reader) {
          lock.lock_as_reader();
          lock.resolve_pending_write();
          lock.unlock_as_reader();
        } else {
          lock.lock_as_writer();
          lock.unlock_as_writer();
        }
      }
    } catch (const stepping::Baton::Over&) {
      // The comparison has ended.
    }
  }

  State state;
  std::size_t count;
  std::mt19937 dice;
  stepping::Baton turns;
  stepped::ReadWriteLock lock;
  std::vector<std::thread> threads;
};

TEST(ReadWriteLockStates, TheMachineIsTheSourceOfTheLock) {
  for (const unsigned seed : {1U, 2U, 3U}) {
    SideBySide both(2, 2, seed);
    for (int i = 0; i < 5000; ++i) ASSERT_TRUE(both.advance()) << "seed " << seed << ", step " << i;
  }
}

}  // namespace
