#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cue {

/// Outcome of an export.
struct Exported {
  std::uint64_t datagrams = 0;      // written
  std::vector<std::string> losses;  // what the format cannot hold, each in a few words
};

}  // namespace cue
