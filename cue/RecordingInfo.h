#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cue/RecordingReader.h"

namespace cue {

/// What a recording holds of one universe. Times in ns since the first datagram of the recording.
struct UniverseInfo {
  std::uint16_t port_address = 0;
  std::uint64_t datagrams = 0;  // ArtDmx packets; a datagram may hold several
  std::uint16_t fewest_slots = 0;
  std::uint16_t most_slots = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;
  std::int64_t longest_gap = 0;

  /// Packets per second between the first and the last; 0 when they are one or at one time.
  double rate() const;
};

struct RecordingInfo {
  std::string file;
  std::uint64_t bytes = 0;  // read; of a damaged file those that are good
  std::uint64_t datagrams = 0;
  std::int64_t duration = 0;            // ns, from the first datagram to the last
  std::vector<UniverseInfo> universes;  // sorted by port-address
  std::optional<Damage> damage;
};

/// Counts what one recording holds, datagram by datagram.
class InfoCounter {
public:
  InfoCounter();
  void add(const Record& record);

  /// @param reader  at its end
  RecordingInfo result(const RecordingReader& reader) const;

private:
  UniverseInfo& universe(std::uint16_t port_address);

  RecordingInfo info;
  std::vector<std::int32_t> index;  // in info.universes, by port-address; -1: not met
};

/// Reads a recording to its end or damage. @throws CueError
RecordingInfo read_info(RecordingReader& reader);

/// "show.cue: byte 548: cut off within a delay record".
std::string damage_text(const std::string& file, const Damage& damage);

}  // namespace cue
