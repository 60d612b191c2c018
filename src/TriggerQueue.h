#pragma once

#include <QDBusConnection>
#include <QObject>
#include <atomic>
#include <optional>

#include "src/ControlUniverse.h"
#include "src/SignalRelays.h"

/// Triggers on their way from the receive thread to the bus, in order and in a limited number.
///
/// A trigger is in flight until the bus has taken it, not only until it has been handed over: triggers for a
/// hanging bus would pile up. Beyond the limit triggers are lost; one log line says when that begins, another
/// how many were lost.
class TriggerQueue : public QObject {
  Q_OBJECT

public:
  TriggerQueue();

  /// From now on a trigger stays in flight until @p watched has taken it. Main thread.
  void watch_bus(const QDBusConnection& watched);

  /// Emits a trigger, unless too many are in flight. Receive thread.
  /// @param method  name of the method that found it, for the log
  void post(const char* method, Trigger trigger);

signals:
  /// The main thread has a trigger for the bus.
  void OnArtnetTrigger(int key, int subkey);

private:
  // Main thread.
  void hand_over(int key, int subkey);
  void ask_bus();
  void count_off(qint32 taken);

  OnArtnetTriggerObject trigger_signals;

  std::atomic<qint32> in_flight{0};  // raised by the receive thread, lowered by the main thread
  std::atomic<quint64> lost{0};      // since the limit was reached; raised and taken likewise

  // Main thread only.
  std::optional<QDBusConnection> bus;
  bool bus_asked = false;  // an answer is due
  qint32 handed_over = 0;  // to the bus, since it was asked last
};
