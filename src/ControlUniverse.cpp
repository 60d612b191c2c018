#include "src/ControlUniverse.h"

namespace {

constexpr int kChannels = static_cast<int>(kDmxSlots);
constexpr int kLevels = 255;

/// Whether @p value is off or within 1..@p highest.
bool is_setting(int value, int highest) {
  return value == -1 || (value >= 1 && value <= highest);
}

}  // namespace

const char* ControlUniverse::reason(Refusal refusal) {
  switch (refusal) {
    case Refusal::GrabberNotIdle:
      return "grabber not idle";
    case Refusal::Universe:
      return "out of range";
    case Refusal::KeyChannel:
      return "key channel out of range";
    case Refusal::ValueChannel:
      return "value channel out of range";
    case Refusal::Step:
      return "step out of range";
    case Refusal::RecordChannel:
      return "channel out of range";
    case Refusal::Threshold:
      return "threshold out of range";
    case Refusal::None:
      break;
  }
  return "";
}

ControlUniverse::Refusal ControlUniverse::set_ctrl_universe(int universe) {
  if (!is_setting(universe, kUniverseLimit)) return Refusal::Universe;
  ctrl_universe = universe;
  return Refusal::None;
}

ControlUniverse::Refusal ControlUniverse::set_ctrl_action(int key_channel, int value_channel, int step) {
  if (!is_setting(key_channel, kChannels)) return Refusal::KeyChannel;
  if (!is_setting(value_channel, kChannels)) return Refusal::ValueChannel;
  if (!is_setting(step, kLevels)) return Refusal::Step;
  ctrl_key_channel = key_channel;
  ctrl_value_channel = value_channel;
  ctrl_step = step;
  return Refusal::None;
}

ControlUniverse::Refusal ControlUniverse::set_ctrl_record(int channel, int threshold) {
  if (!is_setting(channel, kChannels)) return Refusal::RecordChannel;
  if (!is_setting(threshold, kLevels)) return Refusal::Threshold;
  ctrl_record_channel = channel;
  ctrl_record_threshold = threshold;
  return Refusal::None;
}

bool ControlUniverse::ctrl_action_enabled() const {
  return ctrl_universe != kNotSet && ctrl_key_channel != kNotSet && ctrl_value_channel != kNotSet;
}

bool ControlUniverse::ctrl_action_with_step(int key) {
  return key == 1 || key == 2;
}

std::optional<Trigger> ControlUniverse::trigger_dmx_idle(const ArtDmx& dmx) const {
  if (!ctrl_action_enabled() || dmx.universe != ctrl_universe - 1) return std::nullopt;
  if (dmx.length < ctrl_key_channel || dmx.length < ctrl_value_channel) return std::nullopt;
  const int key = dmx.data[ctrl_key_channel - 1];
  const int divisor = ctrl_step != kNotSet && ctrl_action_with_step(key) ? ctrl_step : 1;
  return Trigger{key, dmx.data[ctrl_value_channel - 1] / divisor};
}
