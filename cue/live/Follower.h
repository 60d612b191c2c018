#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cue/RecordingReader.h"

namespace cue {

/// Reads a recording while it is written. Constant memory.
///
/// A datagram is delivered when the delay record after it is in the file, so that the last one waits for the
/// next or for finish(). Where there is damage, it waits until 16 KiB follow. In the end all that
/// RecordingReader reads has been delivered, with the same bytes, pauses, times and offsets.
class Follower {
public:
  /// From the front. @throws CueError when the file cannot be opened, or is no regular file, or one of
  /// another program (foreign_kind())
  explicit Follower(const std::string& path);
  ~Follower();
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;
  Follower(Follower&&) = delete;
  Follower& operator=(Follower&&) = delete;

  /// The next datagram that is in the file by now; does not wait. Damage is passed over and counted.
  /// @return false when there is none yet, or when it has passed 4 MiB without one: is_interrupted()
  /// @throws CueError when the file cannot be read
  bool next(Record& record);

  /// Whether the last next() found nothing so far in a file that it has not read to its end by now.
  bool is_interrupted() const;

  /// The recording has ended: what is in the file is all of it. next() delivers the rest.
  void finish();

  /// Bytes of the file by now.
  std::uint64_t size() const;

  /// Places so far where the file is damaged; without one it is whole.
  std::uint64_t damages() const;

  /// Bytes that belong to no good record so far; can be 0 at damage (RecordingReader::lost_bytes()).
  std::uint64_t damaged_bytes() const;

  /// Whether the path has another file now, none, or this one was emptied and perhaps written again: a new
  /// Follower is wanted. Makes three system calls.
  bool is_replaced() const;

private:
  class Parts;
  std::unique_ptr<Parts> parts;
};

}  // namespace cue
