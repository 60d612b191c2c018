// Makes system calls of its process fail or take long. The file KADREL_FAULTS holds the table of faults,
// which the tests write and read while the process runs (tests/service/harness/faults.py).
//
// It stands between the program with its libraries and the C library; calls that the C library makes for
// itself, as syslog() does, are not seen.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// Kind of a descriptor. A fault concerns descriptors of one kind, or all calls of its function.
enum Kind : std::int32_t { Any = 0, Udp = 1, File = 2, Log = 3, Bus = 4, Other = 5 };

// One line of the table, for one function.
struct Fault {
  char name[16];
  std::atomic<std::int32_t> kind;
  std::atomic<std::int32_t> error;  // errno of a call that fails; 0: it is made, after the delay
  std::atomic<std::int64_t> skip;   // calls that are left alone first
  std::atomic<std::int64_t> times;  // calls that are struck then; -1: all
  std::atomic<std::int64_t>
      delay_ns;                     // wait of a struck call, or kHeld; for "realtime" the error of the clock
  std::atomic<std::int64_t> calls;  // calls of this kind so far
  std::atomic<std::int64_t> struck;
};
static_assert(sizeof(Fault) == 64 && std::atomic<std::int64_t>::is_always_lock_free);

// Wait of a struck call that lasts until the test sets another. How often it looks:
constexpr std::int64_t kHeld = -1;
constexpr std::int64_t kLook = 1'000'000;

Fault* table = nullptr;
std::size_t table_size = 0;

__attribute__((constructor)) void map_table() {
  const char* const path = std::getenv("KADREL_FAULTS");
  if (path == nullptr) return;
  const auto fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
  struct stat status {};
  if (fd == -1 || fstat(fd, &status) != 0) abort();
  const auto size = static_cast<std::size_t>(status.st_size);
  void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) abort();
  table = static_cast<Fault*>(memory);
  table_size = size / sizeof(Fault);
  syscall(SYS_close, fd);
}

Fault* find_fault(const char* name) {
  for (std::size_t i = 0; i < table_size; ++i) {
    if (std::strncmp(table[i].name, name, sizeof table[i].name) == 0) return &table[i];
  }
  return nullptr;
}

Kind kind_of_socket(int domain, int type) {
  const bool datagrams = (type & 0xF) == SOCK_DGRAM;
  if (domain == AF_INET && datagrams) return Udp;
  if (domain == AF_UNIX) return datagrams ? Log : Bus;
  return Other;
}

// Without fstat(): the thread sanitizer would take the look for a use of the descriptor that nothing orders
// before its end.
Kind kind_of(int fd) {
  const int errno_before = errno;
  int domain = 0;
  int type = 0;
  socklen_t size = sizeof domain;
  Kind kind = Other;
  struct statx status {};
  if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0) {
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size);
    kind = kind_of_socket(domain, type);
  } else if (syscall(SYS_statx, fd, "", AT_EMPTY_PATH, STATX_TYPE, &status) == 0 &&
             S_ISREG(status.stx_mode)) {
    kind = File;
  }
  errno = errno_before;
  return kind;
}

void wait_ns(std::int64_t ns) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  timespec left{ns / kSecond, ns % kSecond};
  while (syscall(SYS_nanosleep, &left, &left) == -1 && errno == EINTR) {
  }
}

/// @return whether this call fails; errno says why
bool strikes(Fault* fault, Kind kind) {
  if (fault == nullptr) return false;
  if (fault->kind != Any && fault->kind != kind) return false;
  ++fault->calls;
  if (fault->times == 0) return false;
  if (fault->skip > 0 && fault->skip-- > 0) return false;
  if (fault->times > 0 && fault->times-- <= 0) return false;
  ++fault->struck;
  while (fault->delay_ns == kHeld) wait_ns(kLook);
  if (fault->delay_ns > 0) wait_ns(fault->delay_ns);
  if (fault->error == 0) return false;
  errno = fault->error;
  return true;
}

bool strikes_at(Fault* fault, int fd) {
  if (fault == nullptr) return false;
  return strikes(fault, fault->kind == Any ? Any : kind_of(fd));
}

template <typename Function>
Function next_of(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// The line counts that a coverage build writes when the process ends are not calls of the service.
bool holds_line_counts(const char* path) {
  const std::size_t size = std::strlen(path);
  return size > 5 && std::strcmp(path + size - 5, ".gcda") == 0;
}

bool makes_unnamed_file(int flags) {
  return (flags & O_TMPFILE) == O_TMPFILE;
}

}  // namespace

// The next library's function of this name, and its line in the table.
#define BEHIND(NAME)                                                     \
  static const auto next = next_of<decltype(&NAME)>(#NAME); /* NOLINT */ \
  static Fault* const fault = find_fault(#NAME)

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  BEHIND(socket);
  return strikes(fault, kind_of_socket(domain, type)) ? -1 : next(domain, type, protocol);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  BEHIND(bind);
  return strikes_at(fault, fd) ? -1 : next(fd, address, size);
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  BEHIND(connect);
  return strikes_at(fault, fd) ? -1 : next(fd, address, size);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
  BEHIND(setsockopt);
  return strikes_at(fault, fd) ? -1 : next(fd, level, option, value, size);
}

int recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout) {
  BEHIND(recvmmsg);
  return strikes_at(fault, fd) ? -1 : next(fd, messages, count, flags, timeout);
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
  BEHIND(recvmsg);
  return strikes_at(fault, fd) ? -1 : next(fd, message, flags);
}

ssize_t recv(int fd, void* data, size_t size, int flags) {
  BEHIND(recv);
  return strikes_at(fault, fd) ? -1 : next(fd, data, size, flags);
}

ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t to_size) {
  BEHIND(sendto);
  return strikes_at(fault, fd) ? -1 : next(fd, data, size, flags, to, to_size);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  BEHIND(sendmsg);
  return strikes_at(fault, fd) ? -1 : next(fd, message, flags);
}

ssize_t send(int fd, const void* data, size_t size, int flags) {
  BEHIND(send);
  return strikes_at(fault, fd) ? -1 : next(fd, data, size, flags);
}

ssize_t writev(int fd, const iovec* parts, int count) {
  BEHIND(writev);
  return strikes_at(fault, fd) ? -1 : next(fd, parts, count);
}

ssize_t read(int fd, void* data, size_t size) {
  BEHIND(read);
  return strikes_at(fault, fd) ? -1 : next(fd, data, size);
}

ssize_t pread(int fd, void* data, size_t size, off_t offset) {
  BEHIND(pread);
  return strikes_at(fault, fd) ? -1 : next(fd, data, size, offset);
}

ssize_t write(int fd, const void* data, size_t size) {
  BEHIND(write);
  return strikes_at(fault, fd) ? -1 : next(fd, data, size);
}

int ftruncate(int fd, off_t size) noexcept {
  BEHIND(ftruncate);
  return strikes_at(fault, fd) ? -1 : next(fd, size);
}

int fallocate(int fd, int mode, off_t offset, off_t size) {
  BEHIND(fallocate);
  return strikes_at(fault, fd) ? -1 : next(fd, mode, offset, size);
}

int sync_file_range(int fd, off64_t offset, off64_t size, unsigned int flags) {
  BEHIND(sync_file_range);
  return strikes_at(fault, fd) ? -1 : next(fd, offset, size, flags);
}

// A descriptor is gone even when close() fails.
int close(int fd) {
  BEHIND(close);
  const bool fails = strikes_at(fault, fd);
  const int error = errno;
  const int result = next(fd);
  if (!fails) return result;
  errno = error;
  return -1;
}

int select(int count, fd_set* reading, fd_set* writing, fd_set* excepted, timeval* timeout) {
  BEHIND(select);
  return strikes_at(fault, count - 1) ? -1 : next(count, reading, writing, excepted, timeout);
}

int poll(pollfd* polled, nfds_t count, int timeout) {
  BEHIND(poll);
  return strikes_at(fault, count > 0 ? polled[0].fd : -1) ? -1 : next(polled, count, timeout);
}

int pipe2(int fds[2], int flags) noexcept {
  BEHIND(pipe2);
  return strikes(fault, Any) ? -1 : next(fds, flags);
}

int fchmod(int fd, mode_t mode) noexcept {
  BEHIND(fchmod);
  return strikes_at(fault, fd) ? -1 : next(fd, mode);
}

int statx(int directory, const char* path, int flags, unsigned int mask, struct statx* status) noexcept {
  static const auto next = next_of<int (*)(int, const char*, int, unsigned int, struct statx*)>("statx");
  static Fault* const fault = find_fault("statx");
  return strikes(fault, Any) ? -1 : next(directory, path, flags, mask, status);
}

int nanosleep(const timespec* time, timespec* left) {
  BEHIND(nanosleep);
  return strikes(fault, Any) ? -1 : next(time, left);
}

int fstat(int fd, struct stat* status) noexcept {
  static const auto next = next_of<int (*)(int, struct stat*)>("fstat");
  static Fault* const fault = find_fault("fstat");
  return strikes(fault, Any) ? -1 : next(fd, status);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) noexcept {
  BEHIND(pthread_create);
  return strikes(fault, Any) ? errno : next(thread, attributes, function, argument);
}

int open(const char* path, int flags, ...) {
  BEHIND(open);
  static Fault* const unnamed = find_fault("tmpfile");
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = va_arg(rest, mode_t);
  va_end(rest);
  if (makes_unnamed_file(flags) && strikes(unnamed, File)) return -1;
  return !holds_line_counts(path) && strikes(fault, File) ? -1 : next(path, flags, mode);
}

int fcntl(int fd, int command, ...) {
  BEHIND(fcntl);
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return strikes_at(fault, fd) ? -1 : next(fd, command, argument);
}

// The names of these calls where _FILE_OFFSET_BITS is 64.

int open64(const char* path, int flags, ...) {
  static const auto next = next_of<decltype(&open64)>("open64");
  static Fault* const fault = find_fault("open");
  static Fault* const unnamed = find_fault("tmpfile");
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = va_arg(rest, mode_t);
  va_end(rest);
  if (makes_unnamed_file(flags) && strikes(unnamed, File)) return -1;
  return !holds_line_counts(path) && strikes(fault, File) ? -1 : next(path, flags, mode);
}

int fcntl64(int fd, int command, ...) {
  static const auto next = next_of<decltype(&fcntl64)>("fcntl64");
  static Fault* const fault = find_fault("fcntl");
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return strikes_at(fault, fd) ? -1 : next(fd, command, argument);
}

ssize_t pread64(int fd, void* data, size_t size, off64_t offset) {
  static const auto next = next_of<decltype(&pread64)>("pread64");
  static Fault* const fault = find_fault("pread");
  return strikes_at(fault, fd) ? -1 : next(fd, data, size, offset);
}

int ftruncate64(int fd, off64_t size) noexcept {
  static const auto next = next_of<decltype(&ftruncate64)>("ftruncate64");
  static Fault* const fault = find_fault("ftruncate");
  return strikes_at(fault, fd) ? -1 : next(fd, size);
}

int fallocate64(int fd, int mode, off64_t offset, off64_t size) {
  static const auto next = next_of<decltype(&fallocate64)>("fallocate64");
  static Fault* const fault = find_fault("fallocate");
  return strikes_at(fault, fd) ? -1 : next(fd, mode, offset, size);
}

int fstat64(int fd, struct stat64* status) noexcept {
  static const auto next = next_of<int (*)(int, struct stat64*)>("fstat64");
  static Fault* const fault = find_fault("fstat");
  return strikes(fault, Any) ? -1 : next(fd, status);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  BEHIND(ioctl);
  va_list rest;
  va_start(rest, request);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return strikes_at(fault, fd) ? -1 : next(fd, request, argument);
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static const auto next = next_of<decltype(&clock_gettime)>("clock_gettime");
  static const Fault* const fault = find_fault("realtime");
  const int result = next(clock, time);
  if (clock == CLOCK_REALTIME && fault != nullptr) time->tv_sec += fault->delay_ns / 1'000'000'000;
  return result;
}

int gettimeofday(timeval* time, void* zone) noexcept {
  static const auto next = next_of<int (*)(timeval*, void*)>("gettimeofday");
  static const Fault* const fault = find_fault("realtime");
  const int result = next(time, zone);
  if (fault != nullptr) time->tv_sec += fault->delay_ns / 1'000'000'000;
  return result;
}

}  // extern "C"
