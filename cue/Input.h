#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct stat;

namespace cue {

/// Delivers up to @p size bytes from front to back, 0 at the end. @throws CueError
using ByteSource = std::function<std::size_t(std::uint8_t* bytes, std::size_t size)>;

/// The first bytes of a source, at most @p size of them; the source delivers them again. @throws CueError
std::vector<std::uint8_t> peek(ByteSource& source, std::size_t size);

/// How far an input has been read.
struct Reading {
  const std::string& name;            // of the input in messages
  std::uint64_t position = 0;         // bytes from the front
  std::optional<std::uint64_t> size;  // of a regular file
};

/// Called after each portion that is read.
using OnReading = std::function<void(const Reading&)>;

/// A file that is read: its path, or "-" for the standard input. Copies are the same input.
class Input {
public:
  Input() = default;
  // A path is an input wherever one is wanted.
  Input(std::string path);                               // NOLINT(google-explicit-constructor)
  Input(const char* path) : Input(std::string(path)) {}  // NOLINT(google-explicit-constructor)

  const std::string& path() const { return file_path; }

  /// As messages call it: the path, or "standard input".
  const std::string& name() const { return shown; }

  /// Reads from byte @p offset on. What cannot be rewound (a pipe, a terminal) can be opened once, unless
  /// keep() came before, and only from the front. @throws CueError
  ByteSource open(std::uint64_t offset = 0) const;

  /// Has @p callback called while the input is read, for as long as there are readers.
  void watch(OnReading callback) { on_reading = std::move(callback); }

  /// Whether it is the file that @p status is about.
  bool is(const struct stat& status) const;

  /// Makes it possible to open() as often as wanted: copies what cannot be rewound to an unnamed temporary
  /// file. A regular file stays open: it is the same one, also when its path is taken away or given to
  /// another.
  /// @throws CueError
  void keep();

  /// Takes the bytes of @p source for the content of this input, in an unnamed temporary file: of what has
  /// been unpacked, or read in part already. @throws CueError
  void keep(const ByteSource& source);

private:
  bool find(struct stat& status) const;

  std::string file_path;
  std::string shown;
  OnReading on_reading;
  std::shared_ptr<const int> kept;  // descriptor of the file, or of the unnamed copy
};

}  // namespace cue
