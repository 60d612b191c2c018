#include "cue/Player.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>
#include <system_error>
#include <utility>

#include "cue/CueError.h"
#include "cue/Edit.h"
#include "cue/Time.h"

namespace cue {
namespace {

using Clock = kesto::Clock;

// Time from a start to the first datagram, for reading the first part of the file.
constexpr Clock::duration kLead = std::chrono::milliseconds(5);

// A sleep may end so much too late: this last part of a wait is spun.
constexpr Clock::duration kSpin = std::chrono::microseconds(300);

// Longest wait between two looks at the stop flag and at the operator's commands.
constexpr Clock::duration kSlice = std::chrono::milliseconds(20);

// on_idle is called when so much time is left until the next datagram.
constexpr Clock::duration kIdle = std::chrono::milliseconds(3);

// Where there is never so much, it is called so often.
constexpr Clock::duration kLongestSilence = std::chrono::milliseconds(250);

// Datagrams not further apart are a burst, and ArtSync comes after it.
constexpr Clock::duration kBurstGap = std::chrono::milliseconds(2);

// A look that stands is repeated so often: receivers give up after a few seconds of silence.
constexpr Clock::duration kStandPeriod = std::chrono::seconds(1);

// UDP loses packets, and nothing follows a black-out.
constexpr int kBlackouts = 3;
constexpr Clock::duration kBlackoutPeriod = std::chrono::milliseconds(50);

// Art-Net 4, ArtSync.
constexpr std::array<std::uint8_t, 14> kArtSync = {'A', 'r',  't',  '-', 'N', 'e', 't',
                                                   0,   0x00, 0x52, 0,   14,  0,   0};

constexpr double kLongestTime = 9.2e18;  // ns, fits in 64 bits

Bytes bytes_of(const std::vector<std::uint8_t>& bytes) {
  return {bytes.data(), bytes.size()};
}

/// The longest time when the sum has no room in 64 bits.
std::int64_t add_bounded(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return b > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
}

OnDamage counting(std::uint64_t& count, const OnDamage& on_damage) {
  if (!on_damage) return {};
  return [&count, on_damage](const RecordingReader& reader, const Damage& damage) {
    ++count;
    on_damage(reader, damage);
  };
}

}  // namespace

std::int64_t at_speed(std::int64_t ns, const PlayOptions& options) {
  if (options.factor)
    return static_cast<std::int64_t>(std::min(static_cast<double>(ns) / *options.factor, kLongestTime));
  return options.speed == 0 ? ns : kesto::calculate_delay(Clock::duration(ns), options.speed).count();
}

Player::Player(const PlayOptions& wanted, DatagramSink& to, PlayClock& play_clock,
               const std::atomic<bool>& stopped)
    : spin(kSpin),
      options(wanted),
      sink(to),
      clock(play_clock),
      stop(stopped),
      records(wanted.file, wanted.selection, counting(play.damaged, wanted.on_damage), stopped) {
  play.passes = wanted.loops;
}

Player::Time Player::after(Time time, std::int64_t ns) const {
  if (ns < 0) return time + Clock::duration(ns);
  return Time(Clock::duration(add_times(time.time_since_epoch().count(), ns)));
}

std::int64_t Player::position_at(Time now) const {
  const std::int64_t elapsed = std::max<std::int64_t>(0, (now - origin).count());
  const double pace = static_cast<double>(lasting(kSecond)) / static_cast<double>(kSecond);
  const double passed = std::min(static_cast<double>(elapsed) / pace, kLongestTime);
  return add_bounded(origin_position, static_cast<std::int64_t>(passed));
}

// Waiting and the operator

void Player::take_commands(Time now) {
  if (!next_command || now < next_poll) return;
  const Time before = std::exchange(next_poll, now + kSlice) - kSlice;
  while (const auto command = next_command()) obey(*command, now, before);
}

/// Where a playback goes on that the system had stopped after the time @p before, which is at most a slice
/// before that: not earlier than what has been sent.
std::int64_t Player::position_after_stop(Time before) const {
  return std::max(add_bounded(play.position, 1), position_at(before));
}

/// @param before  when the operator was asked the last time
void Player::obey(const PlayCommand& command, Time now, Time before) {
  if (command.kind == PlayCommand::Kind::Quit) quit = true;
  if (play.holding) return;
  const std::int64_t start = options.selection.start;
  if (command.kind == PlayCommand::Kind::Pause) {
    pause_or_go_on(now);
    // Nothing has been shown: the pause goes to where there is something to see.
    if (play.paused && !jump && looks.all().empty()) jump = position_at(now);
  }
  if (command.kind == PlayCommand::Kind::Home) jump = start;
  if (command.kind == PlayCommand::Kind::Seek) {
    // A fade stands while the system has stopped the program.
    if (!play.paused && command.by == 0 && fade_start)
      *fade_start += std::max(now - before, Clock::duration(0));
    const std::int64_t here = play.paused       ? position_at(paused_at)
                              : command.by == 0 ? position_after_stop(before)
                                                : position_at(now);
    jump = std::max(start, add_bounded(jump.value_or(here), command.by));
    if (options.selection.stop) jump = std::min(*jump, std::max(start, *options.selection.stop));
  }
}

void Player::pause_or_go_on(Time now) {
  play.paused = !play.paused;
  if (play.paused) {
    paused_at = now;
    play.position = position_at(now);
    return;
  }
  const auto stood = std::max(now - paused_at, Clock::duration(0));
  origin += stood;
  pass_began += stood;
  if (fade_start) *fade_start += stood;
  next_repeat += stood;
  repeat_time += stood;
}

/// Waits until @p ns after the origin. @return false when the position is left before
bool Player::wait(std::int64_t ns, Pausing pausing) {
  // Within a burst, and when it is late, the clock has already shown that the time has come.
  Time now = seen;
  for (bool first = true;; first = false) {
    if (!first || now < after(origin, ns)) now = seen = clock.now();
    take_commands(now);
    if (leaving()) return false;
    if (play.paused && pausing == Pausing::Yes) {
      stand();
      continue;
    }
    const Time deadline = after(origin, ns);
    const bool repeats = fading(now);
    const Time next = repeats ? std::min(deadline, next_repeat) : deadline;
    sync_before(next);
    tell(next, now);
    if (now >= deadline) return true;
    if (repeats && now >= next_repeat)
      repeat_faded(now);
    else
      rest(next, now);
  }
}

/// Repeats the looks until the pause is over or left.
void Player::stand() {
  Time repeat = clock.now() + kStandPeriod;
  while (play.paused) {
    const Time now = clock.now();
    take_commands(now);
    if (leaving()) return;
    sync_before(repeat);
    tell(repeat, now);
    if (now < repeat) {
      rest(repeat, now);
    } else {
      send_all(repeat, level_at(paused_at));
      repeat += kStandPeriod;
    }
  }
}

/// Rests until @p next, or a slice.
void Player::rest(Time next, Time now) {
  if (next - now > spin)
    clock.sleep_until(std::min(next - spin, now + kSlice));
  else
    clock.spin_until(next);
}

/// Tells of the state when there is time until @p next, or it has not been told for long.
void Player::tell(Time next, Time now) {
  if (!on_idle || (next - now <= kIdle && now < next_told)) return;
  next_told = now + kLongestSilence;
  on_idle(play);
}

// Fades

bool Player::fading(Time now) const {
  if (play.paused || !fade_start) return false;
  return (options.fade_in > 0 && !fade_in_done) || level_out(now) < 1;
}

double Player::level_out(Time time) const {
  if (!last_end) return level_after;
  const auto duration_of = [this](std::int64_t ns) {
    return static_cast<double>(lasting(std::max<std::int64_t>(0, ns)));
  };
  const std::int64_t gap = options.gap.value_or(last_end->at_stop ? 0 : default_gap());
  const double pass = std::max(duration_of(add_bounded(last_end->time - options.selection.start, gap)),
                               static_cast<double>(default_gap()));
  const double left = duration_of(last_end->time - origin_position) +
                      static_cast<double>(*options.loops - play.pass) * pass -
                      static_cast<double>((time - origin).count());
  return std::clamp(left / static_cast<double>(options.fade_out), 0.0, 1.0);
}

/// Part of the recorded levels that is sent at @p time, 0..1.
double Player::level_at(Time time) const {
  const double out = level_out(time);
  if (options.fade_in == 0 || fade_in_done || !fade_start) return out;
  const auto elapsed = static_cast<double>((time - *fade_start).count());
  return std::min(out, std::clamp(elapsed / static_cast<double>(options.fade_in), 0.0, 1.0));
}

/// Repeats one universe; after the last one the next repeat of all is due a frame later. One at a time, so
/// that a datagram of the recording never waits for more than one.
void Player::repeat_faded(Time now) {
  if (repeat_from == 0) repeat_time = now;
  const auto& all = looks.all();
  const auto found = repeat_from < UniverseSet::kPortAddresses
                         ? all.lower_bound(static_cast<std::uint16_t>(repeat_from))
                         : all.end();
  if (found != all.end()) {
    repeat_from = std::uint32_t{found->first} + 1;
    send(bytes_of(found->second), repeat_time, level_at(repeat_time));
    return;
  }
  repeat_from = 0;
  next_repeat = std::max(after(next_repeat, default_gap()), now);
  if (repeat_time - *fade_start >= Clock::duration(options.fade_in)) fade_in_done = true;
}

// Sending

void Player::note_failure(int error) {
  const SendFailure failure{error, play.offset, play.position};
  if (play.failed++ == 0) play.first_failure = failure;
  play.last_failure = failure;
}

/// Sends a datagram with the next sequence numbers and faded levels. @return whether it was sent
/// @throws CueError when it is the first and is not sent, and nothing else could be
bool Player::send(const Bytes& datagram, Time due, double level) {
  packet.assign(datagram.data, datagram.data + datagram.size);
  numbers.number(packet.data(), packet.size());
  if (level < 1) scale_levels(packet.data(), packet.size(), level);
  const int error = sink.send(packet.data(), packet.size());
  last_due = due;
  unsynced = options.sync;
  if (error == 0) {
    ++play.sent;
    return true;
  }
  if (play.sent == 0 && play.failed == 0 && sink.is_single())
    throw CueError(options.file.name() + ": byte " + std::to_string(play.offset) +
                   ": not sent: " + std::generic_category().message(error));
  note_failure(error);
  return false;
}

void Player::note_lateness(Time due) {
  seen = clock.now();
  play.lateness.add(std::max<std::int64_t>(0, (seen - due).count()));
}

void Player::send_timed(const Bytes& datagram, Time due) {
  if (send(datagram, due, level_at(due))) note_lateness(due);
  if (keeps_looks) looks.take(datagram);
}

void Player::send_all(Time due, double level) {
  for (const auto& [port_address, look] : looks.all()) send(bytes_of(look), due, level);
}

/// Ends a burst when there is a gap before @p next.
void Player::sync_before(Time next) {
  if (!unsynced || next - last_due <= kBurstGap) return;
  unsynced = false;
  if (const int error = sink.send(kArtSync.data(), kArtSync.size())) note_failure(error);
}

// Passes

/// Makes @p position the place that is sent next, and sends its look.
/// @param arrival  when it is due; nothing: at once
void Player::begin_at(const Looks& look, std::int64_t position, std::optional<Time> arrival) {
  const std::int64_t frame = default_gap();
  std::int64_t spread = look.all().empty() ? 0 : frame;
  // The look of a later pass comes in the second half of the pause before it.
  if (arrival) spread = std::clamp<std::int64_t>((*arrival - last_due).count() / 2, 0, spread);
  const Time old_pause = paused_at;
  origin = arrival ? *arrival : after(clock.now() + kLead, spread);
  origin_position = position;
  play.position = position;
  if (!arrival) repeat_from = 0;  // the levels of the running repeat were those of another place
  if (play.paused) {
    paused_at = origin;
    if (fade_start) *fade_start += origin - old_pause;
  }
  if (!fade_start) {
    fade_start = after(origin, -spread);
    next_repeat = after(*fade_start, frame);
  }
  if (arrival && !wait(-spread, Pausing::Yes)) return;
  send_look(look, spread);
}

/// Sends the look, evenly, in the last @p spread ns before the origin.
void Player::send_look(const Looks& look, std::int64_t spread) {
  const auto count = static_cast<std::int64_t>(look.all().size());
  std::int64_t number = 0;
  for (const auto& [port_address, bytes] : look.all()) {
    const std::int64_t ns = spread * number++ / count - spread;
    if (!wait(ns, Pausing::No)) break;
    send_timed(bytes_of(bytes), after(origin, ns));
  }
  // After a jump from here the looks go on from all of them.
  if (leaving() && keeps_looks) looks.take_all(look);
}

/// Plays from the position to the end of the pass. @return false when it is left before
bool Player::play_on() {
  while (const auto& next = records.peek()) {
    const std::int64_t ns = lasting(std::max<std::int64_t>(0, next->time - origin_position));
    if (!wait(ns, Pausing::Yes)) return false;
    play.position = next->time;
    play.offset = next->offset;
    ++play.selected;
    send_timed(next->bytes, after(origin, ns));
    records.advance();
  }
  if (leaving()) return false;
  if (!is_last_pass() || play.sent == 0) return true;
  const std::int64_t rest_of_it = records.end().time - origin_position;
  return wait(lasting(std::max<std::int64_t>(0, rest_of_it)), Pausing::Yes);
}

Player::Time Player::next_arrival() const {
  const PassReader::End end = records.end();
  const std::int64_t gap = options.gap.value_or(end.at_stop ? 0 : default_gap());
  const std::int64_t length = std::max<std::int64_t>(0, end.time - origin_position);
  return std::max(after(origin, lasting(add_times(length, gap))), after(pass_began, default_gap()));
}

/// Plays one pass. @param arrival  when it starts; nothing: at once
/// @return when the next one starts; nothing: the playback is ended
std::optional<Player::Time> Player::play_pass(std::optional<Time> arrival) {
  const std::uint64_t selected_before = play.selected;
  Looks look = records.rewind();
  if (!stop && !records.has_more()) throw CueError(records.why_nothing());
  if (!options.look) look.forget();
  if (const auto start = std::exchange(wait_for_start, {}); start && !start()) return std::nullopt;
  bool something = !look.all().empty();
  begin_at(look, options.selection.start, arrival);
  pass_began = origin;
  while (!play_on()) {
    if (stop || quit) return std::nullopt;
    std::int64_t position = *std::exchange(jump, std::nullopt);
    look = records.go_to(position, looks);
    const bool before_all = play.paused && look.all().empty();
    if (!options.look) look.forget();
    if (before_all) {
      // Before the first datagrams there is nothing to see: the pause stands behind their first frame.
      position = add_bounded(position, default_gap());
      look = records.go_to(position, look);
    }
    if (!stop && !records.has_more()) position = std::min(position, records.end().time);
    something = true;
    begin_at(look, position, std::nullopt);
  }
  if (!something && play.selected == selected_before) throw CueError(records.why_nothing());
  return next_arrival();
}

void Player::play_passes() {
  if (options.fade_out > 0 && options.loops) last_end = records.find_end();
  std::optional<Time> arrival;
  do {
    ++play.pass;
    arrival = play_pass(arrival);
  } while (arrival && !is_last_pass());
  if (last_end && arrival) send_all(after(last_due, 0), 0);
}

/// Repeats the looks until stopped.
void Player::hold() {
  play.holding = true;
  play.paused = false;
  quit = false;
  jump.reset();
  const std::int64_t period = kesto::calculate_delay(options.hold_rate).count();
  origin = std::max(last_due, clock.now());
  for (std::int64_t ns = period; wait(ns, Pausing::No); ns = add_times(ns, period)) {
    const Time due = after(origin, ns);
    for (const auto& [port_address, look] : looks.all()) {
      if (send(bytes_of(look), due, level_at(due))) note_lateness(due);
    }
  }
}

void Player::black_out() {
  if (looks.all().empty()) return;
  Time due = clock.now();
  for (int round = 0; round < kBlackouts; ++round, due += kBlackoutPeriod) {
    if (clock.now() < due) clock.sleep_until(due);
    send_all(due, 0);
    sync_before(due + kBlackoutPeriod);
  }
}

void Player::run() {
  keeps_looks = options.hold_rate > 0 || options.blackout || options.fade_in > 0 || options.fade_out > 0 ||
                next_command;
  try {
    play_passes();
    // The level stays that of the pause, however long it lasted.
    if (play.paused && !stop) pause_or_go_on(clock.now());
    level_after = level_out(clock.now());
    last_end.reset();
    if (options.hold_rate > 0 && !looks.all().empty() && !stop) hold();
    sync_before(Time::max());
  } catch (const CueError&) {
    if (options.blackout) black_out();
    throw;
  }
  if (options.blackout) black_out();
}

}  // namespace cue
