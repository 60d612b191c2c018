#pragma once

#include <QDataStream>
#include <QFile>
#include <QString>
#include <array>
#include <bitset>
#include <cstddef>
#include <memory>
#include <string_view>

#include "artnet/RecordingFormat.h"

/// The file of a recording, with the records that have not gone into it yet.
///
/// Records are gathered into writes of up to 16 KiB: a crash can lose that much. A delay record and its
/// datagram go in together or not at all. While the disk takes nothing, what was gathered waits and new
/// records are dropped whole; once there is room, writing goes on where it stopped, so that the file holds
/// whole records only.
///
/// One thread at a time.
class RecordingFile {
public:
  enum class Kept { Yes, No };

  /// Opens @p path for writing from its beginning. Waits for at most a second, for a process that holds a
  /// lease on the file to give it up. No later write waits for another process: a terminal or a named pipe
  /// whose reader is slow counts as a full disk, and what it has not read at the end may begin within a
  /// record. Main thread, without any lock.
  /// @return null when it cannot be opened, or is a named pipe that nobody reads
  static std::unique_ptr<RecordingFile> open(const QString& path);

  /// Flushes, then closes.
  ~RecordingFile();

  RecordingFile(const RecordingFile&) = delete;
  RecordingFile& operator=(const RecordingFile&) = delete;
  RecordingFile(RecordingFile&&) = delete;
  RecordingFile& operator=(RecordingFile&&) = delete;

  /// Keeps @p delay (may be empty) and @p datagram (not empty), at most 16 KiB together, after a write if
  /// they need its room.
  /// @return No when they were dropped, because the disk takes nothing
  Kept append(std::string_view delay, std::string_view datagram);

  /// Writes what was gathered. What the disk does not take is given up, and a record that it took in part is
  /// cut off again.
  /// @return how many kept records are not in the file
  std::size_t flush();

  /// Bytes in the file, as the file system knows them; 0 when it does not tell.
  qint64 size_on_disk() const;

  /// As it was opened.
  const QString& name() const { return file_name; }

private:
  static constexpr std::size_t kCapacity = 16384;
  static_assert(kDelaySize + kLongestDatagram <= kCapacity, "an empty buffer takes any record");

  RecordingFile() = default;

  void write_gathered();

  QString file_name;
  QFile grab_file;
  QDataStream grab_stream;  // raw bytes only, into grab_file

  // What was gathered; its first record begins cut_off bytes earlier, in the file.
  std::array<char, kCapacity> gathered;
  std::size_t size = 0;
  std::bitset<kCapacity> record_ends;  // the last byte of each record
  qint64 cut_off = 0;
};
