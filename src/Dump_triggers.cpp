#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <limits>
#include <mutex>
#include <utility>

#include "kesto/logger.h"
#include "src/Dump.h"

// The control universe: its settings, and what its packets do.

namespace {

constexpr int kNotSet = -1;
constexpr int kChannels = static_cast<int>(kDmxSlots);
constexpr int kLevels = 255;

// Triggers that are not yet known to have left at most; further ones are lost. A console sends 44
// a second; a flood of them must not fill the memory.
constexpr qint32 kTriggersUnderWay = 32768;

// The bus is asked after so many of them whether it has taken them.
constexpr qint32 kTriggersPerQuestion = 1024;

/// Whether a setting is switched off or within 1..@p highest.
bool is_setting(int value, int highest) {
  return value == kNotSet || (value >= 1 && value <= highest);
}

}  // namespace

bool Dump::set_ctrl_universe(int universe) {
  const std::lock_guard guard(state_lock.writer());
  KESTO_LOG(3, "[Dump::set_ctrl_universe] Setting control universe (universe:%d)", universe);
  if (grab_state != Off) {
    KESTO_LOG(3, "[Dump::set_ctrl_universe] Failed to set control universe, grabber not idle");
    return false;
  }
  if (!is_setting(universe, kUniverseLimit)) {
    KESTO_LOG(3, "[Dump::set_ctrl_universe] Failed to set control universe, out of range");
    return false;
  }
  ctrl_universe = universe;
  return true;
}

bool Dump::set_ctrl_action(int key_channel, int value_channel, int step) {
  const std::lock_guard guard(state_lock.writer());
  KESTO_LOG(3, "[Dump::set_ctrl_action] Setting control action (key_channel:%d, value_channel:%d, step:%d)",
            key_channel, value_channel, step);
  if (grab_state != Off) {
    KESTO_LOG(3, "[Dump::set_ctrl_action] Failed to set control action, grabber not idle");
    return false;
  }
  if (!is_setting(key_channel, kChannels)) {
    KESTO_LOG(3, "[Dump::set_ctrl_action] Failed to set control action, key channel out of range");
    return false;
  }
  if (!is_setting(value_channel, kChannels)) {
    KESTO_LOG(3, "[Dump::set_ctrl_action] Failed to set control action, value channel out of range");
    return false;
  }
  if (!is_setting(step, kLevels)) {
    KESTO_LOG(3, "[Dump::set_ctrl_action] Failed to set control action, step out of range");
    return false;
  }
  ctrl_key_channel = key_channel;
  ctrl_value_channel = value_channel;
  ctrl_step = step;
  return true;
}

bool Dump::set_ctrl_record(int channel, int threshold) {
  const std::lock_guard guard(state_lock.writer());
  KESTO_LOG(3, "[Dump::set_ctrl_record] Setting control record (channel:%d, threshold:%d)", channel,
            threshold);
  if (grab_state != Off) {
    KESTO_LOG(3, "[Dump::set_ctrl_record] Failed to set control record, grabber not idle");
    return false;
  }
  if (!is_setting(channel, kChannels)) {
    KESTO_LOG(3, "[Dump::set_ctrl_record] Failed to set control record, channel out of range");
    return false;
  }
  if (!is_setting(threshold, kLevels)) {
    KESTO_LOG(3, "[Dump::set_ctrl_record] Failed to set control record, threshold out of range");
    return false;
  }
  ctrl_record_channel = channel;
  ctrl_record_threshold = threshold;
  return true;
}

bool Dump::ctrl_action_enabled() const {
  return ctrl_universe != kNotSet && ctrl_key_channel != kNotSet && ctrl_value_channel != kNotSet;
}

bool Dump::ctrl_record_enabled() const {
  return ctrl_universe != kNotSet && ctrl_record_channel != kNotSet && ctrl_record_threshold != kNotSet;
}

bool Dump::ctrl_action_with_step(int key) {
  return key == 1 || key == 2;
}

void Dump::process_artnet_trigger(const ArtTrigger& trigger) {
  if (grab_state != Off) return;
  const int key = trigger.key;
  const int subkey = trigger.sub_key;
  KESTO_LOG(6, "[Dump::process_artnet_trigger] Emitting OnArtnetTrigger signal (key:%d, subkey:%d)", key,
            subkey);
  emit_trigger(key, subkey);
}

void Dump::emit_trigger(int key, int subkey) {
  if (triggers_under_way >= kTriggersUnderWay) return;
  ++triggers_under_way;
  emit trigger_signals.OnArtnetTrigger(key, subkey);
}

void Dump::watch_bus(const QDBusConnection& watched) {
  bus = watched;
}

void Dump::trigger_handed_over() {
  if (!bus) {
    --triggers_under_way;
    return;
  }
  if (++triggers_handed_over >= kTriggersPerQuestion && !bus_asked) ask_bus();
}

void Dump::ask_bus() {
  const qint32 asked_about = std::exchange(triggers_handed_over, 0);
  bus_asked = true;
  // The answer comes behind everything that was sent before. It is waited for without an end: a bus that
  // hangs has taken nothing. One that is gone answers with an error, and there is nothing to count any more.
  const QDBusMessage question = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
      QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
  auto* const answer =
      new QDBusPendingCallWatcher(bus->asyncCall(question, std::numeric_limits<int>::max()), this);
  connect(answer, &QDBusPendingCallWatcher::finished, this, [this, answer, asked_about] {
    answer->deleteLater();
    triggers_under_way -= asked_about;
    bus_asked = false;
    if (triggers_handed_over >= kTriggersPerQuestion) ask_bus();
  });
}

void Dump::process_artnet_trigger_dmx(const ArtDmx& dmx) {
  if (grab_state == Off)
    trigger_dmx_idle(dmx);
  else
    trigger_dmx_grab(dmx);
}

void Dump::trigger_dmx_idle(const ArtDmx& dmx) {
  if (!ctrl_action_enabled()) return;
  if (dmx.universe != ctrl_universe - 1) return;
  if (dmx.length < ctrl_key_channel || dmx.length < ctrl_value_channel) return;
  const int key = dmx.data[ctrl_key_channel - 1];
  const int divisor = ctrl_step != kNotSet && ctrl_action_with_step(key) ? ctrl_step : 1;
  const int subkey = dmx.data[ctrl_value_channel - 1] / divisor;
  KESTO_LOG(6, "[Dump::trigger_dmx_idle] Emitting OnArtnetTrigger signal (key:%d, subkey:%d)", key, subkey);
  emit_trigger(key, subkey);
}

void Dump::trigger_dmx_grab(const ArtDmx& dmx) {
  current_universe = dmx.universe;
  const bool has_control_slot = dmx.universe == ctrl_universe - 1 && dmx.length >= ctrl_record_channel;
  if (grab_state == Armed) {
    if (has_control_slot && dmx.data[ctrl_record_channel - 1] >= ctrl_record_threshold) {
      record_current = false;
      grab_state = StartPending;
    }
    return;
  }
  record_current = true;
  if (ctrl_record_enabled() && has_control_slot &&
      dmx.data[ctrl_record_channel - 1] < ctrl_record_threshold) {
    record_current = false;
    grab_state = StopPending;
  }
}
