#include "cue/RecordingReader.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "artnet/ArtNetPackets.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"

namespace cue {
namespace {

// Most bytes needed at once: a datagram and its delay record, and the same again to look ahead.
constexpr std::size_t kReach = 2 * (kLongestDatagram + kDelaySize);

constexpr std::size_t kDmxSlotsOffset = offsetof(ArtDmx, length);

/// Identifier and OpCode of a packet as two numbers that compare at once.
struct HeaderNumbers {
  std::uint64_t id = 0;
  std::uint16_t opcode = 0;

  explicit HeaderNumbers(const std::uint8_t* bytes) {
    memcpy(&id, bytes, sizeof id);
    memcpy(&opcode, bytes + sizeof id, sizeof opcode);
  }
  bool is(std::uint16_t wanted) const { return id == artnet_id() && opcode == wanted; }

  static std::uint64_t artnet_id() {
    std::uint64_t number = 0;
    memcpy(&number, kArtNetId, sizeof number);
    return number;
  }
};

/// Size of the whole ArtDmx at @p bytes, 0 when there is none.
std::size_t dmx_size(const std::uint8_t* bytes, std::size_t available) {
  if (available < kDmxHeaderSize || !HeaderNumbers(bytes).is(OpDmx)) return 0;
  const std::size_t slots =
      static_cast<std::size_t>(bytes[kDmxSlotsOffset] << 8) | bytes[kDmxSlotsOffset + 1];
  const std::size_t size = kDmxHeaderSize + slots;
  return slots <= kDmxSlots && size <= available ? size : 0;
}

/// Whether the @p size bytes are the beginning of a delay record, cut off.
bool is_cut_delay(const std::uint8_t* bytes, std::size_t size) {
  const ArtOemVfpsNs whole = make_delay_record(0);
  return size < kDelaySize && memcmp(bytes, &whole, std::min(size, kArtHeaderSize)) == 0;
}

}  // namespace

RecordingReader::RecordingReader(const Input& input) : RecordingReader(input.open(), input.name()) {}

RecordingReader::RecordingReader(Source from, std::string name, std::size_t buffer_size)
    : source(std::move(from)), file_name(std::move(name)), buffer(std::max(buffer_size, 2 * kReach)) {}

/// Brings the reach of one step, or the rest of the file, into the buffer.
void RecordingReader::fill() {
  if (at_end || available() >= kReach) return;
  std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(begin),
            buffer.begin() + static_cast<std::ptrdiff_t>(end), buffer.begin());
  base += begin;
  end -= begin;
  begin = 0;
  while (!at_end && end < buffer.size()) {
    const std::size_t count = source(buffer.data() + end, buffer.size() - end);
    end += count;
    at_end = count == 0;
  }
}

void RecordingReader::skip(std::size_t size) {
  begin += size;
}

/// Passes over the delay record at `begin`.
void RecordingReader::pass_delay() {
  if (!first) time += delay_pause(data());
  skip(kDelaySize);
}

bool RecordingReader::pause_counts(std::size_t at) const {
  const std::int64_t pause = delay_pause(data() + at);
  // The sum of all pauses is a difference of two times on one clock, so it cannot overflow.
  return pause >= 0 && pause <= std::numeric_limits<std::int64_t>::max() - time;
}

RecordingReader::Behind RecordingReader::behind(std::size_t at) const {
  DatagramWalk walk(data() + at, std::min(available() - at, kLongestDatagram));
  for (;;) {
    switch (walk.next()) {
      case DatagramWalk::Step::Dmx:
        return Behind::Dmx;
      case DatagramWalk::Step::Delay:
        if (pause_counts(at + walk.position())) return Behind::Delay;
        break;
      case DatagramWalk::Step::Reply:
        break;
      case DatagramWalk::Step::Truncated:
      case DatagramWalk::Step::End:
        return Behind::Nothing;
    }
  }
}

/// Judges the delay record at @p at as the end of a datagram.
RecordingReader::EndKind RecordingReader::kind_of_end(std::size_t at) const {
  if (!pause_counts(at)) return EndKind::None;
  switch (behind(at + kDelaySize)) {
    case Behind::Dmx:
      return EndKind::Delay;
    case Behind::Nothing:
      return EndKind::Damaged;
    case Behind::Delay:
      break;
  }
  return EndKind::None;
}

RecordingReader::End RecordingReader::find_end() const {
  // A delay record may begin right after the longest datagram.
  const std::size_t reach = std::min(available(), kLongestDatagram + kDelaySize);
  DatagramWalk walk(data(), reach);
  bool holds_dmx = false;
  std::optional<std::size_t> passed;  // a delay record that another one follows
  for (;;) {
    const DatagramWalk::Step step = walk.next();
    if (step == DatagramWalk::Step::Reply) {
      const End end_in_reply = find_end_in(walk.cut_reply().begin, walk.cut_reply().end);
      if (end_in_reply.kind != EndKind::None) return end_in_reply;
      continue;
    }
    if (step == DatagramWalk::Step::Dmx) {
      holds_dmx = holds_dmx || walk.dmx().end() <= kLongestDatagram;
    } else if (step == DatagramWalk::Step::Delay) {
      if (!holds_dmx) continue;
      const EndKind kind = kind_of_end(walk.position());
      if (kind != EndKind::None) return {kind, walk.position()};
      if (!passed && pause_counts(walk.position())) passed = walk.position();
    } else {
      break;
    }
  }
  // No end in reach, and too many bytes for one datagram: end at the delay record that was passed over.
  if (passed && available() > kLongestDatagram) return {EndKind::Delay, *passed};
  return {};
}

/// The first end within an ArtPollReply that may be cut short. It need not lie between two packets: such a
/// reply goes to the end of its datagram.
RecordingReader::End RecordingReader::find_end_in(std::size_t from, std::size_t to) const {
  const std::size_t last = std::min(to, kLongestDatagram);
  for (std::size_t at = from; at <= last && at + kDelaySize <= available(); ++at) {
    if (!begins_delay(data() + at) || !shape_of(data(), at).recordable()) continue;
    const EndKind kind = kind_of_end(at);
    if (kind != EndKind::None) return {kind, at};
  }
  return {};
}

void RecordingReader::deliver(Record& record, std::size_t size) {
  record.data = data();
  record.size = size;
  record.pause = first ? 0 : time - last_time;
  record.time = time;
  record.offset = position();
  first = false;
  last_time = time;
  delivered = size;
  good_end = position() + size;
}

void RecordingReader::note_inner_delay(const Record& record) {
  DatagramWalk walk(record.data, record.size);
  for (;;) {
    const DatagramWalk::Step step = walk.next();
    if (step == DatagramWalk::Step::Delay) {
      inner_delay = record.offset + walk.position();
      return;
    }
    if (step == DatagramWalk::Step::Truncated || step == DatagramWalk::Step::End) return;
  }
}

/// Notes damage at `begin`. @return false
bool RecordingReader::broken(std::string what) {
  found_damage = Damage{position(), good_end, std::move(what)};
  return false;
}

/// Takes a single ArtDmx before a delay record and another ArtDmx: the case of nearly every datagram.
bool RecordingReader::take_simple(Record& record) {
  const std::size_t size = dmx_size(data(), available());
  if (size == 0 || available() - size < kDelaySize) return false;
  if (!HeaderNumbers(data() + size).is(OpOemVfpsNs) || !pause_counts(size)) return false;
  const std::size_t behind_delay = size + kDelaySize;
  if (dmx_size(data() + behind_delay, available() - behind_delay) == 0) return false;
  deliver(record, size);
  before_delay = true;
  return true;
}

bool RecordingReader::take(Record& record) {
  const End end_of_datagram = find_end();
  switch (end_of_datagram.kind) {
    case EndKind::Delay:
      deliver(record, end_of_datagram.at);
      before_delay = true;
      break;
    case EndKind::Damaged: {
      deliver(record, end_of_datagram.at);
      const std::size_t rest = available() - end_of_datagram.at - kDelaySize;
      std::string what = "no whole datagram of at most " + std::to_string(kLongestDatagram) + " bytes";
      if (at_end && rest == 0) what = "cut off behind a delay record";
      if (at_end && rest > 0 && rest <= kLongestDatagram) what = "cut off within a datagram";
      next_damage = Damage{record.end() + kDelaySize, record.end(), std::move(what)};
      break;
    }
    case EndKind::None:
      if (available() > kLongestDatagram)
        return broken("no end of a datagram within " + std::to_string(kLongestDatagram) + " bytes");
      if (!take_rest(record)) return false;
      break;
  }
  note_inner_delay(record);
  return true;
}

/// Takes the last datagram, which ends with the file.
bool RecordingReader::take_rest(Record& record) {
  const std::size_t rest = available();
  DatagramWalk walk(data(), rest);
  for (;;) {
    const DatagramWalk::Step step = walk.next();
    if (step == DatagramWalk::Step::Truncated || step == DatagramWalk::Step::End) break;
  }
  const DatagramShape shape = shape_of(data(), rest);
  const std::size_t cut = shape.truncated ? walk.position() : walk.last_packet_end();
  const bool cut_in_delay =
      (shape.truncated || shape.tail_is_header) && is_cut_delay(data() + cut, rest - cut);
  if (cut_in_delay && shape_of(data(), cut).recordable()) {
    deliver(record, cut);
    next_damage = Damage{record.end(), record.end(), "cut off within a delay record"};
    return true;
  }
  if (shape.truncated) return broken("cut off within a datagram");
  if (!shape.recordable()) return broken("no ArtDmx up to the end of the file");
  deliver(record, rest);
  return true;
}

bool RecordingReader::next(Record& record) {
  if (found_damage) return false;
  skip(delivered);
  delivered = 0;
  inner_delay.reset();
  if (next_damage) {
    found_damage = std::exchange(next_damage, std::nullopt);
    return false;
  }
  if (std::exchange(before_delay, false)) pass_delay();
  fill();
  if (available() == 0) return false;
  return take_simple(record) || take(record);
}

bool RecordingReader::resume() {
  if (!found_damage) return false;
  // The record at `begin` is broken: search from its second byte on.
  std::size_t at = 1;
  for (;;) {
    fill();
    const std::size_t reach = available() < kDelaySize ? 0 : available() - kDelaySize + 1;
    const auto* const found =
        at < reach ? static_cast<const std::uint8_t*>(memchr(data() + at, kArtNetId[0], reach - at))
                   : nullptr;
    if (found == nullptr) {
      if (at_end) return false;
      skip(std::max(at, reach));
      at = 0;
      continue;
    }
    skip(static_cast<std::size_t>(found - data()));
    at = 1;
    fill();
    if (!begins_delay(data()) || !pause_counts(0) || behind(kDelaySize) != Behind::Dmx) continue;
    found_damage.reset();
    pass_delay();
    return true;
  }
}

}  // namespace cue
