#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "cue/Frames.h"

namespace cue {

/// Knows a datagram again that passes several interfaces of a host, a bridge and its ports for example.
class Copies {
public:
  /// @param interface  where it was seen. @param time  ns
  /// @return whether it was seen a moment before at another interface
  bool is_copy(const UdpDatagram& datagram, std::uint32_t interface, std::int64_t time);

private:
  static constexpr std::int64_t kMoment = 5'000'000;  // ns

  struct Seen {
    std::uint64_t mark = 0;  // of sender, receiver and payload
    std::uint32_t interface = 0;
    std::int64_t time = 0;  // ns
  };
  std::array<Seen, 1024> latest{};  // by mark
};

}  // namespace cue
