#pragma once

#include <QDataStream>
#include <QFile>
#include <QString>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "artnet/RecordingFormat.h"

/// The file of a recording, with the records that are not in it yet.
///
/// Records are gathered into writes of up to 16 KiB: a crash can lose that much. A delay record and its
/// datagram go in together or not at all. While the disk takes nothing, gathered records wait and new ones
/// are dropped whole. Once there is room, writing goes on where it stopped, so the file holds whole records
/// only.
///
/// One thread at a time.
class RecordingFile {
public:
  enum class Kept { Yes, No };

  /// Opens @p path for writing from its beginning. Waits at most a second for a process that holds a lease on
  /// the file. No later write waits for another process: a terminal or a named pipe with a slow reader counts
  /// as a full disk, and what such a reader gets may end within a record. Main thread, without any lock.
  /// @return null when it cannot be opened, or is a named pipe that nobody reads
  static std::unique_ptr<RecordingFile> open(const QString& path);

  /// Flushes, then closes.
  ~RecordingFile();

  RecordingFile(const RecordingFile&) = delete;
  RecordingFile& operator=(const RecordingFile&) = delete;
  RecordingFile(RecordingFile&&) = delete;
  RecordingFile& operator=(RecordingFile&&) = delete;

  /// Keeps @p delay (may be empty) and @p datagram (not empty), at most 16 KiB together. Writes first when
  /// they need the room.
  /// @return No when they were dropped because the disk takes nothing
  Kept append(std::string_view delay, std::string_view datagram);

  /// Writes the gathered records. Records that the disk does not take are lost, and one that it took in part
  /// is cut off again.
  /// @return number of lost records
  std::size_t flush();

  /// Size of the file in bytes; 0 when the file system does not tell.
  qint64 size_on_disk() const;

  /// The path as it was opened.
  const QString& name() const { return file_name; }

private:
  static constexpr std::size_t kCapacity = 16384;
  static_assert(kDelaySize + kLongestDatagram <= kCapacity, "an empty buffer takes any record");

  RecordingFile() = default;

  void write_gathered();

  QString file_name;
  QFile grab_file;
  QDataStream grab_stream;  // raw bytes only, into grab_file

  // The gathered bytes. The first cut_off bytes of the first record are in the file already.
  std::array<char, kCapacity> gathered;
  std::size_t size = 0;
  std::array<std::uint16_t, kCapacity> record_ends;  // where each record ends in them
  std::size_t records = 0;
  qint64 cut_off = 0;

  // A record was dropped, and the disk has taken nothing since: a shorter one that would fit does not make it
  // look as if it had.
  bool refused = false;
};
