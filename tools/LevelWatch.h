#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "cue/RecordingReader.h"
#include "cue/Selection.h"

/// What moves in a recording that is followed: levels, datagrams, bytes.
namespace kadrel_cue {

/// The levels of every universe. Memory goes by universes: 0.6 KB each.
class LevelWatch {
public:
  LevelWatch() : places(cue::UniverseSet::kPortAddresses, kNone) {}

  /// Takes in a datagram. @return whether it changes a level that was known: the first datagram of a universe
  ///         does not, nor do slots that come for the first time
  bool add(const cue::Record& record);

  /// Universes so far.
  std::size_t count() const { return levels.size(); }
  const cue::UniverseSet& universes() const { return met; }

private:
  static constexpr std::int32_t kNone = -1;

  bool take(std::uint16_t port_address, const std::uint8_t* slots, std::size_t count);

  std::vector<std::int32_t> places;  // in levels, by port-address
  std::vector<std::vector<std::uint8_t>> levels;
  cue::UniverseSet met;
};

/// Datagrams per second of the recording.
class RateMeter {
public:
  /// A datagram. @param time  ns since the first of the recording
  void add(std::int64_t time);

  /// In the latest whole second of the recording.
  std::uint64_t rate() const { return latest > 0 ? latest : counted; }

private:
  std::int64_t begin = 0;  // of the second that is counted
  std::uint64_t counted = 0;
  std::uint64_t latest = 0;
};

/// Since when no level has changed. The recorder writes a datagram up to a second late, and the last one in
/// the file can be read when the next is there: until then it counts as a change.
class Silence {
public:
  using Clock = std::chrono::steady_clock;

  /// A datagram was read. @param time  ns since the first of the recording
  void add(std::int64_t time, bool changed) {
    read = time;
    if (changed) change = time;
  }

  /// The file has more bytes than before.
  void note_growth(Clock::time_point now) { growth = now; }

  /// Whether no level has changed for @p limit ns for certain.
  bool lasts(std::int64_t limit, Clock::time_point now) const;

  /// ns that were read since the last change.
  std::int64_t so_far() const { return read - change; }

private:
  std::int64_t read = 0;
  std::int64_t change = 0;
  std::optional<Clock::time_point> growth;
};

}  // namespace kadrel_cue
