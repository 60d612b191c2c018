#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "artnet/RecordingFormat.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/ForeignReader.h"
#include "cue/Input.h"
#include "tests/fuzz/script.h"

/// A file in memory with the bytes of an input, under a name that can be opened as often as wanted.
class FileInMemory {
public:
  FileInMemory(const std::uint8_t* data, std::size_t size) : fd(memfd_create("input", MFD_CLOEXEC)) {
    REQUIRE(fd != -1);
    REQUIRE(write(fd, data, size) == static_cast<ssize_t>(size));
  }
  ~FileInMemory() { close(fd); }
  FileInMemory(const FileInMemory&) = delete;
  FileInMemory& operator=(const FileInMemory&) = delete;
  FileInMemory(FileInMemory&&) = delete;
  FileInMemory& operator=(FileInMemory&&) = delete;

  cue::Input input() const { return {"/proc/self/fd/" + std::to_string(fd)}; }

private:
  int fd;
};

struct ForeignResult {
  struct Datagram {
    std::string bytes;
    std::int64_t time = 0;

    bool operator==(const Datagram& other) const { return bytes == other.bytes && time == other.time; }
  };
  std::vector<Datagram> datagrams;
  bool whole = false;  // read to its end
};

/// Reads a foreign file; nothing when it is refused. Whatever it holds, each datagram is one ArtDmx that can
/// be recorded, and no time goes back. @param most  datagrams: a few bytes can stand for hours
template <typename Open>
std::unique_ptr<ForeignResult> read_foreign(const cue::Input& input, Open open, std::size_t most) {
  std::unique_ptr<cue::ForeignReader> reader;
  try {
    reader = open(input);
  } catch (const cue::CueError&) {
    return nullptr;
  }
  auto result = std::make_unique<ForeignResult>();
  cue::ForeignDatagram datagram;
  std::int64_t time = 0;
  while (result->datagrams.size() < most) {
    if (!reader->next(datagram)) {
      REQUIRE(!reader->next(datagram));
      result->whole = reader->breaks_off().empty();
      break;
    }
    REQUIRE(datagram.time >= time);
    REQUIRE(datagram.size <= kDmxHeaderSize + kDmxSlots);
    const cue::DatagramShape shape = cue::shape_of(datagram.data, datagram.size);
    REQUIRE(shape.recordable() && shape.dmx_count == 1 && shape.dmx_bytes == datagram.size);
    time = datagram.time;
    result->datagrams.push_back(
        {std::string(reinterpret_cast<const char*>(datagram.data), datagram.size), time});
  }
  for (const std::string& loss : reader->losses()) REQUIRE(loss.find('\n') == std::string::npos);
  return result;
}
