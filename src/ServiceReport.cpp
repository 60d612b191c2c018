#include "src/ServiceReport.h"

#include <QObject>
#include <QTimer>
#include <utility>

#include "src/ServiceManager.h"

namespace {

constexpr std::chrono::seconds kPeriod(1);

// Within a wait, and from a timer that is a little early.
constexpr std::chrono::milliseconds kLeastPeriod(900);

// Proofs in the time after which the manager would end the process: one or two may be late or lost.
constexpr int kProofs = 4;

// A receive thread that has not come round for so long hangs, and may hold its lock. It needs 1.1 s.
constexpr std::chrono::seconds kHang(3);

// What is left to do when the disk has had its time.
constexpr std::chrono::seconds kAfterDisk(5);

const std::string kProof = "WATCHDOG=1\n";

std::string status_line(const std::string& text) {
  return "STATUS=" + text + "\n";
}

}  // namespace

ServiceReport::ServiceReport() = default;

ServiceReport::~ServiceReport() = default;

void ServiceReport::begin(const ServiceManager& found, std::function<ServiceStatus()> status) {
  if (!found.is_there()) return;
  manager = &found;
  look = std::move(status);
  if (const auto time = found.watchdog()) watchdog_period = *time / kProofs;
  tick(kesto::Clock::now());
  timer = std::make_unique<QTimer>();
  QObject::connect(timer.get(), &QTimer::timeout, [this] { tick(kesto::Clock::now()); });
  timer->start(kPeriod);
}

bool ServiceReport::is_due(Time now) const {
  const Time last = fed.load();
  return watchdog_period && (last == Time::min() || now - last >= *watchdog_period);
}

void ServiceReport::tick(Time now) {
  if (manager == nullptr || ending || now < next) return;
  next = now + kLeastPeriod;
  const quint64 round = rounds.load(std::memory_order_relaxed);
  if (std::exchange(rounds_seen, round) != round || !ready) came_round = now;
  std::string message = ready ? "" : "READY=1\n";
  const bool proves = is_due(now) && (round != rounds_proved || !ready);
  if (proves) message += kProof;
  std::string status = now - came_round < kHang ? status_text(look()) : told;
  if (status != told) message += status_line(status);
  if (message.empty() || !manager->tell(message)) return;
  ready = true;
  told = std::move(status);
  if (!proves) return;
  fed.store(now);
  rounds_proved = round;
}

void ServiceReport::feed_alone() {
  const Time now = kesto::Clock::now();
  if (is_due(now) && manager->tell(kProof)) fed.store(now);
}

void ServiceReport::end(std::size_t late, std::chrono::seconds most) {
  if (manager == nullptr || (ending && late == 0)) return;
  timer.reset();
  std::string message = std::exchange(ending, true) ? "" : "STOPPING=1\n";
  if (late > 0) {
    const std::chrono::microseconds time = most + kAfterDisk;
    message += "EXTEND_TIMEOUT_USEC=" + std::to_string(time.count()) + "\n";
  }
  manager->tell(message + status_line(ending_text(late)));
}
