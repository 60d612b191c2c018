#pragma once

#include <algorithm>
#include <initializer_list>

#include "artnet/ArtNet.h"

/// A parsed ArtDmx with the levels of its first slots.
/// @param universe  0-based port-address
inline ArtDmx parsed_dmx(int universe, std::initializer_list<int> levels) {
  ArtDmx dmx{};
  dmx.universe = static_cast<std::uint16_t>(universe);
  dmx.length = static_cast<std::uint16_t>(levels.size());
  std::transform(levels.begin(), levels.end(), dmx.data,
                 [](int level) { return static_cast<std::uint8_t>(level); });
  return dmx;
}
