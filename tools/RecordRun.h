#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

#include "cue/Selection.h"
#include "tools/RecordWords.h"

namespace kadrel_cue {

/// A recording that is wanted now.
struct RecordOptions {
  static constexpr unsigned kWaitSize = 64;  // MiB

  std::string path;                           // a new file, or a folder
  std::string name = kDefaultName;            // in a folder, see name_by_time()
  std::optional<std::int64_t> length;         // ns from its first datagram
  std::optional<std::int64_t> silence;        // ns without a changed level, after which it ends
  bool on_change = false;                     // it begins with the first changed level
  std::optional<cue::UniverseSet> universes;  // that are expected
  std::uint64_t wait_size = std::uint64_t{kWaitSize} << 20U;  // bytes in which a change is waited for
};

/// Has the service record, follows the file until a signal or an option ends it, and judges it.
/// @return exit code: 0 when the recording is whole
/// @throws cue::CueError when nothing can be recorded
int record(const RecordOptions& options, std::ostream& out, std::ostream& err);

}  // namespace kadrel_cue
