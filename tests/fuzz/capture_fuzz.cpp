#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "artnet/RecordingFormat.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/Import.h"
#include "tests/fuzz/script.h"

// The import of captures: pcap, pcapng and gzip of these, frames, fragments, E1.31. Input: one byte of
// options and a file. Whatever it holds, the import ends, delivers only what a recording can hold, never goes
// back in time, and reads the same whether the file comes whole or byte by byte.

namespace {

using Datagrams = std::vector<std::pair<std::string, std::int64_t>>;

cue::ImportOptions options_of(unsigned choice) {
  cue::ImportOptions options;
  if ((choice & 1U) != 0) options.capture.protocol = cue::Protocol::ArtNet;
  if ((choice & 2U) != 0) options.capture.protocol = cue::Protocol::Sacn;
  if ((choice & 4U) != 0) options.capture.port = 6454;
  if ((choice & 8U) != 0) options.capture.senders = {0x0A000001};
  return options;
}

/// @param portion  bytes that the file delivers at a time
Datagrams import(const std::uint8_t* data, std::size_t size, std::size_t portion, unsigned choice) {
  Datagrams datagrams;
  std::string end;
  std::size_t at = 0;
  const cue::ByteSource source = [&](std::uint8_t* bytes, std::size_t wanted) {
    const std::size_t count = std::min({wanted, portion, size - at});
    memcpy(bytes, data + at, count);
    at += count;
    return count;
  };
  try {
    const cue::ForeignFile file = cue::open_foreign(source, "input", options_of(choice));
    cue::ForeignDatagram datagram;
    std::int64_t last = 0;
    while (file.reader->next(datagram)) {
      REQUIRE(datagram.time >= last);
      REQUIRE(datagram.size <= kLongestDatagram);
      REQUIRE(cue::shape_of(datagram.data, datagram.size).recordable());
      last = datagram.time;
      datagrams.emplace_back(std::string(reinterpret_cast<const char*>(datagram.data), datagram.size),
                             datagram.time);
    }
    end = file.reader->breaks_off();
    for (const std::string& loss : file.reader->losses()) end += "; " + loss;
  } catch (const cue::CueError& error) {
    end = error.what();
  }
  REQUIRE(end.find('\n') == std::string::npos);
  return datagrams;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const unsigned choice = *data++;
  --size;
  // Not the words at the end: which of two damages is met first, in the compressed bytes or in the unpacked
  // ones, depends on how far the reading is ahead.
  const Datagrams datagrams = import(data, size, size + 1, choice);
  if (size < 4096) REQUIRE(import(data, size, 1, choice) == datagrams);
  return 0;
}
