#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cue/GoodRecords.h"
#include "cue/RecordingReader.h"

namespace cue {

/// Figures of one universe in a recording. Times in ns since the first datagram of the recording.
struct UniverseInfo {
  std::uint16_t port_address = 0;
  std::uint64_t datagrams = 0;  // ArtDmx packets; a datagram may hold several
  std::uint16_t fewest_slots = 0;
  std::uint16_t most_slots = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;
  std::int64_t longest_gap = 0;

  /// Packets per second between the first and the last; 0 for a single packet or a single time.
  double rate() const;
};

struct RecordingInfo {
  std::string file;
  std::uint64_t bytes = 0;  // read; of a damaged file the good ones
  std::uint64_t datagrams = 0;
  std::int64_t duration = 0;            // ns, from the first datagram to the last
  std::vector<UniverseInfo> universes;  // sorted by port-address
  std::optional<Damage> damage;
};

/// Collects the figures of a recording, datagram by datagram.
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

/// Reads the good records of a recording; see GoodRecords. @throws CueError
RecordingInfo read_info(const Input& input, const OnDamage& on_damage);

/// Reads a recording to its end or damage. @throws CueError
RecordingInfo read_info(RecordingReader& reader);

/// "show.cue: byte 548: cut off within a delay record".
std::string damage_text(const std::string& file, const Damage& damage);

}  // namespace cue
