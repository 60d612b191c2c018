#include "cue/Player.h"

#include <algorithm>
#include <chrono>
#include <system_error>

#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/Edit.h"
#include "cue/RecordingInfo.h"
#include "cue/Time.h"

namespace cue {
namespace {

using Clock = kesto::Clock;

// Time from the start to the first datagram, for reading the first part of the file.
constexpr Clock::duration kLead = std::chrono::milliseconds(5);

// A sleep may end so much too late: this last part of a wait is spun.
constexpr Clock::duration kSpin = std::chrono::microseconds(300);

// Longest wait between two looks at the stop flag.
constexpr Clock::duration kSlice = std::chrono::milliseconds(20);

// on_idle is called when so much time is left until the next datagram.
constexpr Clock::duration kIdle = std::chrono::milliseconds(3);

constexpr std::size_t kSequenceOffset = offsetof(ArtDmx, sequence);
constexpr std::size_t kSlotsOffset = offsetof(ArtDmx, data);

}  // namespace

Player::Player(const PlayOptions& wanted, DatagramSink& to, PlayClock& play_clock,
               const std::atomic<bool>& stopped)
    : spin(kSpin), options(wanted), sink(to), clock(play_clock), stop(stopped), selector(wanted.selection) {}

Player::Time Player::after(Time time, std::int64_t ns) const {
  return Time(Clock::duration(add_times(time.time_since_epoch().count(), ns)));
}

std::int64_t Player::at_speed(std::int64_t ns) const {
  return options.speed == 0 ? ns : kesto::calculate_delay(Clock::duration(ns), options.speed).count();
}

/// Waits until @p deadline. @return false when the playback is stopped first
bool Player::wait(Time deadline) {
  for (;;) {
    if (stop) return false;
    const Time now = clock.now();
    if (now >= deadline) return true;
    if (deadline - now > kIdle && on_idle) on_idle(play);
    if (deadline - now > spin)
      clock.sleep_until(std::min(deadline - spin, now + kSlice));
    else
      clock.spin_until(deadline);
  }
}

void Player::send(const Bytes& datagram, Time deadline, std::uint64_t offset) {
  const int error = sink.send(datagram.data, datagram.size);
  if (error != 0) {
    if (play.lateness.count() == 0 && play.failed == 0)
      throw CueError(options.file.name() + ": byte " + std::to_string(offset) +
                     ": not sent: " + std::generic_category().message(error));
    if (play.failed++ == 0) {
      play.first_failure = {error, offset, play.position};
    }
    return;
  }
  play.lateness.add(std::max<std::int64_t>(0, (clock.now() - deadline).count()));
  if (options.hold_rate > 0 || options.blackout) remember(datagram);
}

void Player::remember(const Bytes& datagram) {
  for_each_dmx(datagram.data, datagram.size, [&](const DmxPacket& packet) {
    looks[packet.port_address].assign(datagram.data + packet.offset, datagram.data + packet.end());
  });
}

/// Plays one pass from pass_start on, then sets it for the next pass.
/// @return false when there is no next pass: stopped, or nothing to play
bool Player::play_pass() {
  RecordingReader reader(options.file);
  Record record;
  std::int64_t end = 0;  // of the pass, in the recording
  bool reached_stop = false;
  bool played = false;
  while (reader.next(record)) {
    reached_stop = options.selection.is_past(record.time);
    if (reached_stop) break;
    if (record.time < options.selection.start) continue;
    end = record.time;
    const auto picked = selector.pick(record);
    if (!picked) continue;
    last_deadline = after(pass_start, at_speed(record.time - options.selection.start));
    if (!wait(last_deadline)) return false;
    play.position = record.time;
    play.offset = record.offset;
    send(*picked, last_deadline, record.offset);
    played = true;
  }
  if (reader.damage()) throw CueError(damage_text(reader.name(), *reader.damage()));
  if (!played) return false;
  // A pass that reaches its stop time lasts until then, any other until its last datagram and the gap after
  // it.
  const std::int64_t length = reached_stop ? *options.selection.stop - options.selection.start
                                           : add_times(end - options.selection.start, options.gap.value_or(default_gap()));
  pass_start = after(pass_start, at_speed(length));
  return true;
}

/// Counts the sequence number on (Art-Net 4, ArtDmx: 1..255; 0: not counted, and left alone).
void Player::advance_sequence(std::vector<std::uint8_t>& look) const {
  std::uint8_t& sequence = look[kSequenceOffset];
  if (sequence != 0) sequence = sequence == 255 ? 1 : static_cast<std::uint8_t>(sequence + 1);
}

void Player::hold() {
  play.holding = true;
  const std::int64_t period = kesto::calculate_delay(options.hold_rate).count();
  for (Time deadline = after(last_deadline, period); wait(deadline); deadline = after(deadline, period)) {
    for (auto& [port_address, look] : looks) {
      advance_sequence(look);
      send({look.data(), look.size()}, deadline, play.offset);
    }
  }
}

void Player::black_out() {
  for (auto& [port_address, look] : looks) {
    advance_sequence(look);
    std::fill(look.begin() + kSlotsOffset, look.end(), std::uint8_t{0});
    if (sink.send(look.data(), look.size()) != 0) ++play.failed;
  }
}

void Player::run() {
  pass_start = clock.now() + kLead;
  last_deadline = pass_start;
  try {
    do ++play.pass;
    while (play_pass() && (!options.loops || play.pass < *options.loops));
    if (options.hold_rate > 0 && !looks.empty() && !stop) hold();
  } catch (const CueError&) {
    if (options.blackout) black_out();
    throw;
  }
  if (options.blackout) black_out();
}

}  // namespace cue
