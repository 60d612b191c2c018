#pragma once

#include <string>

#include "unit/artnet/packets.h"

/// E1.31 packets as the wire carries them, written by offset, without the builder.
namespace sacn {

/// What is not of interest in a test has these values.
struct Data {
  std::string levels;
  unsigned universe = 1;
  unsigned sequence = 0;
  unsigned priority = 100;
  unsigned options = 0;  // 0x80 preview, 0x40 terminated
  unsigned start_code = 0;
  unsigned sync_universe = 0;
  std::string cid = std::string(16, 'C');
  std::string name = "desk";
};

inline std::string preamble() {
  return packets::text("\0\x10\0\0ASC-E1.17\0\0\0", 16);
}

inline std::string long_word(unsigned value) {
  return packets::high_first(value >> 16U) + packets::high_first(value);
}

/// Flags and length of a layer. @param size  from here to the end
inline std::string layer(std::size_t size) {
  return packets::high_first(0x7000U | static_cast<unsigned>(size));
}

/// @param root  vector of the root layer
/// @param body  all behind the CID
inline std::string root(unsigned root, const std::string& body,
                        const std::string& cid = std::string(16, 'C')) {
  return preamble() + layer(22 + body.size()) + long_word(root) + cid + body;
}

inline std::string data(const Data& of) {
  using packets::byte;
  using packets::high_first;
  const std::size_t values = 1 + of.levels.size();
  return root(4,
              layer(87 + values) + long_word(2) + of.name + std::string(64 - of.name.size(), '\0') +
                  byte(of.priority) + high_first(of.sync_universe) + byte(of.sequence) + byte(of.options) +
                  high_first(of.universe) + layer(10 + values) + packets::text("\x02\xA1\0\0\0\1", 6) +
                  high_first(static_cast<unsigned>(values)) + byte(of.start_code) + of.levels,
              of.cid);
}

inline std::string sync(unsigned universe = 7) {
  return root(8, layer(11) + long_word(1) + packets::byte(1) + packets::high_first(universe) +
                     packets::high_first(0));
}

inline std::string discovery() {
  return root(8, layer(82) + long_word(2) + std::string(64, '\0') + std::string(4, '\0') + layer(8) +
                     long_word(1) + packets::byte(0) + packets::byte(0));
}

}  // namespace sacn
