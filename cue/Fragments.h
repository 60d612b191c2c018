#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <vector>

#include "cue/Selection.h"
#include "cue/Time.h"

namespace cue {

/// A fragment of an IPv4 packet (RFC 791).
struct Fragment {
  std::uint32_t sender = 0;    // host order
  std::uint32_t receiver = 0;  // host order
  std::uint16_t id = 0;        // of the packet
  std::uint32_t interface = 0;
  std::size_t offset = 0;  // bytes, a multiple of 8
  bool last = false;       // no fragment lies behind it
  Bytes bytes;
  std::int64_t time = 0;  // ns
};

/// Puts fragments together in bounded memory: at most kAssemblies packets at a time, the oldest goes first,
/// and none waits longer than kPatience. A packet whose fragments contradict each other is given up, as
/// RFC 5722 wants; a fragment that comes twice does no harm.
class Fragments {
public:
  static constexpr std::size_t kAssemblies = 64;

  // As long as Linux waits (net.ipv4.ipfrag_time).
  static constexpr std::int64_t kPatience = 30 * kSecond;

  /// @return the payload of the packet that this fragment completes, valid until the next call
  std::optional<Bytes> add(const Fragment& fragment);

  /// Packets that were given up or still wait for a fragment.
  std::uint64_t incomplete() const { return given_up + assemblies.size(); }

private:
  static constexpr std::size_t kUnit = 8;  // bytes that an offset counts
  static constexpr std::size_t kLongest = 65535;
  static constexpr std::size_t kUnits = (kLongest + kUnit) / kUnit;

  struct Assembly {
    Fragment first;  // without its bytes
    std::vector<std::uint8_t> bytes;
    std::bitset<kUnits> have;
    std::optional<std::size_t> size;  // bytes of the whole payload, when its last fragment is here
  };
  enum class Fit { Fits, Known, Contradicts };

  std::list<Assembly>::iterator assembly_for(const Fragment& fragment);
  static Fit fit(const Assembly& assembly, const Fragment& fragment);

  std::list<Assembly> assemblies;  // the oldest first
  std::uint64_t given_up = 0;
  std::vector<std::uint8_t> complete;
};

}  // namespace cue
