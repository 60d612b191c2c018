#include "cue/live/Copies.h"

#include <cstddef>
#include <functional>
#include <string_view>

namespace cue {

bool Copies::is_copy(const UdpDatagram& datagram, std::uint32_t interface, std::int64_t time) {
  constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;  // 2^64 by the golden ratio
  const std::string_view payload(reinterpret_cast<const char*>(datagram.payload.data), datagram.payload.size);
  const std::uint64_t addresses = std::uint64_t{datagram.sender} << 32 | datagram.receiver;
  const std::uint64_t mark = std::hash<std::string_view>()(payload) ^ addresses * kFactor;
  Seen& seen = latest[static_cast<std::size_t>(mark % latest.size())];
  std::int64_t passed = 0;
  const bool is_moment =
      !__builtin_sub_overflow(time, seen.time, &passed) && passed <= kMoment && passed >= -kMoment;
  if (seen.mark == mark && seen.interface != interface && is_moment) return true;
  seen = {mark, interface, time};
  return false;
}

}  // namespace cue
