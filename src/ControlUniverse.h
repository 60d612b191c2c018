#pragma once

#include <cstdint>
#include <optional>

#include "artnet/ArtNet.h"

/// A remote trigger, as clients are told of it.
struct Trigger {
  int key;
  int subkey;
};

/// The control universe: its settings, and what the levels of an ArtDmx on it ask for.
///
/// No lock of its own: it is reached through GuardedState.
class ControlUniverse {
public:
  /// Why a setting was not taken. Nothing is stored on any refusal.
  enum class Refusal {
    None,
    GrabberNotIdle,
    Universe,
    KeyChannel,
    ValueChannel,
    Step,
    RecordChannel,
    Threshold
  };

  /// What the record channel of an ArtDmx says. Absent: another universe, a packet that ends before the
  /// channel, or no record channel set.
  enum class RecordLevel { Absent, On, Off };

  /// The reason in words, as the log gives it; not for Refusal::None.
  static const char* reason(Refusal refusal);

  /// Each takes its values when all of them are in range: -1 (switched off), or @p universe 1..32768,
  /// channels 1..512, @p step and @p threshold 1..255. Checked in the order of the arguments.
  Refusal set_ctrl_universe(int universe);
  Refusal set_ctrl_action(int key_channel, int value_channel, int step);
  Refusal set_ctrl_record(int channel, int threshold);

  bool ctrl_action_enabled() const;
  bool ctrl_record_enabled() const;

  /// Whether the value that comes with @p key is divided by the step: keys 1 and 2.
  static bool ctrl_action_with_step(int key);

  /// The trigger that an ArtDmx means while nothing is recorded: every matching packet means one.
  std::optional<Trigger> trigger_dmx_idle(const ArtDmx& dmx) const;

  RecordLevel record_level(const ArtDmx& dmx) const;

private:
  friend class DumpProbe;

  // -1: not set.
  std::int32_t ctrl_universe = -1;          // 1..32768
  std::int32_t ctrl_key_channel = -1;       // 1..512
  std::int32_t ctrl_value_channel = -1;     // 1..512
  std::int32_t ctrl_step = -1;              // 1..255
  std::int32_t ctrl_record_channel = -1;    // 1..512
  std::int32_t ctrl_record_threshold = -1;  // 1..255
};
