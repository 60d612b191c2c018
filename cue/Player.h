#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cue/DatagramSender.h"
#include "cue/GoodRecords.h"
#include "cue/Lateness.h"
#include "cue/Looks.h"
#include "cue/PassReader.h"
#include "cue/Selection.h"
#include "kesto/delay.h"

namespace cue {

struct PlayOptions {
  Input file;  // read again for each pass: see Input::keep()
  Selection selection;
  int speed = 0;                           // per cent: 100 plays in half the time, -100 in twice the time
  std::optional<double> factor;            // times as fast, above 0, instead of speed
  std::optional<std::uint64_t> loops = 1;  // passes, at least 1; nothing: until stopped
  std::optional<std::int64_t> gap;  // ns after each pass; nothing: one frame after the last datagram, and
                                    // none after selection.stop
  bool look = true;                 // each pass, and what follows a jump, begins with the look there
  std::int64_t fade_in = 0;         // ns from the start
  std::int64_t fade_out = 0;        // ns up to the end of the last pass; none when loops are endless
  int hold_rate = 0;      // repeats of the last looks per second after the end, until stopped; 0: none
  bool blackout = false;  // zeros to every universe at the end, three times within 100 ms
  bool sync = false;      // an ArtSync after each burst, before a gap of more than 2 ms
  OnDamage on_damage;     // called once for each damage; empty: an error after the good part
};

/// How long @p ns of the recording last in a playback; at most 292 years.
std::int64_t at_speed(std::int64_t ns, const PlayOptions& options);

/// What an operator wants of a playback.
struct PlayCommand {
  enum class Kind {
    Pause,  // stand at this look, or go on
    Seek,   // jump by `by`, within the selection; 0: go on where the system had stopped the program
    Home,   // jump to the start
    Quit,   // end the playback, with hold and black-out as they were chosen; during a hold: end that
  };
  Kind kind = Kind::Pause;
  std::int64_t by = 0;  // Seek: ns in the recording, negative: back
};

/// The clock of a playback; tests have their own.
class PlayClock {
public:
  PlayClock() = default;
  virtual ~PlayClock() = default;
  PlayClock(const PlayClock&) = delete;
  PlayClock& operator=(const PlayClock&) = delete;
  PlayClock(PlayClock&&) = delete;
  PlayClock& operator=(PlayClock&&) = delete;

  virtual kesto::Clock::time_point now() = 0;
  virtual void sleep_until(kesto::Clock::time_point time) = 0;
  /// As sleep_until(), exact to a scheduling turn, but takes the processor.
  virtual void spin_until(kesto::Clock::time_point time) = 0;
};

/// kesto::Clock with its waits.
class SteadyPlayClock : public PlayClock {
public:
  kesto::Clock::time_point now() override { return kesto::Clock::now(); }
  void sleep_until(kesto::Clock::time_point time) override { kesto::sleep_until(time); }
  void spin_until(kesto::Clock::time_point time) override { kesto::wait_until(time); }
};

/// A datagram that was not sent.
struct SendFailure {
  int error = 0;              // errno
  std::uint64_t offset = 0;   // in the file: of the last datagram of the recording by then
  std::int64_t position = 0;  // ns in the recording
};

/// State of a playback.
struct PlayState {
  std::int64_t position = 0;            // ns in the recording
  std::uint64_t pass = 0;               // from 1
  std::optional<std::uint64_t> passes;  // nothing: until stopped
  std::uint64_t offset = 0;             // in the file
  std::uint64_t selected = 0;           // datagrams of the recording so far, of all passes
  std::uint64_t sent = 0;               // of these, and inserted ones (looks, fades, hold); no ArtSync
  Lateness lateness;                    // of the datagrams sent, without the repeats of pauses and fades
  std::uint64_t failed = 0;             // datagrams that were not sent
  SendFailure first_failure;
  SendFailure last_failure;
  std::uint64_t damaged = 0;  // places of damage passed over
  bool paused = false;
  bool holding = false;
};

/// Sends a recording again, each datagram at its time after the start of the pass.
class Player {
public:
  /// @param stopped  ends the playback within 20 ms when it becomes true
  Player(const PlayOptions& wanted, DatagramSink& to, PlayClock& play_clock,
         const std::atomic<bool>& stopped);

  /// The last part of every wait is spun, not slept.
  kesto::Clock::duration spin;

  /// Called when the next datagram is not due soon, and where they come one after the other every 250 ms.
  /// Must not wait.
  std::function<void(const PlayState&)> on_idle;

  /// Called once, when all is read that comes before the first datagram: waits for the start. Returns false
  /// when nothing is to be played. May be empty.
  std::function<bool()> wait_for_start;

  /// Asked for the commands of an operator at least every 20 ms, until it has none. May be empty. Must be set
  /// before run().
  std::function<std::optional<PlayCommand>()> next_command;

  /// Plays to the end or until stopped. @throws CueError when the file is damaged or cannot be read, after
  /// its good part, when it holds nothing of the selection, and when the very first datagram cannot be sent
  /// to the only target
  void run();

  const PlayState& state() const { return play; }

private:
  using Time = kesto::Clock::time_point;

  /// Whether a pause takes effect during a wait.
  enum class Pausing { Yes, No };

  void play_passes();
  std::optional<Time> play_pass(std::optional<Time> arrival);
  void begin_at(const Looks& look, std::int64_t position, std::optional<Time> arrival);
  void send_look(const Looks& look, std::int64_t spread);
  bool play_on();
  bool is_last_pass() const { return options.loops && play.pass >= *options.loops; }
  Time next_arrival() const;

  bool leaving() const { return stop || quit || jump; }
  bool wait(std::int64_t ns, Pausing pausing);
  void stand();
  void rest(Time next, Time now);
  void tell(Time next, Time now);
  void take_commands(Time now);
  void obey(const PlayCommand& command, Time now, Time before);
  void pause_or_go_on(Time now);

  bool fading(Time now) const;
  double level_at(Time time) const;
  double level_out(Time time) const;
  void repeat_faded(Time now);

  bool send(const Bytes& datagram, Time due, double level);
  void note_lateness(Time due);
  void send_timed(const Bytes& datagram, Time due);
  void send_all(Time due, double level);
  void sync_before(Time next);
  void note_failure(int error);

  void hold();
  void black_out();

  Time after(Time time, std::int64_t ns) const;
  std::int64_t lasting(std::int64_t ns) const { return at_speed(ns, options); }
  std::int64_t position_at(Time now) const;
  std::int64_t position_after_stop(Time before) const;

  const PlayOptions& options;
  DatagramSink& sink;
  PlayClock& clock;
  const std::atomic<bool>& stop;
  PlayState play;
  PassReader records;
  SequenceNumbers numbers;

  // The recording's time origin_position is sent at the time origin.
  Time origin;
  std::int64_t origin_position = 0;
  Time pass_began;
  Time last_due;          // of the last datagram sent
  bool unsynced = false;  // an ArtSync is due after it
  bool keeps_looks = false;
  Looks looks;  // as sent last, before fading

  Time seen;  // what the clock has shown last
  Time next_poll;
  Time next_told;
  Time paused_at;
  bool quit = false;
  std::optional<std::int64_t> jump;  // to this position

  std::optional<Time> fade_start;  // nothing: not yet
  bool fade_in_done = false;
  std::optional<PassReader::End> last_end;  // of the last pass, while the fade-out may come
  double level_after = 1;                   // when it cannot come any more
  Time next_repeat;                         // of the looks during a fade
  Time repeat_time;                         // of the running repeat
  std::uint32_t repeat_from = 0;            // port-address

  std::vector<std::uint8_t> packet;  // the datagram that is sent
};

}  // namespace cue
