#pragma once

#include <QtGlobal>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kesto/delay.h"
#include "src/ServiceStatus.h"

class QTimer;
class ServiceManager;

/// Tells the service manager that the service is ready, how it is, and that both its threads go on: the main
/// thread says so once a second at most, and only when the receive thread has gone round since. A hang of
/// either silences it, and the manager starts the service anew.
///
/// Main thread, but for come_round(). Without a manager it does nothing.
class ServiceReport {
public:
  using Time = kesto::Clock::time_point;

  ServiceReport();
  ~ServiceReport();
  ServiceReport(const ServiceReport&) = delete;
  ServiceReport& operator=(const ServiceReport&) = delete;
  ServiceReport(ServiceReport&&) = delete;
  ServiceReport& operator=(ServiceReport&&) = delete;

  /// The service is ready. From now on the event loop looks after the rest.
  /// @param found  outlives the report
  /// @param status  how the service is; may take the locks of the service, but must not wait for a disk
  void begin(const ServiceManager& found, std::function<ServiceStatus()> status);

  /// Tells what is due. Called by the event loop, and from within waits that keep it from its work.
  void tick(Time now);

  /// The service ends. Only the first call says so.
  /// @param late  bytes that still wait for the disk; the manager is to wait, too, for @p most at most
  void end(std::size_t late = 0, std::chrono::seconds most = std::chrono::seconds(0));

  /// While it lives the main thread is in the hands of a disk, perhaps for minutes in one call of the kernel,
  /// and to end the process would end a recording on another one: the receive thread alone proves that the
  /// service goes on.
  class DiskCall {
  public:
    explicit DiskCall(ServiceReport& told) : report(told), before(told.in_disk_call.load()) {
      report.in_disk_call.store(report.watchdog_period.has_value());
    }
    ~DiskCall() { report.in_disk_call.store(before); }
    DiskCall(const DiskCall&) = delete;
    DiskCall& operator=(const DiskCall&) = delete;
    DiskCall(DiskCall&&) = delete;
    DiskCall& operator=(DiskCall&&) = delete;

  private:
    ServiceReport& report;
    const bool before;
  };

  /// The receive thread goes round; at least once in 1.1 s, and without a lock.
  void come_round() {
    rounds.store(rounds.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (in_disk_call.load()) feed_alone();
  }

private:
  bool is_due(Time now) const;
  void feed_alone();

  // Set by begin(), before in_disk_call.
  const ServiceManager* manager = nullptr;
  std::optional<kesto::Clock::duration> watchdog_period;  // between two proofs

  // The receive thread writes, the main thread reads.
  std::atomic<quint64> rounds{0};

  // The main thread writes, the receive thread reads.
  std::atomic<bool> in_disk_call{false};

  // Both threads.
  std::atomic<Time> fed{Time::min()};  // the last proof

  // Main thread only.
  std::function<ServiceStatus()> look;
  std::unique_ptr<QTimer> timer;
  Time next = Time::min();  // no earlier tick does anything
  quint64 rounds_seen = 0;
  Time came_round = Time::min();  // when they were seen to change last
  quint64 rounds_proved = 0;      // with the last proof of this thread
  bool ready = false;             // the manager knows
  bool ending = false;            // likewise
  std::string told;               // the status it knows
};
