#pragma once

#include <string>

namespace kadrel_cue {

/// A new file whose name nobody else has, for the service to write. It has one byte until the service opens
/// it and empties it.
class ReservedFile {
public:
  /// @throws cue::CueError when something has this name, or no file can be made
  explicit ReservedFile(std::string path);

  /// A new file in a folder: @p name, or with -2, -3... where it is taken. @throws cue::CueError
  static ReservedFile in_folder(const std::string& folder, const std::string& name);

  ~ReservedFile();
  ReservedFile(ReservedFile&& other) noexcept;
  ReservedFile& operator=(ReservedFile&&) = delete;
  ReservedFile(const ReservedFile&) = delete;
  ReservedFile& operator=(const ReservedFile&) = delete;

  const std::string& path() const { return name; }

  /// Whether somebody has emptied it, that is: opened it for a recording.
  bool was_emptied() const;

  /// Whether nothing has been recorded into it.
  bool is_unused() const;

  /// Whether the name still leads to this file.
  bool is_in_place() const;

  /// Takes the file away when the name still leads to it.
  void remove() const;

private:
  ReservedFile(std::string path, int descriptor);

  std::string name;
  int fd = -1;
};

}  // namespace kadrel_cue
