#include "cue/CuePlay.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <ostream>
#include <system_error>

#include "cue/CueError.h"
#include "cue/CueInfo.h"
#include "cue/DatagramWalk.h"
#include "kesto/device_info.h"

namespace cue {
namespace {

using Clock = kesto::Clock;

// The first datagram goes out this long after the start, when the first part of the file is in memory.
constexpr Clock::duration kLead = std::chrono::milliseconds(5);

// Sleeping ends late by up to about this much; the rest is waited for with the processor in hand.
constexpr Clock::duration kSpin = std::chrono::microseconds(300);
constexpr Clock::duration kSpinInRealTime = std::chrono::microseconds(50);

// Longest time without a look at the stop flag.
constexpr Clock::duration kSlice = std::chrono::milliseconds(20);

// The progress line is written only when it cannot hold up the next datagram.
constexpr Clock::duration kIdle = std::chrono::milliseconds(3);
constexpr Clock::duration kProgressPeriod = std::chrono::milliseconds(250);

// Files up to this size are read once before, so that the remaining time is known and not estimated.
constexpr off_t kReadBefore = off_t{64} << 20;

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

/// Waits for a time. @return false when the playback is stopped before
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
      throw CueError(options.file + ": byte " + std::to_string(offset) +
                     ": not sent: " + std::generic_category().message(error));
    if (play.failed++ == 0) {
      play.first_error = error;
      play.first_failed_offset = offset;
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

/// One pass through the file from pass_start on, which becomes the start of the next.
/// @return false when there is to be no other: stopped, or nothing to play
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
  // A part with an end of its own is as long as it was asked for; the whole recording ends with its last
  // datagram.
  const std::int64_t length = reached_stop ? *options.selection.stop - options.selection.start
                                           : add_times(end - options.selection.start, options.gap);
  pass_start = after(pass_start, at_speed(length));
  return true;
}

/// A sender that counts goes on counting (Art-Net 4, ArtDmx: 1..255, 0 for one that does not).
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

std::string progress_text(const PlayState& state, std::optional<std::int64_t> left) {
  char text[160];
  const std::string rest = state.holding ? "held" : left ? format_time(*left) + " left" : "";
  snprintf(text, sizeof text, "%s  %s  %llu datagrams  late %.2f ms (most %.2f ms)",
           format_time(state.position).c_str(), rest.c_str(),
           static_cast<unsigned long long>(state.lateness.count()),
           static_cast<double>(state.lateness.percentile(0.99)) / 1e6,
           static_cast<double>(state.lateness.max()) / 1e6);
  return text;
}

namespace {

/// Estimates or knows what is left of a pass.
class Remaining {
public:
  explicit Remaining(const PlayOptions& options) : selection(options.selection), speed(options.speed) {
    struct stat status {};
    if (stat(options.file.c_str(), &status) == -1) return;
    size = static_cast<double>(status.st_size);
    if (status.st_size > kReadBefore) return;
    RecordingReader reader(options.file);
    Record record;
    std::int64_t last = 0;
    while (reader.next(record)) last = record.time;
    end = last;
  }

  std::optional<std::int64_t> at(const PlayState& state) const {
    std::optional<std::int64_t> to = end;
    if (!to && state.offset > 0)
      to = static_cast<std::int64_t>(static_cast<double>(state.position) * size /
                                     static_cast<double>(state.offset));
    if (selection.stop) to = to ? std::min(*to, *selection.stop) : *selection.stop;
    if (!to) return std::nullopt;
    const std::int64_t left = std::max<std::int64_t>(0, *to - state.position);
    return speed == 0 ? left : kesto::calculate_delay(Clock::duration(left), speed).count();
  }

private:
  const Selection& selection;
  int speed;
  double size = 0;
  std::optional<std::int64_t> end;
};

std::unique_ptr<DatagramSink> make_sink(const PlayCommand& command) {
  if (!command.relay_port) return std::make_unique<UdpSender>(command.to, command.from);
  kesto::device::initialize();
  return std::make_unique<RelaySender>(*command.relay_port, command.to, kesto::device::manufacturer_id());
}

/// Asks to run before everything that is not in a hurry. @return whether this is allowed
bool enter_real_time() {
  // Timers of this program end when they are due and not up to 50 us later.
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
  sched_param lowest{};
  lowest.sched_priority = sched_get_priority_min(SCHED_RR);
  return sched_setscheduler(0, SCHED_RR, &lowest) == 0;
}

void write_stats(std::ostream& out, const PlayState& state) {
  const Lateness& late = state.lateness;
  out << "{\"datagrams\": " << late.count() << ", \"failed\": " << state.failed
      << ", \"late_p50_ns\": " << late.percentile(0.5) << ", \"late_p99_ns\": " << late.percentile(0.99)
      << ", \"late_max_ns\": " << late.max() << ", \"drift_ns\": " << late.drift() << "}\n";
}

}  // namespace

int run_play(const PlayCommand& command, const std::atomic<bool>& stop, std::ostream& out,
             std::ostream& err) {
  const auto sink = make_sink(command);
  SteadyPlayClock clock;
  Player player(command.options, *sink, clock, stop);
  if (command.real_time && enter_real_time()) player.spin = kSpinInRealTime;
  std::unique_ptr<const Remaining> remaining;
  if (command.progress) {
    remaining = std::make_unique<const Remaining>(command.options);
    player.on_idle = [&, next = clock.now()](const PlayState& state) mutable {
      const auto now = clock.now();
      if (now < next) return;
      next = now + kProgressPeriod;
      err << "\r\033[K" << progress_text(state, remaining->at(state)) << std::flush;
    };
  }
  const auto finish_line = [&] {
    if (command.progress) err << "\r\033[K" << progress_text(player.state(), 0) << std::endl;
    if (command.stats) write_stats(out, player.state());
  };
  try {
    player.run();
  } catch (const CueError&) {
    finish_line();
    throw;
  }
  finish_line();
  const PlayState& state = player.state();
  if (state.failed == 0) return 0;
  err << "kadrel-cue: " << command.options.file << ": byte " << state.first_failed_offset << ": "
      << state.failed
      << " datagrams were not sent, the first: " << std::generic_category().message(state.first_error)
      << "\n";
  return 1;
}

}  // namespace cue
