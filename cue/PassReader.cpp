#include "cue/PassReader.h"

#include <algorithm>
#include <utility>

#include "cue/CueError.h"
#include "cue/Import.h"
#include "cue/RecordingInfo.h"
#include "cue/Time.h"

namespace cue {

PassReader::PassReader(Input from, const Selection& wanted, OnDamage passed_over,
                       const std::atomic<bool>& stopped)
    : input(std::move(from)),
      selection(wanted),
      on_damage(std::move(passed_over)),
      stop(stopped),
      selector(wanted) {}

/// Begins again at the selection's start.
void PassReader::open() {
  base_offset = start ? start->offset : 0;
  base_time = start ? start->time : 0;
  reader.emplace(base_offset > 0 ? input.open(base_offset) : open_recording(input), input.name());
  pending = false;
  picked.reset();
  passed = -1;
}

void PassReader::pass_over(const Damage& damage) {
  Damage in_file = damage;
  in_file.offset += base_offset;
  in_file.good_end += base_offset;
  if (!on_damage) throw CueError(damage_text(reader->name(), in_file));
  if (in_file.offset < damage_end) return;
  damage_end = in_file.offset + 1;
  on_damage(*reader, in_file);
}

/// Makes the next datagram of any universe `record`. @return false at the end
bool PassReader::read() {
  while (!reader->next(record)) {
    if (!reader->damage()) return false;
    pass_over(*reader->damage());
    if (!reader->resume()) return false;
  }
  record.time = add_times(base_time, record.time);
  record.offset += base_offset;
  pending = true;
  if (!selection.is_past(record.time)) last = record.time;
  return true;
}

void PassReader::drop() {
  pending = false;
  picked.reset();
}

/// Passes over what is before @p position, and takes its looks.
void PassReader::read_up_to(std::int64_t position, Looks& looks) {
  while (!stop && (pending || read()) && record.time < position) {
    if (const auto wanted = selector.pick_universes(record.data, record.size)) {
      looks.take(*wanted);
      passed = record.time;
    }
    drop();
  }
}

Looks PassReader::rewind() {
  open();
  Looks looks = start ? start->looks : Looks();
  read_up_to(selection.start, looks);
  if (!start && pending && !stop) start = Start{record.offset, record.time, looks};
  return looks;
}

Looks PassReader::go_to(std::int64_t position, const Looks& shown) {
  Looks looks = position > passed ? shown : rewind();
  read_up_to(position, looks);
  return looks;
}

bool PassReader::has_more() {
  return (pending || read()) && !selection.is_past(record.time);
}

const std::optional<PassReader::Picked>& PassReader::peek() {
  while (!picked && !stop && has_more()) {
    if (const auto wanted = selector.pick_universes(record.data, record.size))
      picked = Picked{*wanted, record.time, record.offset};
    else
      drop();
  }
  return picked;
}

void PassReader::advance() {
  passed = record.time;
  drop();
}

PassReader::End PassReader::end() const {
  if (pending && selection.is_past(record.time)) return {*selection.stop, true};
  return {last.value_or(0), false};
}

std::optional<PassReader::End> PassReader::find_end() const {
  PassReader scan(input, selection, on_damage ? [](const RecordingReader&, const Damage&) {} : OnDamage(),
                  stop);
  scan.open();
  try {
    while (!stop && scan.has_more()) scan.drop();
  } catch (const CueError&) {
    // Damage ends the pass there; it is reported when the playback comes to it.
    if (!scan.reader->damage()) throw;
  }
  if (stop) return std::nullopt;
  return scan.end();
}

std::string PassReader::why_nothing() const {
  return input.name() +
         ": nothing to play: " + cue::why_nothing(selection, last, pending && selection.is_past(record.time));
}

}  // namespace cue
