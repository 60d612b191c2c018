#pragma once

#include <string>
#include <vector>

#include "cue/RecordingInfo.h"

namespace kadrel_cue {

/// What the sequence numbers say, a line for all universes of which the same is to be said, 32 at most; then
/// the verdict: "complete".
std::vector<std::string> sequence_report(const cue::RecordingInfo& info);

}  // namespace kadrel_cue
