#include "cue/Looks.h"

#include "cue/DatagramWalk.h"

namespace cue {
namespace {

constexpr std::size_t kSequenceOffset = offsetof(ArtDmx, sequence);

}  // namespace

void Looks::take(const Bytes& datagram) {
  for_each_dmx(datagram.data, datagram.size, [&](const DmxPacket& packet) {
    packets[packet.port_address].assign(datagram.data + packet.offset, datagram.data + packet.end());
  });
}

void SequenceNumbers::number(std::uint8_t* datagram, std::size_t size) {
  for_each_dmx(datagram, size, [&](const DmxPacket& packet) {
    std::uint8_t& sequence = datagram[packet.offset + kSequenceOffset];
    if (sequence == 0) return;
    std::uint8_t& before = last[packet.port_address];
    if (before != 0) sequence = before == 255 ? 1 : static_cast<std::uint8_t>(before + 1);
    before = sequence;
  });
}

}  // namespace cue
