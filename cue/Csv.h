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

/// @p port_address, or without one the only universe. @throws CueError when the universe is not in the
/// recording, or there are several to choose from
std::uint16_t choose_universe(const RecordingInfo& info, std::optional<std::uint16_t> port_address);

}  // namespace cue
