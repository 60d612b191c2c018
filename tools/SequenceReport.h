#pragma once

#include <string>
#include <vector>

#include "cue/RecordingInfo.h"

namespace kadrel_cue {

/// "universe 3", "universes 1-4,7". @param universes  counted from 1, sorted; not empty
std::string universe_list(const std::vector<int>& universes);

/// What the sequence numbers say, a line for all universes of which the same is to be said, 32 at most; then
/// the verdict: "complete".
std::vector<std::string> sequence_report(const cue::RecordingInfo& info);

}  // namespace kadrel_cue
