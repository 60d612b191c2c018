#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace cue {

struct RecordingInfo;

struct ExportedCsv {
  std::uint16_t port_address = 0;
  std::uint64_t lines = 0;  // after the line of names
};

/// Writes the slots of a universe over time as comma-separated values: a line of names, then a line for each
/// ArtDmx with its time in seconds and its levels. A line of fewer slots than others is filled up with empty
/// fields.
/// @param port_address  nothing: the only one of the recording
/// @throws CueError
ExportedCsv export_csv(const std::string& file, std::optional<std::uint16_t> port_address,
                       const std::string& output);

/// The universe that is asked for, or the only one there is. @throws CueError when it is not in the
/// recording, or none is asked for and there are several
std::uint16_t choose_universe(const RecordingInfo& info, std::optional<std::uint16_t> port_address);

}  // namespace cue
