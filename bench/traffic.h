#pragma once

#include <cstdint>
#include <cstring>

#include "artnet/ArtNet.h"

/// What the generator puts into the slots of every ArtDmx, so that whoever reads a recording can tell each
/// datagram from every other one. Numbers are in host order.
///
/// Datagram n of a stream over U universes belongs to universe n % U and is number n / U there.
#pragma pack(push, 1)
struct TrafficMark {
  std::uint32_t sequence;     // number in the stream, wraps with 32 bits
  std::uint32_t in_universe;  // number in its universe
  std::int64_t sent_ns;       // CLOCK_MONOTONIC of the generator, just before the datagram was sent
  char name[8];               // kTrafficName
};
#pragma pack(pop)

constexpr char kTrafficName[8] = {'b', 'e', 'n', 'c', 'h', ' ', 'U', '\0'};

/// Slots after the mark hold this value, one per datagram, so that a torn copy shows.
inline std::uint8_t traffic_fill(std::uint32_t sequence) {
  return static_cast<std::uint8_t>(sequence % 251);
}

/// Smallest count of slots that holds a mark.
constexpr std::uint16_t kSmallestTraffic = sizeof(TrafficMark);

/// Bytes of an ArtDmx before its slots.
constexpr std::size_t kDmxHeader = 18;
