#pragma once

#include <cstdint>
#include <string>

#include "cue/live/Traffic.h"

namespace kadrel_cue {

/// All figures as a JSON object in one line, without its end; docs/top.md describes it.
/// @param source  interface or file that they are of
/// @param time    ns since 1970
/// @param lost    datagrams that came and were not taken in time
std::string traffic_json(const cue::TrafficFigures& figures, const std::string& source, std::int64_t time,
                         std::uint64_t lost);

}  // namespace kadrel_cue
