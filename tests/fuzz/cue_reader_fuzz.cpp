#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <string>
#include <system_error>
#include <vector>

#include "artnet/ArtNetParser.h"
#include "cue/DatagramBounds.h"
#include "cue/DatagramWalk.h"
#include "cue/RecordingReader.h"
#include "tests/fuzz/script.h"

// The reader of recordings. Input: a file. Whatever it holds, the reader ends, stays in its memory, delivers
// only what the recorder can write, and leaves out no byte of a file that it calls whole.

namespace {

struct Read {
  std::string bytes;
  std::int64_t pause = 0;
  std::int64_t time = 0;
  std::uint64_t offset = 0;

  bool operator==(const Read& other) const {
    return bytes == other.bytes && pause == other.pause && time == other.time && offset == other.offset;
  }
};

struct Reading {
  std::vector<Read> records;
  std::vector<std::uint64_t> damages;
  std::uint64_t good_end = 0;  // of the first damage
  std::uint64_t lost = 0;      // bytes

  bool operator==(const Reading& other) const {
    return records == other.records && damages == other.damages && good_end == other.good_end &&
           lost == other.lost;
  }
};

/// Reads the whole file, over every damage, @p portion bytes at a time.
Reading read(const std::string& file, std::size_t portion) {
  std::size_t at = 0;
  cue::RecordingReader reader(
      [&](std::uint8_t* bytes, std::size_t size) {
        const std::size_t count = std::min({size, portion, file.size() - at});
        memcpy(bytes, file.data() + at, count);
        at += count;
        return count;
      },
      "input", 0);
  Reading reading;
  do {
    cue::Record record;
    while (reader.next(record)) {
      reading.records.push_back({std::string(reinterpret_cast<const char*>(record.data), record.size),
                                 record.pause, record.time, record.offset});
    }
    if (!reader.damage()) break;
    if (reading.damages.empty()) reading.good_end = reader.damage()->good_end;
    reading.damages.push_back(reader.damage()->offset);
  } while (reader.resume());
  reading.lost = reader.lost_bytes();
  return reading;
}

/// The walk over a datagram finds what the recorder's parser finds.
void compare_walk(const std::string& datagram) {
  ArtNetParser parser;
  std::vector<int> expected;
  parser.on_poll = [](ArtPoll&) {};
  parser.on_poll_reply = [](ArtPollReply&) {};
  parser.on_dmx = [&](ArtDmx& packet) {
    if (!parser.from_stale_bytes()) expected.push_back(packet.universe);
  };
  PacketStream packet(datagram.data(), datagram.size());
  std::istream stream(&packet);
  std::error_code ec;
  parser.parse(stream, ec);
  const bool parsed = !ec || ec.value() == errc::HeaderNotFound;
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(datagram.data());
  const cue::DatagramShape shape = cue::shape_of(bytes, datagram.size());
  if (!parsed) {
    // The parser also fails on an ArtPollReply in stale bytes, which the walk does not see.
    REQUIRE(shape.truncated || (datagram.size() > 512 && datagram.size() % 512 < 10));
    return;
  }
  REQUIRE(!shape.truncated);
  std::vector<int> found;
  cue::for_each_dmx(bytes, datagram.size(),
                    [&found](const cue::DmxPacket& dmx) { found.push_back(dmx.port_address); });
  REQUIRE(found == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string file(reinterpret_cast<const char*>(data), size);
  const Reading reading = read(file, file.size() + 1);
  REQUIRE(reading == read(file, 7));

  std::uint64_t end = 0;  // of the record before
  std::int64_t time = 0;
  for (const Read& record : reading.records) {
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(record.bytes.data());
    REQUIRE(record.bytes.size() <= kLongestDatagram);
    REQUIRE(cue::shape_of(bytes, record.bytes.size()).recordable());
    REQUIRE(file.compare(record.offset, record.bytes.size(), record.bytes) == 0);
    REQUIRE(record.offset >= end);
    REQUIRE(record.pause >= 0 && record.time - time == record.pause);
    const bool before_damage =
        reading.damages.empty() || record.offset + record.bytes.size() <= reading.good_end;
    if (before_damage && record.offset > 0) {
      REQUIRE(record.offset == end + kDelaySize);
      REQUIRE(cue::begins_delay(data + end) && cue::delay_pause(data + end) == record.pause);
    }
    end = record.offset + record.bytes.size();
    time = record.time;
  }
  REQUIRE(reading.lost <= size);
  // A file that is called whole is whole: writing down what was read gives it again.
  if (reading.damages.empty()) REQUIRE(end == size);
  REQUIRE(std::is_sorted(reading.damages.begin(), reading.damages.end()));

  if (!file.empty() && size <= kLongestDatagram) compare_walk(file);
  return 0;
}
