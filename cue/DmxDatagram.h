#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace cue {

/// A datagram of one ArtDmx whose slots are 0: protocol version 14, physical port 0. @param slots  512 at
/// most
std::vector<std::uint8_t> make_dmx_datagram(std::uint16_t port_address, std::uint8_t sequence,
                                            std::size_t slots);

}  // namespace cue
