#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cue/DatagramSender.h"
#include "cue/Edit.h"
#include "cue/Lateness.h"
#include "cue/RecordingReader.h"
#include "cue/Selection.h"
#include "kesto/delay.h"

namespace cue {

struct PlayOptions {
  Input file;
  Selection selection;
  int speed = 0;                           // per cent: 100 plays in half the time, -100 in twice the time
  std::optional<std::uint64_t> loops = 1;  // passes; nothing: until stopped
  std::int64_t gap = default_gap();        // ns from the last datagram of a pass to the first of the next
  int hold_rate = 0;      // repeats of the last looks per second after the end, until stopped; 0: none
  bool blackout = false;  // zeros to every universe at the end
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

/// State of a playback.
struct PlayState {
  std::int64_t position = 0;  // ns in the recording
  std::uint64_t pass = 0;     // from 1
  std::uint64_t offset = 0;   // in the file
  Lateness lateness;
  std::uint64_t failed = 0;  // datagrams that were not sent
  int first_error = 0;       // errno of the first of them
  std::uint64_t first_failed_offset = 0;
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

  /// Called now and then when the next datagram is not due soon.
  std::function<void(const PlayState&)> on_idle;

  /// Plays to the end or until stopped. @throws CueError when the file is damaged or cannot be read, after
  /// its good part, and when the very first datagram cannot be sent
  void run();

  const PlayState& state() const { return play; }

private:
  using Time = kesto::Clock::time_point;

  bool play_pass();
  bool wait(Time deadline);
  void send(const Bytes& datagram, Time deadline, std::uint64_t offset);
  void remember(const Bytes& datagram);
  void hold();
  void black_out();
  void advance_sequence(std::vector<std::uint8_t>& look) const;
  Time after(Time time, std::int64_t ns) const;
  std::int64_t at_speed(std::int64_t ns) const;

  const PlayOptions& options;
  DatagramSink& sink;
  PlayClock& clock;
  const std::atomic<bool>& stop;
  Selector selector;
  PlayState play;
  Time pass_start;
  Time last_deadline;
  std::map<std::uint16_t, std::vector<std::uint8_t>> looks;  // last ArtDmx sent, by port-address
};

}  // namespace cue
