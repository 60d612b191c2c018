#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "cue/Input.h"

namespace cue {

/// A file that is written: its path, or "-" for the standard output.
struct Output {
  std::string path;
  bool replace = false;  // an existing file may be replaced

  Output() = default;
  // A path is an output wherever one is wanted.
  Output(std::string name) : path(std::move(name)) {}  // NOLINT(google-explicit-constructor)
  Output(const char* name) : path(name) {}             // NOLINT(google-explicit-constructor)

  bool is_standard_output() const { return path == "-"; }

  /// As messages call it.
  std::string name() const { return is_standard_output() ? "standard output" : path; }
};

/// A file that appears whole or not at all: it is written under a temporary name in the same directory, and
/// renamed when it is complete and on the disk. One thread, one such file at a time.
class AtomicFile {
public:
  /// @param output  of the new file; commit() replaces an existing one
  /// @param inputs  files that it must not replace
  /// @throws CueError when it would replace an input or anything but a regular file, or cannot be made
  AtomicFile(const Output& output, const std::vector<Input>& inputs);

  /// Removes the temporary file unless it was committed.
  ~AtomicFile();

  /// The same for the latest file; for signal handlers.
  static void remove_unfinished();

  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;
  AtomicFile(AtomicFile&&) = delete;
  AtomicFile& operator=(AtomicFile&&) = delete;

  /// @throws CueError
  void write(const void* bytes, std::size_t size);
  void write(const std::string& text) { write(text.data(), text.size()); }

  /// Puts the file in place. @throws CueError
  void commit();

  /// Name of the file until commit(), for code that opens it itself.
  const std::string& temporary_path() const { return temporary; }

  const std::string& path() const { return target; }

private:
  void flush();

  std::string target;
  std::string temporary;
  std::vector<char> pending;
  int fd = -1;
};

}  // namespace cue
