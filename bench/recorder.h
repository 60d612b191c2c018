#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

/// What the recorders that kadrel is compared with have in common: the least that writes the same file.

inline volatile std::sig_atomic_t recorder_ended = 0;

/// SIGTERM and SIGINT interrupt a receive call that waits.
inline void end_on_signals() {
  struct sigaction action {};
  action.sa_handler = [](int /*signal*/) { recorder_ended = 1; };
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
}

/// Blocking UDP socket on @p port of the wildcard address; ends the process when there is none.
inline int recorder_socket(const char* port) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::strtol(port, nullptr, 10)));
  if (fd == -1 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    perror("recorder: bind");
    std::exit(1);
  }
  return fd;
}

inline std::int64_t recorder_clock() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

/// A recording: datagrams, and before each but the first an 18-byte delay record.
class RecordingWriter {
public:
  explicit RecordingWriter(const char* path) {
    // Its blocks go through a call of write() that a preload can hold up; the C library's own is out of
    // reach.
    const cookie_io_functions_t through{nullptr,
                                        [](void* cookie, const char* data, std::size_t size) {
                                          return ::write(*static_cast<int*>(cookie), data, size);
                                        },
                                        nullptr, nullptr};
    fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd != -1) file = fopencookie(&fd, "wb", through);
    if (file == nullptr || setvbuf(file, buffer, _IOFBF, sizeof buffer) != 0) {
      perror("recorder: file");
      std::exit(1);
    }
    std::memcpy(delay, "Art-Net\0\xFE", 10);
  }
  ~RecordingWriter() {
    std::fclose(file);
    close(fd);
  }
  RecordingWriter(const RecordingWriter&) = delete;
  RecordingWriter& operator=(const RecordingWriter&) = delete;
  RecordingWriter(RecordingWriter&&) = delete;
  RecordingWriter& operator=(RecordingWriter&&) = delete;

  void write(const char* datagram, std::size_t size, std::int64_t time) {
    if (before != 0) {
      const std::int64_t pause = time - before;
      std::memcpy(delay + 10, &pause, sizeof pause);
      std::fwrite(delay, sizeof delay, 1, file);
    }
    before = time;
    std::fwrite(datagram, size, 1, file);
  }

private:
  // The C library takes a size only together with the memory.
  char buffer[16 << 10];
  std::FILE* file = nullptr;
  int fd = -1;
  char delay[18] = {};
  std::int64_t before = 0;  // ns; 0: nothing written yet
};
