#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cue/RecordingReader.h"

namespace cue {

/// A set of universes, kept by port-address.
class UniverseSet {
public:
  UniverseSet() : members(kPortAddresses, false) {}

  void insert(std::uint16_t port_address) { members[port_address] = true; }
  bool holds(std::uint16_t port_address) const { return members[port_address]; }

  /// Port-addresses have 16 bits here: a packet may set the bit that Art-Net leaves zero.
  static constexpr std::size_t kPortAddresses = 65536;

private:
  std::vector<bool> members;
};

/// The part of a recording that a command works on.
struct Selection {
  std::int64_t start = 0;            // ns since the first datagram; earlier datagrams are left out
  std::optional<std::int64_t> stop;  // datagrams from here on are left out
  std::optional<UniverseSet> only;   // universes; the others are left out
  std::vector<std::pair<std::uint16_t, std::uint16_t>> changes;  // new port-addresses: from, to

  bool is_past(std::int64_t time) const { return stop && time >= *stop; }
};

/// Why a recording has nothing of a selection: "it ends at 2.000 s, before 3.000 s".
/// @param last     ns, time of the last datagram before selection.stop; nothing: there is none
/// @param goes_on  there are datagrams from selection.stop on
std::string why_nothing(const Selection& selection, std::optional<std::int64_t> last, bool goes_on);

/// Bytes of a datagram. They belong to the function that returned them, see there.
struct Bytes {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
};

/// Picks the datagrams of a selection.
class Selector {
public:
  explicit Selector(Selection wanted);

  /// The datagram as the selection wants it, with new port-addresses where they are wanted. Of a datagram
  /// that also holds unwanted universes, only the ArtDmx packets of the wanted ones. The bytes are valid
  /// until the next call or the end of @p record.
  /// @return nothing when the datagram is not in the selection
  std::optional<Bytes> pick(const Record& record);

  /// The same for any time.
  std::optional<Bytes> pick_universes(const std::uint8_t* data, std::size_t size);

private:
  std::optional<Bytes> wanted_packets(const std::uint8_t* data, std::size_t size);

  Selection selection;
  std::vector<std::uint16_t> new_address;  // by port-address; empty without changes
  std::vector<std::uint8_t> changed;
};

}  // namespace cue
