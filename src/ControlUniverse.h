#pragma once

#include <cstdint>
#include <optional>

#include "artnet/ArtNet.h"

/// A remote trigger, as clients receive it.
struct Trigger {
  int key;
  int subkey;
};

/// The control universe: its settings, and the meaning of the levels of an ArtDmx on it.
///
/// No lock of its own: GuardedState guards it.
class ControlUniverse {
public:
  /// Reason of a refusal. A refused call stores nothing.
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

  /// State of the record channel in an ArtDmx. Absent: another universe, a packet that ends before the
  /// channel, or no record channel set.
  enum class RecordLevel { Absent, On, Off };

  /// The reason in the words of the log; not for Refusal::None.
  static const char* reason(Refusal refusal);

  /// Each takes its values when all are in range: @p universe 1..32768, channels 1..512, @p step and
  /// @p threshold 1..255, or -1 for off. The first argument out of range is the refusal.
  Refusal set_ctrl_universe(int universe);
  Refusal set_ctrl_action(int key_channel, int value_channel, int step);
  Refusal set_ctrl_record(int channel, int threshold);

  bool ctrl_action_enabled() const;
  bool ctrl_record_enabled() const {
    return ctrl_universe != kNotSet && ctrl_record_channel != kNotSet && ctrl_record_threshold != kNotSet;
  }

  /// Whether the value of @p key is divided by the step: keys 1 and 2.
  static bool ctrl_action_with_step(int key);

  /// The trigger of an ArtDmx while nothing is recorded. Every matching packet gives one, also a repeated
  /// one.
  std::optional<Trigger> trigger_dmx_idle(const ArtDmx& dmx) const;

  RecordLevel record_level(const ArtDmx& dmx) const {
    if (!ctrl_record_enabled() || dmx.universe != ctrl_universe - 1 || dmx.length < ctrl_record_channel)
      return RecordLevel::Absent;
    return dmx.data[ctrl_record_channel - 1] >= ctrl_record_threshold ? RecordLevel::On : RecordLevel::Off;
  }

private:
  friend class DumpProbe;

  static constexpr int kNotSet = -1;

  std::int32_t ctrl_universe = kNotSet;          // 1..32768
  std::int32_t ctrl_key_channel = kNotSet;       // 1..512
  std::int32_t ctrl_value_channel = kNotSet;     // 1..512
  std::int32_t ctrl_step = kNotSet;              // 1..255
  std::int32_t ctrl_record_channel = kNotSet;    // 1..512
  std::int32_t ctrl_record_threshold = kNotSet;  // 1..255
};
