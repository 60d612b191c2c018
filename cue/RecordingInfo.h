#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cue/Completeness.h"
#include "cue/GoodRecords.h"
#include "cue/Intervals.h"
#include "cue/RecordingReader.h"

namespace cue {

struct DmxPacket;

/// Figures of one universe in a recording. Times in ns since the first datagram of the recording.
struct UniverseInfo {
  std::uint16_t port_address = 0;
  std::uint64_t datagrams = 0;  // ArtDmx packets; a datagram may hold several
  std::uint16_t fewest_slots = 0;
  std::uint16_t most_slots = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;
  std::int64_t longest_gap = 0;
  std::int64_t median_interval = 0;  // ns, between two packets
  std::int64_t p99_interval = 0;     // ns
  std::uint64_t pauses = 0;          // longer than 4 s, after which senders repeat unchanged levels
  UniverseSequence sequence;

  /// Packets per second between the first and the last; 0 for a single packet or a single time.
  double rate() const;
};

struct RecordingInfo {
  std::string file;
  std::uint64_t bytes = 0;  // up to the end of the last good datagram
  std::uint64_t datagrams = 0;
  std::int64_t duration = 0;            // ns, from the first datagram to the last
  std::vector<UniverseInfo> universes;  // sorted by port-address
  SharedSequence shared;
  std::optional<Damage> damage;  // the first
};

/// Collects the figures of a recording, datagram by datagram. Memory goes by universes, not by datagrams:
/// with a usual sender about 1.5 KB each.
class InfoCounter {
public:
  InfoCounter();
  void add(const Record& record);

  /// Without file and damage.
  RecordingInfo result() const;

private:
  struct Universe {
    UniverseInfo info;
    Intervals intervals;
    UniverseJudge judge;
    SharedJudge::Member member;
    std::uint64_t levels = 0;  // hash of the last ones
  };

  Universe& universe(std::uint16_t port_address);
  void add(const Record& record, const DmxPacket& packet);
  void judge(Universe& of, const Record& record, const DmxPacket& packet);
  bool belongs(const Universe& one) const;
  UniverseInfo result(const Universe& one, std::uint64_t shared) const;

  RecordingInfo info;
  std::vector<Universe> universes;
  std::vector<std::int32_t> index;  // in universes, by port-address; -1: not met
  SharedJudge shared;
};

/// Reads the good records of a recording; see GoodRecords. @throws CueError
RecordingInfo read_info(const Input& input, const OnDamage& on_damage);

/// Reads all that is good of a recording; the first damage is in the result. @throws CueError
RecordingInfo read_info(RecordingReader& reader);

/// "show.cue: byte 548: cut off within a delay record".
std::string damage_text(const std::string& file, const Damage& damage);

}  // namespace cue
