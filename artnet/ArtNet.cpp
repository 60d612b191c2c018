#include "artnet/ArtNet.h"

void universe_to_addr(std::uint16_t universe, std::uint8_t& uni, std::uint8_t& subnet, std::uint8_t& net) {
  const unsigned address = (universe - 1U) & 0x7FFFU;
  uni = static_cast<std::uint8_t>(0x80U | (address & 0x0FU));
  subnet = static_cast<std::uint8_t>(0x80U | ((address & 0xFFU) >> 4U));
  net = static_cast<std::uint8_t>(0x80U | (address >> 8U));
}

std::uint16_t addr_to_universe(std::uint8_t uni, std::uint8_t subnet, std::uint8_t net) {
  const unsigned address = uni | (static_cast<unsigned>(subnet) << 4U) | (static_cast<unsigned>(net) << 8U);
  return static_cast<std::uint16_t>((address & 0x7FFFU) + 1U);
}
