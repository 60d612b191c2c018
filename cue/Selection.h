#pragma once

#include <cstdint>
#include <optional>
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

  /// Port-addresses of 16 bits: a packet may set the bit that Art-Net leaves zero.
  static constexpr std::size_t kPortAddresses = 65536;

private:
  std::vector<bool> members;
};

/// The part of a recording that a command is about.
struct Selection {
  std::int64_t start = 0;            // ns since the first datagram; what is before is left out
  std::optional<std::int64_t> stop;  // and from here on
  std::optional<UniverseSet> only;   // universes; the others are left out
  std::vector<std::pair<std::uint16_t, std::uint16_t>>
      changes;  // port-addresses that become others: from, to

  bool is_past(std::int64_t time) const { return stop && time >= *stop; }
};

/// Bytes of a datagram; whose, is said where they come from.
struct Bytes {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
};

/// Picks the datagrams of a selection.
class Selector {
public:
  explicit Selector(Selection wanted);

  /// The datagram as the selection wants it: unchanged where nothing is to be left out or changed; else with
  /// its port-addresses exchanged; of a datagram with other universes in it only the ArtDmx packets of those
  /// wanted. The bytes stand until the next call or the end of @p record.
  /// @return nothing when the datagram is not in the selection
  std::optional<Bytes> pick(const Record& record);

  /// The same without a look at the time.
  std::optional<Bytes> pick_universes(const std::uint8_t* data, std::size_t size);

private:
  std::optional<Bytes> wanted_packets(const std::uint8_t* data, std::size_t size);

  Selection selection;
  std::vector<std::uint16_t> new_address;  // by port-address; empty without changes
  std::vector<std::uint8_t> changed;
};

}  // namespace cue
