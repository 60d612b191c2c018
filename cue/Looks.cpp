#include "cue/Looks.h"

#include <cmath>

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

void scale_levels(std::uint8_t* datagram, std::size_t size, double level) {
  constexpr std::uint32_t kWhole = 1U << 16;
  const auto part = static_cast<std::uint32_t>(std::lround(level * kWhole));
  for_each_dmx(datagram, size, [&](const DmxPacket& packet) {
    std::uint8_t* const slots = datagram + packet.offset + kDmxHeaderSize;
    for (std::size_t slot = 0; slot < packet.slots; ++slot)
      slots[slot] = static_cast<std::uint8_t>((slots[slot] * part + kWhole / 2) >> 16);
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
