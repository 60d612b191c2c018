// The lock and the clock that the receive loop meets for every datagram.
#include "bench/micro/micro.h"
#include "kesto/delay.h"
#include "kesto/read_write_lock.h"

namespace {

void reader(benchmark::State& state) {
  kesto::ReadWriteLock lock;
  for (auto step : state) {
    lock.lock_as_reader();
    lock.unlock_as_reader();
  }
}

void no_writer(benchmark::State& state) {
  kesto::ReadWriteLock lock;
  lock.lock_as_reader();
  for (auto step : state) lock.resolve_pending_write();
  lock.unlock_as_reader();
}

void writer(benchmark::State& state) {
  kesto::ReadWriteLock lock;
  for (auto step : state) {
    lock.lock_as_writer();
    lock.unlock_as_writer();
  }
}

void clock_read(benchmark::State& state) {
  for (auto step : state) benchmark::DoNotOptimize(kesto::Clock::now());
}

}  // namespace

void register_support() {
  add("lock/reader", reader);
  add("lock/no_writer_waits", no_writer);
  add("lock/writer", writer);
  add("clock/now", clock_read);
}
