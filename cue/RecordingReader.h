#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
/// The file stores no lengths, so the reader finds them. It walks the packets of a datagram as the recorder's
/// parser does. A delay record ends the datagram when
///  - it lies between two packets, its pause is not negative, and the datagram holds a whole ArtDmx, and
///  - an ArtDmx follows it before the next delay record.
/// Every other delay record is part of its datagram. docs/recording-format.md says why this recovers the
/// recorded datagrams, and which files can be read in two ways.
class RecordingReader {
public:
  using Source = ByteSource;

  /// @throws CueError when the file cannot be opened
  explicit RecordingReader(const Input& input);

  /// @param name         of the file in messages
  /// @param buffer_size  bytes; raised to the need of one step
  RecordingReader(Source from, std::string name, std::size_t buffer_size = kBufferSize);

  // Small enough to stay in the processor's cache between the read and the walk.
  static constexpr std::size_t kBufferSize = std::size_t{256} * 1024;

  /// The next datagram. @return false at the end of the file and at damage
  /// @throws CueError when the file cannot be read
  bool next(Record& record);

  /// The damage that ended next(); nothing at the end of the file.
  const std::optional<Damage>& damage() const { return found_damage; }

  /// Goes on after the damage: searches for the next delay record that a datagram follows. That datagram
  /// becomes the next record; its pause is the sum of the delay records that could be read on the way.
  /// @return false when there is no such record
  bool resume();

  /// Offset in the file of a delay record within the last record and outside its ArtDmx packets: it was sent
  /// so, or the file is damaged here. Nothing when there is none.
  std::optional<std::uint64_t> delay_within() const { return inner_delay; }

  const std::string& name() const { return file_name; }

private:
  /// First thing after a delay record.
  enum class Behind { Dmx, Delay, Nothing };

  /// Where the datagram at `begin` ends.
  enum class EndKind {
    None,     // nowhere in reach
    Delay,    // at a delay record that a datagram follows
    Damaged,  // at a delay record that nothing whole follows
  };
  struct End {
    EndKind kind = EndKind::None;
    std::size_t at = 0;  // from `begin`
  };

  const std::uint8_t* data() const { return buffer.data() + begin; }
  std::size_t available() const { return end - begin; }
  std::uint64_t position() const { return base + begin; }

  void fill();
  void skip(std::size_t size);
  void pass_delay();
  bool pause_counts(std::size_t at) const;
  Behind behind(std::size_t at) const;
  EndKind kind_of_end(std::size_t at) const;
  End find_end() const;
  End find_end_in(std::size_t from, std::size_t to) const;
  bool take_simple(Record& record);
  bool take(Record& record);
  bool take_rest(Record& record);
  void deliver(Record& record, std::size_t size);
  void note_inner_delay(const Record& record);
  bool broken(std::string what);

  Source source;
  std::string file_name;
  std::vector<std::uint8_t> buffer;
  std::size_t begin = 0;  // of the bytes not passed yet, in buffer
  std::size_t end = 0;
  std::uint64_t base = 0;             // offset in the file of the buffer's first byte
  std::uint64_t good_end = 0;         // of the last record in the file
  bool at_end = false;                // the source has no more
  bool first = true;                  // no record has been delivered
  bool before_delay = false;          // a delay record follows the last record
  std::size_t delivered = 0;          // size of the last record, which is at `begin`
  std::int64_t time = 0;              // at `begin`
  std::int64_t last_time = 0;         // of the last record
  std::optional<Damage> next_damage;  // after the last record
  std::optional<Damage> found_damage;
  std::optional<std::uint64_t> inner_delay;
};

}  // namespace cue
