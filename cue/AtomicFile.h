#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cue/Input.h"

struct stat;

namespace cue {

/// A file that is written: its path, or "-" for the standard output.
struct Output {
  std::string path;
  bool replace = false;  // an existing file may be replaced

  Output() = default;
  // A path is an output wherever one is wanted.
  Output(std::string name) : path(std::move(name)) {}  // NOLINT(google-explicit-constructor)
  Output(const char* name) : path(name) {}             // NOLINT(google-explicit-constructor)

  /// Also under the names that the system has for it.
  bool is_standard_output() const {
    return path == "-" || path == "/dev/stdout" || path == "/dev/fd/1" || path == "/proc/self/fd/1";
  }

  /// As messages call it.
  std::string name() const { return path == "-" ? "standard output" : path; }
};

/// A file that appears whole or not at all: it has no name, or on file systems that want one a temporary one
/// in the same directory, until it is complete and on the disk. An existing file is replaced only when the
/// output says so; the new one then has its owner and its mode. A symbolic link stays, and what it leads to
/// is written.
///
/// The standard output, a pipe and a device are written straight away; bytes that are no text never to a
/// terminal. One thread, one such file at a time.
class AtomicFile {
public:
  /// @param inputs  files that must not be the output
  /// @throws CueError when the output is an input, exists and may not be replaced, or cannot be made
  AtomicFile(const Output& output, const std::vector<Input>& inputs);

  /// Leaves nothing of the file unless it was committed.
  ~AtomicFile();

  /// The same for the latest file; for signal handlers.
  static void remove_unfinished();

  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;
  AtomicFile(AtomicFile&&) = delete;
  AtomicFile& operator=(AtomicFile&&) = delete;

  /// Bytes that are free where the file is written; nothing for a stream, and where the file system does not
  /// tell.
  std::optional<std::uint64_t> room() const;

  /// @throws CueError
  void write(const void* bytes, std::size_t size);
  void write(const std::string& text) { write(text.data(), text.size()); }

  /// Puts the file in place. @throws CueError, also when another file has appeared there that may not be
  /// replaced
  void commit();

private:
  explicit AtomicFile(const Output& output);

  void refuse_inputs(const struct stat& there, const std::vector<Input>& inputs) const;
  void open_stream(int opened);
  void open_file(const std::string& path);
  void make_like(const struct stat& replaced);
  void make_temporary(const std::function<bool(const char*)>& make);
  void forget_temporary();
  void flush();
  void place_new();
  void place_over_claim();
  void place_over();
  [[noreturn]] void fail(int error) const;

  std::string shown;  // in messages
  bool replace;
  bool to_terminal = false;
  int fd = -1;            // -1 after commit()
  int directory = -1;     // of the file; -1 for a stream
  std::string file_name;  // in the directory
  std::string temporary;  // its name until then; empty: it has none
  std::vector<char> pending;
};

/// For work that makes its file late. @throws CueError where AtomicFile would
void check_output(const Output& output, const std::vector<Input>& inputs);

}  // namespace cue
