#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "cue/DatagramWalk.h"
#include "cue/RecordingReader.h"
#include "unit/artnet/packets.h"

/// Recordings in memory: built, read back, and made up at random.
namespace recordings {

/// A delay record. @param pause  ns
inline std::string delay(std::int64_t pause) {
  std::string bytes = packets::header(0x00FE);
  for (unsigned shift = 0; shift < 64; shift += 8)
    bytes += packets::byte(static_cast<unsigned>(static_cast<std::uint64_t>(pause) >> shift));
  return bytes;
}

/// A datagram and the pause before it.
using Datagram = std::pair<std::string, std::int64_t>;

/// The file of these datagrams; the first pause is not written.
inline std::string file_of(const std::vector<Datagram>& datagrams) {
  std::string file;
  for (const auto& [bytes, pause] : datagrams) {
    if (&bytes != &datagrams.front().first) file += delay(pause);
    file += bytes;
  }
  return file;
}

inline const std::uint8_t* bytes_of(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

/// A source over @p file that delivers at most @p portion bytes at a time.
inline cue::RecordingReader::Source source_of(std::string file, std::size_t portion = 1U << 20U) {
  return
      [file = std::move(file), portion, at = std::size_t{0}](std::uint8_t* bytes, std::size_t size) mutable {
        const std::size_t count = std::min({size, portion, file.size() - at});
        memcpy(bytes, file.data() + at, count);
        at += count;
        return count;
      };
}

inline cue::RecordingReader reader_of(const std::string& file) {
  return {source_of(file), "show.cue"};
}

/// Everything that a reader reads from a file.
struct Reading {
  std::vector<Datagram> datagrams;
  std::vector<std::uint64_t> offsets;
  std::vector<std::int64_t> times;
  std::optional<cue::Damage> damage;  // the last one
  std::vector<cue::Damage> damages;
};

inline void read_on(cue::RecordingReader& reader, Reading& reading) {
  cue::Record record;
  while (reader.next(record)) {
    reading.datagrams.emplace_back(std::string(reinterpret_cast<const char*>(record.data), record.size),
                                   record.pause);
    reading.offsets.push_back(record.offset);
    reading.times.push_back(record.time);
  }
  reading.damage = reader.damage();
  if (reading.damage) reading.damages.push_back(*reading.damage);
}

/// Reads the whole file, over every damage.
inline void read_over(cue::RecordingReader& reader, Reading& reading) {
  do read_on(reader, reading);
  while (reader.resume());
}

inline Reading read(const std::string& file) {
  cue::RecordingReader reader = reader_of(file);
  Reading reading;
  read_on(reader, reading);
  return reading;
}

/// Datagrams made up of whole and broken packets, identifiers in unexpected places and bytes of no packet.
class Chance {
public:
  explicit Chance(unsigned seed) : engine(seed) {}

  unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(engine); }

  std::int64_t pause() { return below(4) == 0 ? 0 : static_cast<std::int64_t>(below(1U << 30U)); }

  /// Bytes of no packet, many of them out of the identifier.
  std::string junk() {
    static const std::string letters("Art-Net\0AU", 10);
    std::string bytes;
    for (unsigned n = below(12); n > 0; --n) bytes += letters[below(static_cast<unsigned>(letters.size()))];
    if (below(8) == 0) bytes += std::string(below(600), 'U');
    return bytes;
  }

  std::string slots() {
    std::string bytes;
    switch (below(4)) {
      case 0:
        bytes = junk() + delay(pause()) + junk();
        break;
      case 1:
        bytes = junk() + delay(pause()) + packets::dmx("inner");
        break;
      default:
        bytes = std::string(below(513), static_cast<char>(below(256)));
    }
    return bytes.substr(0, 512);
  }

  std::string dmx() { return packets::dmx(slots(), below(0x8000)); }

  std::string piece() {
    switch (below(9)) {
      case 0:
        return packets::poll();
      case 1:
        return packets::poll_reply(below(4) == 0 ? below(240) : 239);
      case 2:
        return packets::trigger(1, 2);
      case 3:
        return packets::oem_vfps();
      case 4:
        return packets::unknown();
      case 5:
        return packets::dmx_announcing(513 + below(200), slots());
      case 6:
        return dmx();
      default:
        return junk();
    }
  }

  /// Anything, cut off anywhere now and then.
  std::string anything() {
    std::string bytes;
    for (unsigned n = below(5); n > 0; --n) bytes += below(4) == 0 ? delay(pause()) : piece();
    if (below(4) == 0) bytes.resize(below(static_cast<unsigned>(bytes.size()) + 1));
    return bytes;
  }

  /// The rest of a full buffer that a sender sends with an ArtDmx of fewer slots: old levels.
  std::string full_size(std::string packet) {
    const char level = static_cast<char>(below(256));
    if (packet.size() < 530) packet.resize(530, below(2) == 0 ? '\0' : level);
    return packet;
  }

  /// Another packet as senders send it, with bytes that the parser does not know.
  std::string other() {
    static const std::vector<unsigned> sync_time_command{0x5200, 0x9700, 0x2400};
    switch (below(4)) {
      case 0:
        return packets::poll() + std::string(below(2) * 8, '\0');
      case 1:
        return packets::poll_reply();
      case 2:
        return packets::trigger(1, 2) + std::string(below(513), 'x');
      default:
        return packets::unknown(sync_time_command[below(3)]) + packets::high_first(14) + "xx";
    }
  }

  /// A datagram as a sender sends it.
  std::string sent() {
    switch (below(8)) {
      case 0:
        return full_size(dmx());
      case 1: {
        const std::string packet = dmx();
        return packet + std::string((4 - packet.size() % 4) % 4, '\0');
      }
      case 2:
        return dmx() + dmx();
      case 3: {
        const std::string packet = dmx();
        return packet + std::string(packet.size() % 2, '\0') + dmx();
      }
      case 4:
        return dmx() + other();
      case 5:
        return other() + dmx();
      default:
        return dmx();
    }
  }

private:
  std::mt19937 engine;
};

}  // namespace recordings
