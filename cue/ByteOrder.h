#pragma once

#include <cstddef>
#include <cstdint>

/// Numbers as they lie in packets and files.
namespace cue {

/// High byte first, as in IP and E1.31, and the slot count of an ArtDmx.
inline std::uint16_t high_byte_first(const std::uint8_t* at) {
  return static_cast<std::uint16_t>(at[0] << 8 | at[1]);
}

/// The same of four bytes.
inline std::uint32_t high_byte_first_long(const std::uint8_t* at) {
  return static_cast<std::uint32_t>(high_byte_first(at)) << 16 | high_byte_first(at + 2);
}

/// Writes the two lowest bytes of @p value.
inline void put_high_byte_first(std::uint8_t* at, std::size_t value) {
  at[0] = static_cast<std::uint8_t>(value >> 8);
  at[1] = static_cast<std::uint8_t>(value);
}

/// Low byte first, as the OpCode and the port-address of an ArtDmx.
inline std::uint16_t low_byte_first(const std::uint8_t* at) {
  return static_cast<std::uint16_t>(at[0] | at[1] << 8);
}

}  // namespace cue
