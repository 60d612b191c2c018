#include "cue/Looks.h"

#include <array>
#include <cmath>
#include <cstring>

#include "cue/ByteOrder.h"
#include "cue/DatagramWalk.h"

namespace cue {
namespace {

constexpr std::size_t kSequenceOffset = offsetof(ArtDmx, sequence);
constexpr std::size_t kAddressOffset = offsetof(ArtDmx, universe);
constexpr std::size_t kSlotsOffset = offsetof(ArtDmx, length);

// Identifier and OpCode of an ArtDmx.
constexpr std::array<std::uint8_t, 10> kDmxHeader = {'A', 'r', 't', '-', 'N', 'e', 't', 0, 0x00, 0x50};

/// As for_each_dmx(), faster for a datagram that is a single ArtDmx, as nearly every one is.
template <typename Visit>
void visit_dmx(const std::uint8_t* bytes, std::size_t size, const Visit& visit) {
  if (size >= kDmxHeaderSize && memcmp(bytes, kDmxHeader.data(), kDmxHeader.size()) == 0) {
    const auto slots = high_byte_first(bytes + kSlotsOffset);
    if (slots <= kDmxSlots && kDmxHeaderSize + slots == size) {
      visit(DmxPacket{0, low_byte_first(bytes + kAddressOffset), slots});
      return;
    }
  }
  for_each_dmx(bytes, size, visit);
}

}  // namespace

void Looks::take(const Bytes& datagram) {
  visit_dmx(datagram.data, datagram.size, [&](const DmxPacket& packet) {
    packets[packet.port_address].assign(datagram.data + packet.offset, datagram.data + packet.end());
  });
}

void scale_levels(std::uint8_t* datagram, std::size_t size, double level) {
  constexpr std::uint32_t kWhole = 1U << 16;
  const auto part = static_cast<std::uint32_t>(std::lround(level * kWhole));
  visit_dmx(datagram, size, [&](const DmxPacket& packet) {
    std::uint8_t* const slots = datagram + packet.offset + kDmxHeaderSize;
    for (std::size_t slot = 0; slot < packet.slots; ++slot)
      slots[slot] = static_cast<std::uint8_t>((slots[slot] * part + kWhole / 2) >> 16);
  });
}

void SequenceNumbers::number(std::uint8_t* datagram, std::size_t size) {
  visit_dmx(datagram, size, [&](const DmxPacket& packet) {
    std::uint8_t& sequence = datagram[packet.offset + kSequenceOffset];
    if (sequence == 0) return;
    std::uint8_t& before = last[packet.port_address];
    if (before != 0) sequence = before == 255 ? 1 : static_cast<std::uint8_t>(before + 1);
    before = sequence;
  });
}

}  // namespace cue
