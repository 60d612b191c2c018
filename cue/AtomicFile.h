#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace cue {

/// A file that appears whole or not at all: it is written under a temporary name in the same directory, and
/// renamed when it is complete and on the disk. One thread, one such file at a time.
class AtomicFile {
public:
  /// @param path    of the new file; commit() replaces an existing one
  /// @param inputs  files that it must not replace
  /// @throws CueError when it would replace an input or anything but a regular file, or cannot be made
  AtomicFile(std::string path, const std::vector<std::string>& inputs);

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
