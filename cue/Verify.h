#pragma once

#include <functional>
#include <optional>
#include <string>

#include "cue/AtomicFile.h"
#include "cue/Input.h"
#include "cue/RecordingReader.h"

namespace cue {

struct VerifyOptions {
  bool strict = false;  // a datagram that is more than one ArtDmx packet counts as damaged
  // File for the good records. Of a datagram that is more than one ArtDmx packet these are written, each as a
  // datagram of its own.
  std::optional<Output> repaired;
  std::function<void(const Record&)> on_record;  // called with each datagram that is read; may be empty
  std::function<void(const Damage&)> on_damage;  // called at each damage; may be empty
};

/// Most damaged places, and most datagrams that are not wanted, of which verify() says where they are; of the
/// others the number.
constexpr std::uint64_t kMostPlaces = 10;

/// Takes the findings, each one line without a newline.
struct VerifyReport {
  std::function<void(const std::string&)> good;
  std::function<void(const std::string&)> damage;
};

struct Verified {
  bool whole = false;     // no damage
  bool repaired = false;  // the good records have been written
};

/// Judges a recording, and repairs it if wanted. A file in which nothing is good is not repaired.
/// @throws CueError when the file cannot be read, or the repaired one cannot be written
Verified verify(const Input& file, const VerifyOptions& options, const VerifyReport& report);

}  // namespace cue
