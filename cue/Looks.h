#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "cue/Selection.h"

namespace cue {

/// The look of each universe: its last ArtDmx, with all its bytes.
class Looks {
public:
  /// Takes every ArtDmx of a datagram.
  void take(const Bytes& datagram);

  /// Takes the looks of @p others, also of universes that it has.
  void take_all(const Looks& others) {
    for (const auto& [port_address, packet] : others.packets) packets[port_address] = packet;
  }

  void forget() { packets.clear(); }

  /// By port-address.
  const std::map<std::uint16_t, std::vector<std::uint8_t>>& all() const { return packets; }

private:
  std::map<std::uint16_t, std::vector<std::uint8_t>> packets;
};

/// Scales the levels of every ArtDmx of a datagram, rounded to the nearest. @param level  0..1
void scale_levels(std::uint8_t* datagram, std::size_t size, double level);

/// Sequence numbers of what is sent or written, counted for each universe (Art-Net 4, ArtDmx: 1..255 and then
/// 1 again; 0: the sender does not count, and stays 0).
class SequenceNumbers {
public:
  SequenceNumbers() : last(UniverseSet::kPortAddresses, 0) {}

  /// Gives the ArtDmx packets of a datagram the next numbers of their universes. The first packet of a
  /// universe keeps its own number.
  void number(std::uint8_t* datagram, std::size_t size);

private:
  std::vector<std::uint8_t> last;  // by port-address; 0: none yet
};

}  // namespace cue
