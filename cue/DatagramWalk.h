#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "artnet/ArtNet.h"
#include "artnet/RecordingFormat.h"

/// Walks over the packets of one datagram with the same steps as ArtNetParser, but in place and with the
/// offset of each packet, and without packets in stale bytes.
namespace cue {

/// Whether identifier and OpCode of a delay record are at @p bytes (10 readable).
bool begins_delay(const std::uint8_t* bytes);

/// Pause of the delay record at @p bytes (18 readable) in nanoseconds; may be negative in a foreign file.
std::int64_t delay_pause(const std::uint8_t* bytes);

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
    Reply,      // an ArtPollReply, perhaps cut short: the datagram could end anywhere in cut_reply()
    Delay,      // a delay record is at position(): the datagram could end there; next() passes over it
    Truncated,  // a packet is cut off: the recorder refuses such a datagram
    End,        // all bytes are walked
  };

  /// @param length  of the datagram, or of its available part. The bytes must outlive the walk.
  DatagramWalk(const std::uint8_t* datagram, std::size_t length) : bytes(datagram), size(length) {}

  Step next();

  /// The ArtDmx of the last step.
  const DmxPacket& dmx() const { return packet; }

  /// Delay: offset of the record. Truncated: offset of the packet. Otherwise offset of the walk.
  std::size_t position() const { return mark; }

  /// End of the last whole packet, 0 before the first.
  std::size_t last_packet_end() const { return packet_end; }

  /// Offsets at which a datagram can end within the ArtPollReply of the last step, begin and end included.
  ///
  /// The parser assumes that a reply begins its portion, and takes as many bytes as the portion has, 239 at
  /// most. In a portion of fewer bytes a reply that begins later is cut off. So a reply has 239 bytes, or its
  /// OpCode ends in the first 10 bytes of a portion and the datagram ends after 10 to 239 bytes of it.
  struct Range {
    std::size_t begin = 0;
    std::size_t end = 0;
  };
  const Range& cut_reply() const { return reply; }

private:
  bool search(Step& step);
  Step dispatch(std::size_t start);
  std::optional<std::size_t> body_size(std::uint16_t opcode) const;
  std::size_t portion() const;

  const std::uint8_t* bytes;
  std::size_t size;
  std::size_t at = 0;                   // next byte to look at
  std::size_t mark = 0;                 // see position()
  std::size_t packet_end = 0;           // see last_packet_end()
  std::size_t matched = 0;              // identifier bytes matched so far
  std::size_t passed_delay = SIZE_MAX;  // offset of the last reported delay record
  Range reply;
  DmxPacket packet;
};

/// Contents of a whole datagram, as the recorder sees it.
struct DatagramShape {
  bool truncated = false;       // a packet is cut off
  bool holds_delay = false;     // there is a delay record inside
  std::size_t dmx_count = 0;    // whole ArtDmx packets
  std::size_t dmx_bytes = 0;    // of those packets, headers included
  bool tail_is_header = false;  // after the last packet there is only the beginning of an identifier

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
