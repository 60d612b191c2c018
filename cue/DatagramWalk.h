#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "artnet/ArtNet.h"
#include "artnet/RecordingFormat.h"

/// Walks over the packets of one datagram with the same steps as ArtNetParser, but in place and with the
/// offset of each packet, and without packets in stale bytes.
namespace cue {

/// An ArtDmx within a datagram.
struct DmxPacket {
  std::size_t offset = 0;  // of its first byte, in the datagram
  std::uint16_t port_address = 0;
  std::uint16_t slots = 0;  // 0..512; the first is at offset + 18

  std::size_t end() const { return offset + kDmxHeaderSize + slots; }
};

class DatagramWalk {
public:
  enum class Step {
    Dmx,        // dmx() is a whole ArtDmx
    Truncated,  // a packet is cut off: the recorder refuses such a datagram
    End,        // all bytes are walked
  };

  /// @param length  of the datagram, or of its available part. The bytes must outlive the walk.
  DatagramWalk(const std::uint8_t* datagram, std::size_t length) : bytes(datagram), size(length) {}

  Step next();

  /// The ArtDmx of the last step.
  const DmxPacket& dmx() const { return packet; }

private:
  bool search();
  Step dispatch(std::size_t start);
  std::optional<std::size_t> body_size(std::uint16_t opcode) const;
  std::size_t portion() const;

  const std::uint8_t* bytes;
  std::size_t size;
  std::size_t at = 0;       // next byte to look at
  std::size_t matched = 0;  // identifier bytes matched so far
  DmxPacket packet;
};

/// Contents of a whole datagram, as the recorder sees it.
struct DatagramShape {
  bool truncated = false;     // a packet is cut off
  std::size_t dmx_count = 0;  // whole ArtDmx packets
  std::size_t dmx_bytes = 0;  // of those packets, headers included

  /// Whether the recorder can have written it.
  bool recordable() const { return !truncated && dmx_count > 0; }
};

DatagramShape shape_of(const std::uint8_t* bytes, std::size_t size);

/// Calls @p visit with every ArtDmx of a datagram, in order.
template <typename Visit>
void for_each_dmx(const std::uint8_t* bytes, std::size_t size, Visit&& visit) {
  DatagramWalk walk(bytes, size);
  for (;;) {
    const DatagramWalk::Step step = walk.next();
    if (step == DatagramWalk::Step::Dmx) visit(walk.dmx());
    if (step == DatagramWalk::Step::Truncated || step == DatagramWalk::Step::End) return;
  }
}

}  // namespace cue
