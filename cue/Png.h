#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace cue {

struct Colour {
  std::uint8_t red = 0;
  std::uint8_t green = 0;
  std::uint8_t blue = 0;
};

using Palette = std::array<Colour, 256>;

/// A picture of at most 256 colours as the bytes of a PNG file (ISO/IEC 15948).
/// @param pixels  indices into the palette, row by row from the top, width * height of them
std::string make_png(std::size_t width, std::size_t height, const std::vector<std::uint8_t>& pixels,
                     const Palette& palette);

}  // namespace cue
