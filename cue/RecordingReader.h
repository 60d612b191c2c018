#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cue/DatagramBounds.h"
#include "cue/Input.h"

namespace cue {

/// One recorded datagram. The bytes belong to the reader and are valid until its next call.
struct Record {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;      // bytes, 1..kLongestDatagram
  std::int64_t pause = 0;    // ns since the datagram before it; 0 for the first of a recording
  std::int64_t time = 0;     // ns since the first datagram of the recording
  std::uint64_t offset = 0;  // of the datagram in the file

  std::uint64_t end() const { return offset + size; }
};

/// The place where a file stops being a recording.
struct Damage {
  std::uint64_t offset = 0;    // of the first broken record
  std::uint64_t good_end = 0;  // the bytes before this offset are a recording
  std::string what;            // "cut off within a datagram"
};

/// Reads a recording from front to back, datagram by datagram, in constant memory.
///
/// The file stores no lengths, so the reader finds them (bounds_of()). Bytes that a sender does not send are
/// damage: next() ends there, and resume() finds the next good datagram. docs/recording-format.md has the
/// rule, and says which damage cannot be seen.
class RecordingReader {
public:
  using Source = ByteSource;

  /// @throws CueError when the file cannot be opened, or is of another program (foreign_kind())
  explicit RecordingReader(const Input& input);

  /// @param name         of the file in messages
  /// @param buffer_size  bytes; raised to the need of one step
  RecordingReader(Source from, std::string name, std::size_t buffer_size = kBufferSize);

  // Small enough to stay in the processor's cache between the read and the walk.
  static constexpr std::size_t kBufferSize = std::size_t{256} * 1024;

  /// From now on the file grows: the source delivers 0 when it has nothing now. next() and resume() return
  /// false while more bytes could change what they say, and are called again.
  void follow() { growing = true; }

  /// The file does not grow any more.
  void finish() { growing = false; }

  /// The next datagram. @return false at the end of the file and at damage
  /// @throws CueError when the file cannot be read
  bool next(Record& record);

  /// The damage that ended next(); nothing at the end of the file.
  const std::optional<Damage>& damage() const { return found_damage; }

  /// Goes on after the damage: searches for the next datagram that follows a delay record, damaged or not, or
  /// ends as datagrams end. That datagram becomes the next record. Its pause is the sum of the delay records
  /// on the way; of a damaged one counts what is possible, without its sign.
  /// @return false when there is no such record
  bool resume();

  /// Bytes that belong to no good record, up to where resume() has come. A damaged delay record before a good
  /// datagram is not among them.
  std::uint64_t lost_bytes() const { return lost; }

  const std::string& name() const { return file_name; }

private:
  const std::uint8_t* data() const { return buffer.data() + begin; }
  std::size_t available() const { return end - begin; }
  std::uint64_t position() const { return base + begin; }

  void fill();
  bool undecided() const;
  bool can_change(const DatagramBounds& bounds) const;
  void skip(std::size_t size);
  void pass_delay();
  bool pause_counts(std::int64_t pause) const;
  std::int64_t possible_pause(std::int64_t pause) const;
  bool take_simple(Record& record);
  bool take(Record& record);
  void deliver(Record& record, std::size_t size);
  void note_delay(const Record& record);
  void damaged_after(const Record& record, std::uint64_t offset, std::string what);
  bool find_good();
  bool find_identifier();
  std::size_t take_up(bool behind_damaged_delay);
  bool broken(std::string what);

  Source source;
  std::string file_name;
  std::vector<std::uint8_t> buffer;
  std::size_t begin = 0;  // of the bytes not passed yet, in buffer
  std::size_t end = 0;
  std::uint64_t base = 0;             // offset in the file of the buffer's first byte
  std::uint64_t good_end = 0;         // of the last record in the file
  bool growing = false;               // more may come when the source has nothing now
  bool at_end = false;                // the source has no more
  bool first = true;                  // no record has been delivered
  bool before_delay = false;          // a delay record follows the last record
  bool after_delay = false;           // a delay record ends at `begin`
  std::size_t delivered = 0;          // size of the last record, which is at `begin`
  std::int64_t time = 0;              // at `begin`
  std::int64_t last_time = 0;         // of the last record
  std::optional<Damage> next_damage;  // after the last record
  std::optional<Damage> found_damage;
  std::uint64_t search_from = 0;  // after damage: a delay record can begin here
  std::uint64_t lost = 0;         // see lost_bytes()
  // A row of packets that ends badly, as find_good() has seen: offsets of its next packet and of its end.
  std::uint64_t bad_row_next = 0;
  std::uint64_t bad_row_end = 0;
};

}  // namespace cue
