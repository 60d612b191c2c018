#pragma once

#include <functional>

#include "cue/Input.h"
#include "cue/RecordingReader.h"

namespace cue {

/// Called at each damage that is passed over.
using OnDamage = std::function<void(const RecordingReader&, const Damage&)>;

/// The good records of a recording that may be damaged.
class GoodRecords {
public:
  /// @param passed_over  nothing: damage is an error
  /// @throws CueError when the file cannot be opened
  GoodRecords(const Input& input, OnDamage passed_over);

  /// The next good record. @return false at the end
  /// @throws CueError when the file cannot be read, or is damaged and no damage is passed over
  bool next(Record& record);

  const RecordingReader& reader() const { return records; }

private:
  RecordingReader records;
  OnDamage on_damage;
  bool ended = false;  // nothing good follows the last damage
};

}  // namespace cue
