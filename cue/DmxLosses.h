#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cue/RecordingReader.h"

namespace cue {

/// Counts what a format that holds only universes and levels cannot hold of a recording.
class DmxLosses {
public:
  void add(const Record& record);

  /// What was left out, each in a few words ("the sequence numbers of 12 ArtDmx"); only what there was.
  std::vector<std::string> texts() const;

private:
  std::uint64_t numbered = 0;      // ArtDmx with a sequence number
  std::uint64_t with_port = 0;     // ArtDmx with a physical port other than 0
  std::uint64_t taken_apart = 0;   // datagrams with several ArtDmx
  std::uint64_t bytes_beside = 0;  // outside of the ArtDmx packets
};

}  // namespace cue
