#pragma once

#include <functional>
#include <string>

namespace cue {

struct VerifyOptions {
  bool strict = false;   // a datagram that is more than one ArtDmx packet counts as damaged
  std::string repaired;  // file for the good records; empty: none
};

/// Takes the findings, each one line without a newline.
struct VerifyReport {
  std::function<void(const std::string&)> good;
  std::function<void(const std::string&)> damage;
};

/// Judges a recording, and repairs it if wanted. @return whether it is whole
/// @throws CueError when the file cannot be read, or the repaired one cannot be written
bool verify(const std::string& file, const VerifyOptions& options, const VerifyReport& report);

}  // namespace cue
