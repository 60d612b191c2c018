#include "cue/RecordingReader.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "artnet/RecordingFormat.h"
#include "cue/CueError.h"
#include "cue/Import.h"
#include "cue/Time.h"

namespace cue {
namespace {

// Most bytes needed at once: a datagram and its delay record, and the same again to look ahead. More of them
// change nothing.
constexpr std::size_t kReach = 2 * (kLongestDatagram + kDelaySize);

}  // namespace

RecordingReader::RecordingReader(const Input& input) : RecordingReader(open_recording(input), input.name()) {}

RecordingReader::RecordingReader(Source from, std::string name, std::size_t buffer_size)
    : source(std::move(from)), file_name(std::move(name)), buffer(std::max(buffer_size, 2 * kReach)) {}

/// Brings the reach of one step, or what there is of the file, into the buffer. What could be a delay record
/// before `begin` stays.
void RecordingReader::fill() {
  if (at_end || available() >= kReach) return;
  const std::size_t kept = std::min(begin, kDelaySize);
  std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(begin - kept),
            buffer.begin() + static_cast<std::ptrdiff_t>(end), buffer.begin());
  base += begin - kept;
  end -= begin - kept;
  begin = kept;
  while (!at_end && end < buffer.size()) {
    const std::size_t count = source(buffer.data() + end, buffer.size() - end);
    end += count;
    at_end = count == 0 && !growing;
    if (count == 0) break;
  }
}

/// Whether the file may grow within the reach of this step.
bool RecordingReader::undecided() const {
  return !at_end && available() < kReach;
}

/// Whether more bytes could change the bounds of the datagram at `begin`. A delay record ends it whatever
/// comes, for all that was looked at lies before the end of that record.
bool RecordingReader::can_change(const DatagramBounds& bounds) const {
  return bounds.behind != Behind::Delay && undecided();
}

void RecordingReader::skip(std::size_t size) {
  begin += size;
}

/// Passes over the delay record at `begin`.
void RecordingReader::pass_delay() {
  if (!first) time += delay_pause(data());
  skip(kDelaySize);
  after_delay = true;
}

bool RecordingReader::pause_counts(std::int64_t pause) const {
  // The sum of all pauses is a difference of two times on one clock, so it cannot overflow.
  return pause >= 0 && pause <= kLongestPause && pause <= std::numeric_limits<std::int64_t>::max() - time;
}

/// What counts of the pause of a delay record in a damaged place. All of them become one pause.
std::int64_t RecordingReader::possible_pause(std::int64_t pause) const {
  const std::int64_t without_sign = pause & std::numeric_limits<std::int64_t>::max();
  const bool counts = without_sign <= kLongestPause - (time - last_time) && pause_counts(without_sign);
  return !first && counts ? without_sign : 0;
}

void RecordingReader::deliver(Record& record, std::size_t size) {
  record.data = data();
  record.size = size;
  record.pause = first ? 0 : time - last_time;
  record.time = time;
  record.offset = position();
  first = false;
  after_delay = false;
  last_time = time;
  delivered = size;
  good_end = position() + size;
}

/// Notes damage at `begin`. @return false
bool RecordingReader::broken(std::string what) {
  found_damage = Damage{position(), good_end, std::move(what)};
  search_from = position();
  return false;
}

/// Takes a single ArtDmx before a delay record: the case of nearly every datagram. More bytes change nothing.
bool RecordingReader::take_simple(Record& record) {
  const std::size_t size = dmx_size(data(), available());
  if (size == 0 || available() - size < kDelaySize) return false;
  if (!begins_delay(data() + size) || !pause_counts(delay_pause(data() + size))) return false;
  deliver(record, size);
  before_delay = true;
  return true;
}

void RecordingReader::damaged_after(const Record& record, std::uint64_t offset, std::string what) {
  next_damage = Damage{offset, record.end(), std::move(what)};
}

/// Notes the delay record after @p record. The next step judges what follows it.
void RecordingReader::note_delay(const Record& record) {
  before_delay = pause_counts(delay_pause(record.data + record.size));
  if (!before_delay) damaged_after(record, record.end(), "a delay record with a pause that is not possible");
}

bool RecordingReader::take(Record& record) {
  const DatagramBounds bounds = bounds_of(data(), available());
  if (can_change(bounds)) return false;
  if (bounds.size == 0) return broken(text_of(bounds.behind));
  deliver(record, bounds.size);
  if (bounds.behind == Behind::Delay)
    note_delay(record);
  else if (bounds.behind != Behind::End)
    damaged_after(record, record.end(), text_of(bounds.behind));
  return true;
}

bool RecordingReader::next(Record& record) {
  if (found_damage) return false;
  skip(delivered);
  delivered = 0;
  if (next_damage) {
    found_damage = std::exchange(next_damage, std::nullopt);
    search_from = position();
    return false;
  }
  if (std::exchange(before_delay, false)) pass_delay();
  if (take_simple(record)) return true;
  fill();
  if (available() == 0) return after_delay && at_end ? broken("cut off behind a delay record") : false;
  return take_simple(record) || take(record);
}

/// Goes to the next identifier. @return false when there is none up to the end of the file by now
bool RecordingReader::find_identifier() {
  for (;;) {
    fill();
    const void* const found = memmem(data(), available(), kArtNetId, kArtNetIdSize);
    if (found != nullptr) {
      skip(static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - data()));
      fill();
      return true;
    }
    const bool all = at_end || undecided();
    // An identifier may begin in the last bytes.
    skip(available() - (at_end ? 0 : std::min(available(), kArtNetIdSize - 1)));
    if (all) return false;
  }
}

/// Goes to the next good datagram, and counts what is lost. @return false when there is none, or none yet
bool RecordingReader::find_good() {
  for (;;) {
    if (after_delay) {
      fill();
      const DatagramBounds bounds = bounds_of(data(), available());
      if (can_change(bounds)) return false;
      if (bounds.size > 0) return true;
      after_delay = false;
    }
    const std::uint64_t before = position();
    const bool found = find_identifier();
    lost += position() - before;
    if (!found) return false;
    if (available() >= kDelaySize && begins_delay(data())) {
      time += possible_pause(delay_pause(data()));
      skip(kDelaySize);
      search_from = position();
      after_delay = true;
      continue;
    }
    if (undecided() && can_change(bounds_of(data(), available()))) return false;
    const std::size_t passed =
        take_up(position() - search_from >= kDelaySize && begins_damaged_delay(data() - kDelaySize));
    if (passed == 0) return true;
    skip(passed);
    lost += passed;
  }
}

/// Judges the bytes at `begin`, which no whole delay record precedes, as a datagram. Slots may hold what
/// looks like one, so a delay record must be near.
/// @param behind_damaged_delay  a damaged delay record precedes them
/// @return 0 when they are one, or the number of bytes in which none begins
std::size_t RecordingReader::take_up(bool behind_damaged_delay) {
  if (!behind_damaged_delay && dmx_size(data(), available()) == 0) return 1;
  const bool in_bad_row = position() == bad_row_next && position() < bad_row_end;
  if (in_bad_row) bad_row_next += padded_dmx_size(data(), available());
  if (in_bad_row && !behind_damaged_delay) return 1;
  const DatagramBounds bounds = bounds_of(data(), available());
  if (bounds.size == 0) return 1;
  if (behind_damaged_delay) {
    time += possible_pause(delay_pause(data() - kDelaySize));
    lost -= kDelaySize;
    return 0;
  }
  if (bounds.ends_well()) return 0;
  if (bounds.row && position() >= bad_row_end) {
    bad_row_next = position() + padded_dmx_size(data(), available());
    bad_row_end = position() + bounds.size;
  }
  // All packets of an endless row end alike.
  return bounds.behind == Behind::TooLong ? bounds.size : 1;
}

bool RecordingReader::resume() {
  if (!found_damage || !find_good()) return false;
  found_damage.reset();
  return true;
}

}  // namespace cue
