#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cue/RecordingReader.h"

namespace cue {

/// Reads a recording while it is written: each datagram as soon as the file shows where it ends. Constant
/// memory.
class Follower {
public:
  /// From the front. @throws CueError when the file cannot be opened, or is no regular file
  explicit Follower(const std::string& path);
  ~Follower();
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;
  Follower(Follower&&) = delete;
  Follower& operator=(Follower&&) = delete;

  /// The next datagram that is in the file by now; does not wait. Damage is passed over and counted.
  /// @return false when there is none yet
  /// @throws CueError when the file cannot be read
  bool next(Record& record);

  /// The recording has ended: what is in the file is all of it. next() delivers the rest.
  void finish();

  /// Bytes of the file by now.
  std::uint64_t size() const;

  /// Bytes that belong to no good record so far.
  std::uint64_t damaged_bytes() const;

  /// Whether the path has another file now, none, or this one was emptied: a new Follower is wanted.
  bool is_replaced() const;

private:
  class Parts;
  std::unique_ptr<Parts> parts;
};

}  // namespace cue
