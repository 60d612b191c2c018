#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Packets as the wire carries them, for tests: written by offset, without the records of the service.
namespace packets {

inline std::string text(const char* bytes, std::size_t size) {
  return {bytes, size};
}

/// Identifier of every packet.
inline std::string identifier() {
  return text("Art-Net\0", 8);
}

/// @p n bytes 55, which begin no identifier.
inline std::string padding(std::size_t n) {
  return std::string(n, 'U');
}

inline std::string byte(unsigned value) {
  return std::string(1, static_cast<char>(value & 0xFFU));
}
inline std::string low_first(unsigned value) {
  return byte(value) + byte(value >> 8U);
}
inline std::string high_first(unsigned value) {
  return byte(value >> 8U) + byte(value);
}

/// Identifier and OpCode.
inline std::string header(unsigned opcode) {
  return identifier() + low_first(opcode);
}

/// @p n bytes that count up from @p first, without 0 and without letters of the identifier.
inline std::string counting(std::size_t n, unsigned first = 0x80) {
  std::string bytes;
  for (std::size_t i = 0; i < n; ++i) bytes += byte(0x80U | (first + static_cast<unsigned>(i)));
  return bytes;
}

inline std::string poll(unsigned flags = 0x02, unsigned priority = 0x10) {
  return header(0x2000) + high_first(14) + byte(flags) + byte(priority);
}

/// The first @p size bytes of an ArtPollReply of 239, whose bytes after the header count up.
inline std::string poll_reply(std::size_t size = 239, unsigned first = 0x80) {
  return (header(0x2100) + counting(229, first)).substr(0, size);
}

/// An ArtDmx that announces @p length slots and carries @p levels.
inline std::string dmx_announcing(unsigned length, const std::string& levels, unsigned port_address = 0,
                                  unsigned sequence = 0) {
  return header(0x5000) + high_first(14) + byte(sequence) + byte(0) + low_first(port_address) +
         high_first(length) + levels;
}

inline std::string dmx(const std::string& levels, unsigned port_address = 0, unsigned sequence = 0) {
  return dmx_announcing(static_cast<unsigned>(levels.size()), levels, port_address, sequence);
}

/// The 18 bytes of an ArtTrigger that are read.
inline std::string trigger(unsigned key, unsigned sub_key, unsigned oem_code = 0xFFFF) {
  return header(0x9900) + high_first(14) + low_first(0) + high_first(oem_code) + byte(key) + byte(sub_key);
}

inline std::string oem_vfps(unsigned first = 0x80) {
  return header(0x00FF) + counting(4, first);
}
inline std::string oem_vfps_ns(unsigned first = 0x80) {
  return header(0x00FE) + counting(8, first);
}
inline std::string unknown(unsigned opcode = 0x6000) {
  return header(opcode);
}

/// Bytes of a record in memory.
template <typename Record>
std::string bytes_of(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

}  // namespace packets
