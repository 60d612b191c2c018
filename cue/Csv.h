#pragma once

#include <cstdint>
#include <optional>

#include "cue/AtomicFile.h"
#include "cue/GoodRecords.h"
#include "cue/Input.h"

namespace cue {

struct RecordingInfo;

struct ExportedCsv {
  std::uint16_t port_address = 0;
  std::uint64_t lines = 0;  // without the line of names
};

/// Writes the slots of a universe over time as comma-separated values: a line of names, then a line for each
/// ArtDmx with its time in seconds and its levels. A line with fewer slots is padded with empty fields.
/// @param port_address  nothing: the only universe of the recording
/// @throws CueError
ExportedCsv export_csv(const Input& file, std::optional<std::uint16_t> port_address, const Output& output,
                       const OnDamage& on_damage = {});

struct ExportedLongCsv {
  std::size_t universes = 0;
  std::uint64_t lines = 0;  // without the line of names
};

/// Writes the slots of all universes over time as comma-separated values, changes only: a line of names
/// ("time_s,universe,slot,level"), then a line for each slot whose level is another than before. Universes
/// and slots count from 1, times are in seconds since the first datagram, with nanoseconds. All slots of the
/// first ArtDmx of a universe are written, zeros too, and all that a longer one adds; an empty level takes a
/// slot away that a shorter ArtDmx no longer has. So after the lines up to a time every universe has the
/// slots and levels of its last ArtDmx before. What an ArtDmx repeats unchanged, sequence numbers and bytes
/// of other packets are left out. In constant memory.
/// @throws CueError
ExportedLongCsv export_csv_long(const Input& file, const Output& output, const OnDamage& on_damage = {});

/// @p port_address, or without one the only universe. @throws CueError when the universe is not in the
/// recording, or there are several to choose from
std::uint16_t choose_universe(const RecordingInfo& info, std::optional<std::uint16_t> port_address);

}  // namespace cue
