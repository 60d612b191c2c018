#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cue/AtomicFile.h"

namespace cue {

/// Writes a recording as the recorder does: datagrams with delay records between them. The file appears with
/// commit().
class RecordingWriter {
public:
  /// See AtomicFile. @throws CueError
  explicit RecordingWriter(const Output& output, const std::vector<Input>& inputs = {})
      : file(output, inputs) {}

  /// @param pause  ns since the datagram before, not negative; ignored for the first
  /// @throws CueError
  void add(const std::uint8_t* datagram, std::size_t size, std::int64_t pause);

  /// @throws CueError
  void commit() { file.commit(); }

  std::uint64_t datagrams() const { return count; }

private:
  AtomicFile file;
  std::uint64_t count = 0;
};

}  // namespace cue
