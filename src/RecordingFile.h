#pragma once

#include <sys/types.h>

#include <QDataStream>
#include <QFile>
#include <QString>
#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

/// What a path leads to, whatever its name: device and inode.
struct FileIdentity {
  dev_t device;
  ino_t inode;

  /// @return nothing when there is no such file
  static std::optional<FileIdentity> of(const QString& path);

  friend bool operator==(const FileIdentity& a, const FileIdentity& b) {
    return a.device == b.device && a.inode == b.inode;
  }
};

/// Where a recording goes. One thread at a time; every call may wait for a disk.
class RecordingSink {
public:
  RecordingSink() = default;
  virtual ~RecordingSink() = default;
  RecordingSink(const RecordingSink&) = delete;
  RecordingSink& operator=(const RecordingSink&) = delete;
  RecordingSink(RecordingSink&&) = delete;
  RecordingSink& operator=(RecordingSink&&) = delete;

  /// Appends @p bytes (not empty), or as many of them as there is room for.
  /// @return bytes appended, at least 1, or -1 (see errno; EAGAIN: there may soon be room)
  virtual ssize_t write(std::string_view bytes) = 0;

  /// Removes the last @p size bytes, where that is possible.
  virtual void cut(std::size_t size) = 0;

  /// @return bytes; 0 when nobody can tell
  virtual qint64 size() const = 0;

  /// The path as it was opened.
  virtual QString name() const = 0;

  virtual FileIdentity identity() const = 0;
};

/// The file of a recording.
class RecordingFile : public RecordingSink {
public:
  /// Opens @p path for writing from its beginning. Waits at most a second for a process that holds a lease on
  /// the file. A terminal or a named pipe with a slow reader answers EAGAIN to later writes. Main thread,
  /// without any lock.
  /// @return null when it cannot be opened, or is a named pipe that nobody reads
  static std::unique_ptr<RecordingFile> open(const QString& path);

  /// As declared above; sees to it that what was written reaches the disk a piece at a time.
  ssize_t write(std::string_view bytes) override;
  void cut(std::size_t size) override;
  qint64 size() const override;
  QString name() const override { return file_name; }
  FileIdentity identity() const override { return own_identity; }

private:
  RecordingFile() = default;

  void send_to_disk();

  QString file_name;
  FileIdentity own_identity{};
  QFile grab_file;
  QDataStream grab_stream;  // raw bytes only, into grab_file
  qint64 written = 0;       // bytes
  qint64 on_its_way = 0;    // of them, those that the disk was told to take
};
