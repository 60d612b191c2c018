#pragma once

#include <pcap/pcap.h>

#include <cstdint>

// Sources with this header are named in CMakeLists.txt by kadrel_uses_libpcap(): otherwise the times of
// packets would have another width than in the library.
#if defined(KADREL_CHOSE_TIME_BITS) && defined(_TIME_BITS)
#error "kadrel_uses_libpcap() does not name this source"
#endif

namespace cue {

/// Time of a packet, from a capture that was asked for nanoseconds: tv_usec holds them. The seconds have 32
/// bits in the file and from the kernel, and libpcap may take them as a signed number: without the sign they
/// last until 2106.
/// @return ns since 1970
inline std::int64_t packet_time(const timeval& time) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  return static_cast<std::uint32_t>(time.tv_sec) * kNanoseconds + time.tv_usec;
}

}  // namespace cue
