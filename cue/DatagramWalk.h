#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "artnet/ArtNet.h"
#include "artnet/RecordingFormat.h"

/// The walk over the packets of one datagram, step for step as ArtNetParser takes it, but in place and with
/// the offset of each packet. What the parser finds in bytes that earlier datagrams left in its buffer has no
/// part in it.
namespace cue {

/// Whether the identifier and the OpCode of a delay record stand at @p bytes, of which 10 must be readable.
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
    Reply,      // an ArtPollReply that may be cut: the datagram could end anywhere in cut_reply()
    Delay,      // a delay record stands at position(), where the datagram could end; next() goes on over it
    Truncated,  // a packet needs more bytes than there are: the recorder refuses such a datagram
    End,        // all bytes are walked
  };

  /// @param length  of the datagram, or of what of it there is to see. The bytes must outlive the walk.
  DatagramWalk(const std::uint8_t* datagram, std::size_t length) : bytes(datagram), size(length) {}

  Step next();

  /// The ArtDmx of the last step.
  const DmxPacket& dmx() const { return packet; }

  /// Delay: offset of the record. Truncated: offset of the packet. Otherwise where the walk stands.
  std::size_t position() const { return mark; }

  /// End of the last whole packet, 0 before the first.
  std::size_t last_packet_end() const { return packet_end; }

  /// Where a datagram can end within the ArtPollReply of the last step: from begin up to and with end.
  ///
  /// The parser takes a reply as far as the portion goes that it stands in. Where that is less than a whole
  /// reply, one that begins after the portion does needs bytes that are not there. So a reply has 239 bytes,
  /// or its OpCode ends in the first 10 bytes of a portion and the datagram ends within 239 bytes of them.
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
  std::size_t passed_delay = SIZE_MAX;  // offset of the delay record that was reported last
  Range reply;
  DmxPacket packet;
};

/// What the recorder makes of a whole datagram, and what lies in it.
struct DatagramShape {
  bool truncated = false;       // a packet of it is cut off
  bool holds_delay = false;     // a delay record stands in it
  std::size_t dmx_count = 0;    // whole ArtDmx packets
  std::size_t dmx_bytes = 0;    // of them, headers included
  bool tail_is_header = false;  // after its last packet it holds nothing but the beginning of an identifier

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
