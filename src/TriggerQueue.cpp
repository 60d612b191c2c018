#include "src/TriggerQueue.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <limits>
#include <utility>

#include "kesto/logger.h"

namespace {

// Triggers in flight at most. A console sends 44 a second; a flood of them must not fill the memory.
constexpr qint32 kInFlightLimit = 32768;

// The loss counts as over only when so few are in flight; otherwise a flood would fill the log.
constexpr qint32 kRoomAgain = kInFlightLimit / 2;

// After so many triggers the bus is asked whether it has taken them.
constexpr qint32 kTriggersPerQuestion = 1024;

}  // namespace

TriggerQueue::TriggerQueue() {
  // Queued when the receive thread emits: the event loop hands the triggers over, in order.
  connect(&trigger_signals, &OnArtnetTriggerObject::OnArtnetTrigger, this, &TriggerQueue::hand_over);
}

void TriggerQueue::watch_bus(const QDBusConnection& watched) {
  bus = watched;
}

void TriggerQueue::post(const char* method, Trigger trigger) {
  if (in_flight >= kInFlightLimit) {
    if (lost++ == 0) {
      KESTO_LOG(-1, "[Dump::%s] Too many triggers wait for the bus, further ones are lost (limit:%d)", method,
                kInFlightLimit);
    }
    return;
  }
  ++in_flight;
  KESTO_LOG(6, "[Dump::%s] Emitting OnArtnetTrigger signal (key:%d, subkey:%d)", method, trigger.key,
            trigger.subkey);
  emit trigger_signals.OnArtnetTrigger(trigger.key, trigger.subkey);
}

void TriggerQueue::hand_over(int key, int subkey) {
  emit OnArtnetTrigger(key, subkey);
  if (!bus) {
    count_off(1);
    return;
  }
  if (++handed_over >= kTriggersPerQuestion && !bus_asked) ask_bus();
}

void TriggerQueue::ask_bus() {
  const qint32 asked_about = std::exchange(handed_over, 0);
  bus_asked = true;
  // The answer comes after the triggers. There is no time-out: a bus that hangs has taken nothing. A bus that
  // is gone gives an error; then there is nothing left to count.
  const QDBusMessage question = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
      QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
  auto* const answer =
      new QDBusPendingCallWatcher(bus->asyncCall(question, std::numeric_limits<int>::max()), this);
  connect(answer, &QDBusPendingCallWatcher::finished, this, [this, answer, asked_about] {
    answer->deleteLater();
    bus_asked = false;
    count_off(asked_about);
    if (handed_over >= kTriggersPerQuestion) ask_bus();
  });
}

void TriggerQueue::count_off(qint32 taken) {
  const qint32 left = in_flight.fetch_sub(taken) - taken;
  if (left > kRoomAgain) return;
  if (const quint64 number = lost.exchange(0); number > 0) {
    KESTO_LOG(-1, "[Dump::OnArtnetTrigger] The bus takes triggers again (lost:%llu)",
              static_cast<unsigned long long>(number));
  }
}
