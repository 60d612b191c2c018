// Counts the allocations of a process in the file BENCH_ALLOCATION_FILE: a 64-bit number in host order that
// another process may read at any time.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" {
// The allocator itself, under the names that the C library keeps for those who stand before it.
void* __libc_malloc(std::size_t size);                           // NOLINT: names of the C library
void* __libc_calloc(std::size_t count, std::size_t size);        // NOLINT
void* __libc_realloc(void* memory, std::size_t size);            // NOLINT
void* __libc_memalign(std::size_t alignment, std::size_t size);  // NOLINT
}

namespace {

using Counter = std::atomic<std::uint64_t>;
static_assert(Counter::is_always_lock_free && sizeof(Counter) == sizeof(std::uint64_t));

Counter before_start{0};
Counter* counter = &before_start;

__attribute__((constructor)) void share_counter() {
  const char* const path = std::getenv("BENCH_ALLOCATION_FILE");
  if (path == nullptr) return;
  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd == -1) return;
  if (ftruncate(fd, sizeof(Counter)) == 0) {
    void* const memory = mmap(nullptr, sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory != MAP_FAILED) counter = static_cast<Counter*>(memory);
  }
  close(fd);
}

void count_one() {
  counter->fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
  count_one();
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  count_one();
  return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) {
  count_one();
  return __libc_realloc(memory, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  count_one();
  return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  count_one();
  *memory = __libc_memalign(alignment, size);
  return *memory == nullptr ? 12 : 0;  // ENOMEM
}

}  // extern "C"
