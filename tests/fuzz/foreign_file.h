#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "artnet/RecordingFormat.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/ForeignReader.h"
#include "cue/Input.h"
#include "tests/fuzz/script.h"

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
std::unique_ptr<ForeignResult> read_foreign(const std::string& file, std::size_t portion, Open open,
                                            std::size_t most) {
  std::unique_ptr<cue::ForeignReader> reader;
  try {
    reader = open(
        [&file, portion, at = std::size_t{0}](std::uint8_t* bytes, std::size_t size) mutable {
          const std::size_t count = std::min({size, portion, file.size() - at});
          memcpy(bytes, file.data() + at, count);
          at += count;
          return count;
        },
        "input");
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
