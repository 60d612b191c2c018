#pragma once

#include <cstdint>
#include <string>

#include "cue/live/Traffic.h"

namespace kadrel_cue {

/// The figures as Prometheus reads them (text format 0.0.4), for node_exporter's folder of text files;
/// docs/top.md describes them. Parameters as traffic_json().
std::string traffic_prom(const cue::TrafficFigures& figures, const std::string& source, std::int64_t time,
                         std::uint64_t lost);

/// Replaces a file at once: a reader sees the old text or the new one. Everybody may read it. It is not
/// forced to the disk: that can take seconds, and after a loss of power new figures are written anyway.
/// @throws CueError when that fails, or something else than a file has this name
void replace_text_file(const std::string& path, const std::string& text);

}  // namespace kadrel_cue
