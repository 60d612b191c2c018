#pragma once

#include <string>

#include "unit/artnet/packets.h"

/// Captures and the frames in them, as they lie in files.
namespace captures {

using packets::byte;
using packets::high_first;
using packets::low_first;
using packets::text;

inline std::string low_first_32(unsigned value) {
  return low_first(value) + low_first(value >> 16U);
}
inline std::string high_first_32(unsigned value) {
  return high_first(value >> 16U) + high_first(value);
}

/// Head of a pcap file with nanoseconds.
inline std::string pcap_head(unsigned link_type = 1) {
  return low_first_32(0xa1b23c4d) + low_first(2) + low_first(4) + low_first_32(0) + low_first_32(0) +
         low_first_32(262144) + low_first_32(link_type);
}

/// A frame in a pcap file. @param wire_size  0: as captured
inline std::string frame(const std::string& bytes, unsigned seconds = 0, unsigned nanoseconds = 0,
                         std::size_t wire_size = 0) {
  return low_first_32(seconds) + low_first_32(nanoseconds) +
         low_first_32(static_cast<unsigned>(bytes.size())) +
         low_first_32(static_cast<unsigned>(wire_size == 0 ? bytes.size() : wire_size)) + bytes;
}

constexpr unsigned kSender = 0x0A000001;  // 10.0.0.1

/// An IPv4 packet. @param fragment  flags and offset
inline std::string ipv4(const std::string& payload, unsigned fragment = 0, unsigned id = 0,
                        unsigned sender = kSender, const std::string& options = "", unsigned protocol = 17) {
  const auto header = static_cast<unsigned>(20 + options.size());
  return byte(0x40 | header / 4) + byte(0) + high_first(header + static_cast<unsigned>(payload.size())) +
         high_first(id) + high_first(fragment) + byte(64) + byte(protocol) + high_first(0) +
         high_first_32(sender) + text("\x0A\0\0\2", 4) + options + payload;
}

inline std::string udp(const std::string& payload, unsigned port = 6454) {
  return high_first(40000) + high_first(port) + high_first(static_cast<unsigned>(8 + payload.size())) +
         high_first(0) + payload;
}

/// An IPv4 packet with a UDP datagram.
inline std::string ip(const std::string& payload, unsigned port = 6454, unsigned sender = kSender) {
  return ipv4(udp(payload, port), 0, 0, sender);
}

inline std::string ethernet(const std::string& packet, const std::string& tags = "", unsigned type = 0x0800) {
  return std::string(12, '\x02') + tags + high_first(type) + packet;
}

/// An IPv6 packet with a UDP datagram.
inline std::string ipv6(const std::string& payload) {
  return text("\x60\0\0\0", 4) + high_first(static_cast<unsigned>(8 + payload.size())) + byte(17) + byte(64) +
         std::string(32, '\1') + udp(payload);
}

/// Writes the blocks of a pcapng file in one of the byte orders.
struct Pcapng {
  bool big_endian = false;

  std::string two(unsigned value) const { return big_endian ? high_first(value) : low_first(value); }
  std::string four(unsigned value) const { return big_endian ? high_first_32(value) : low_first_32(value); }

  std::string block(unsigned type, const std::string& body) const {
    const std::string padded = body + std::string((4 - body.size() % 4) % 4, '\0');
    const std::string length = four(static_cast<unsigned>(padded.size() + 12));
    return four(type) + length + padded + length;
  }
  std::string section() const {
    return block(0x0A0D0D0A, four(0x1A2B3C4D) + two(1) + two(0) + std::string(8, '\xFF'));
  }
  std::string option(unsigned code, const std::string& value) const {
    return two(code) + two(static_cast<unsigned>(value.size())) + value +
           std::string((4 - value.size() % 4) % 4, '\0');
  }
  std::string interface(unsigned link_type = 1, const std::string& options = "", unsigned snap = 0) const {
    return block(1, two(link_type) + two(0) + four(snap) + options);
  }
  /// An interface whose times have nanoseconds.
  std::string nano_interface(unsigned link_type = 1) const {
    return interface(link_type, option(9, byte(9)) + option(0, ""));
  }
  std::string enhanced(const std::string& bytes, unsigned interface = 0, unsigned low = 0,
                       unsigned high = 0) const {
    return block(6, four(interface) + four(high) + four(low) + four(static_cast<unsigned>(bytes.size())) +
                        four(static_cast<unsigned>(bytes.size())) + bytes);
  }
  std::string obsolete(const std::string& bytes, unsigned interface = 0, unsigned low = 0) const {
    return block(2, two(interface) + two(0) + four(0) + four(low) +
                        four(static_cast<unsigned>(bytes.size())) +
                        four(static_cast<unsigned>(bytes.size())) + bytes);
  }
  std::string simple(const std::string& bytes) const {
    return block(3, four(static_cast<unsigned>(bytes.size())) + bytes);
  }
};

}  // namespace captures
