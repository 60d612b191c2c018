#include "cue/DmxDatagram.h"

#include <cstring>

#include "artnet/ArtNet.h"
#include "artnet/RecordingFormat.h"

namespace cue {

std::vector<std::uint8_t> make_dmx_datagram(std::uint16_t port_address, std::uint8_t sequence,
                                            std::size_t slots) {
  constexpr std::size_t kLengthOffset = offsetof(ArtDmx, length);
  ArtDmx packet{};
  memcpy(packet.header.id, kArtNetId, kArtNetIdSize);
  packet.header.opcode = OpDmx;
  packet.prot_ver_lo = 14;
  packet.sequence = sequence;
  packet.universe = port_address;
  std::vector<std::uint8_t> datagram(kDmxHeaderSize + slots, 0);
  memcpy(datagram.data(), &packet, kDmxHeaderSize);
  datagram[kLengthOffset] = static_cast<std::uint8_t>(slots >> 8);
  datagram[kLengthOffset + 1] = static_cast<std::uint8_t>(slots);
  return datagram;
}

}  // namespace cue
