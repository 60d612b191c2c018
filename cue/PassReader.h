#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "cue/GoodRecords.h"
#include "cue/Input.h"
#include "cue/Looks.h"
#include "cue/RecordingReader.h"
#include "cue/Selection.h"

namespace cue {

/// Reads the datagrams of a selection, from its start or any later point, as often as wanted.
class PassReader {
public:
  /// A datagram of the selection.
  struct Picked {
    Bytes bytes;               // valid until the next call of the reader
    std::int64_t time = 0;     // ns since the first datagram of the recording
    std::uint64_t offset = 0;  // in the file
  };

  /// Where a pass ends.
  struct End {
    std::int64_t time = 0;  // ns: selection.stop, or the last datagram of any universe
    bool at_stop = false;   // the recording goes on behind selection.stop
  };

  /// @param from         can be opened several times, see Input::keep()
  /// @param passed_over  as for GoodRecords; called once for each damage
  /// @param stopped      ends long reading
  PassReader(Input from, const Selection& wanted, OnDamage passed_over, const std::atomic<bool>& stopped);

  /// Goes to the selection's start. @return the looks there @throws CueError
  Looks rewind();

  /// Goes to the first datagram at or after @p position. Going back reads from the selection's start on.
  /// @param position  ns, not before selection.start
  /// @param shown     the looks up to here
  /// @return the looks at @p position @throws CueError
  Looks go_to(std::int64_t position, const Looks& shown);

  /// The datagram that comes next; nothing at the end of the selection. @throws CueError
  const std::optional<Picked>& peek();

  /// Passes over the datagram of peek().
  void advance();

  /// Whether the recording has a datagram of any universe between here and selection.stop, peek() aside.
  bool has_more();

  /// After peek() has found no more.
  End end() const;

  /// Reads the whole selection in advance. @return nothing when stopped @throws CueError
  std::optional<End> find_end() const;

  /// Why there is nothing to play, after an attempt.
  std::string why_nothing() const;

private:
  /// The selection's start, once it has been found.
  struct Start {
    std::uint64_t offset = 0;  // of the first datagram at or after it
    std::int64_t time = 0;
    Looks looks;
  };

  void open();
  void read_up_to(std::int64_t position, Looks& looks);
  bool read();
  void pass_over(const Damage& damage);
  void drop();

  // Constant after construction.
  Input input;
  const Selection& selection;
  OnDamage on_damage;
  const std::atomic<bool>& stop;

  Selector selector;
  std::optional<Start> start;
  std::optional<RecordingReader> reader;
  std::uint64_t base_offset = 0;  // where the reader began in the file
  std::int64_t base_time = 0;
  bool pending = false;  // record is the next one
  Record record;
  std::optional<Picked> picked;      // of record
  std::int64_t passed = -1;          // time of the last datagram of the selection behind us; -1: none
  std::optional<std::int64_t> last;  // time of the last datagram read before selection.stop
  std::uint64_t damage_end = 0;      // damage before this offset was reported
};

}  // namespace cue
