#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

class QDataStream;

/// Gathers the records of a recording into writes of up to 16 KiB. What a crash can lose is no more than
/// that.
///
/// A delay record and its datagram go in together or not at all: while nothing can be written, what is in the
/// buffer waits and new records are dropped whole; once there is room, it goes on where it stopped. Only a
/// disk that stays full to the end leaves the last record cut off.
class GrabBuffer {
public:
  GrabBuffer();

  /// Appends @p delay (may be empty) and @p datagram, at most 16 KiB together, after a write to @p file if
  /// need be.
  void append(std::string_view delay, std::string_view datagram, QDataStream& file);

  /// Writes what is in the buffer. Ends when all is written or a write fails.
  void flush(QDataStream& file);

  void clear() { size = 0; }

private:
  static constexpr std::size_t kCapacity = 16384;

  std::unique_ptr<char[]> bytes;
  std::size_t size = 0;
};
