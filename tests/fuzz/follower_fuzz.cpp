#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "cue/RecordingReader.h"
#include "cue/live/Follower.h"
#include "tests/fuzz/script.h"

// The follower of a growing recording. Input: a seed for the portions (16 bits), their largest size (16
// bits), and the file. However it grew, the follower delivers what the reader of the whole file does.

namespace {

struct Read {
  std::string bytes;
  std::int64_t pause = 0;
  std::int64_t time = 0;
  std::uint64_t offset = 0;

  explicit Read(const cue::Record& record)
      : bytes(reinterpret_cast<const char*>(record.data), record.size),
        pause(record.pause),
        time(record.time),
        offset(record.offset) {}

  bool operator==(const Read& other) const {
    return bytes == other.bytes && pause == other.pause && time == other.time && offset == other.offset;
  }
};

struct Reading {
  std::vector<Read> records;
  std::uint64_t damages = 0;
  std::uint64_t lost = 0;  // bytes

  bool operator==(const Reading& other) const {
    return records == other.records && damages == other.damages && lost == other.lost;
  }
};

Reading read_whole(const std::vector<char>& file) {
  std::size_t at = 0;
  cue::RecordingReader reader(
      [&](std::uint8_t* bytes, std::size_t size) {
        const std::size_t count = std::min(size, file.size() - at);
        std::copy_n(file.data() + at, count, bytes);
        at += count;
        return count;
      },
      "input");
  Reading reading;
  do {
    cue::Record record;
    while (reader.next(record)) reading.records.emplace_back(record);
    if (reader.damage()) ++reading.damages;
  } while (reader.resume());
  reading.lost = reader.lost_bytes();
  return reading;
}

/// An empty file without a name, and the path by which it can be opened.
class File {
public:
  File() : fd(memfd_create("recording", MFD_CLOEXEC)), path("/proc/self/fd/" + std::to_string(fd)) {
    REQUIRE(fd != -1);
  }
  ~File() { close(fd); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  File(File&&) = delete;
  File& operator=(File&&) = delete;

  void write(const char* bytes, std::size_t size) const {
    REQUIRE(::write(fd, bytes, size) == static_cast<ssize_t>(size));
  }

  int fd;
  std::string path;
};

void drain(cue::Follower& follower, Reading& reading) {
  cue::Record record;
  while (follower.next(record)) reading.records.emplace_back(record);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  std::minstd_rand chance(script.word());
  const std::size_t largest = std::size_t{script.word()} + 1;
  const std::vector<char> content = script.bytes(size);

  const File file;
  cue::Follower follower(file.path);
  Reading reading;
  for (std::size_t at = 0; at < content.size();) {
    const std::size_t portion = std::min(1 + chance() % largest, content.size() - at);
    file.write(content.data() + at, portion);
    at += portion;
    drain(follower, reading);
  }
  follower.finish();
  drain(follower, reading);
  reading.damages = follower.damages();
  reading.lost = follower.damaged_bytes();
  REQUIRE(follower.size() == content.size());
  REQUIRE(!follower.is_replaced());
  REQUIRE(reading == read_whole(content));
  return 0;
}
