#pragma once

#include <functional>
#include <optional>
#include <string>

#include "cue/AtomicFile.h"
#include "cue/Input.h"
#include "cue/RecordingReader.h"

namespace cue {

struct VerifyOptions {
  bool strict = false;             // a datagram that is more than one ArtDmx packet counts as damaged
  std::optional<Output> repaired;  // file for the good records
  std::function<void(const Record&)> on_record;  // called with each datagram that is read; may be empty
};

/// Takes the findings, each one line without a newline.
struct VerifyReport {
  std::function<void(const std::string&)> good;
  std::function<void(const std::string&)> damage;
};

/// Judges a recording, and repairs it if wanted. @return whether it is whole
/// @throws CueError when the file cannot be read, or the repaired one cannot be written
bool verify(const Input& file, const VerifyOptions& options, const VerifyReport& report);

}  // namespace cue
