#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kesto/delay.h"
#include "src/ArtnetNode.h"
#include "src/GrabSummary.h"
#include "src/GrabWriter.h"
#include "src/GuardedState.h"
#include "src/ManualNodes.h"
#include "src/NodeDetector.h"
#include "src/PollResponder.h"
#include "src/ReceiveLoop.h"
#include "src/ServiceReport.h"
#include "src/SignalRelays.h"
#include "src/TriggerQueue.h"

/// The service object: one D-Bus interface for recorder, remote triggers, node detection and manual nodes. It
/// owns the parts that do the work, gives each its thread and its lock, and logs their decisions.
///
/// Its public slots are the D-Bus methods and run on the main thread, one at a time; they report a refusal by
/// their result or only by a log line, never as a D-Bus error. The receive thread owns the UDP socket and
/// does all datagram work. The writer thread takes recordings to their files. The polling thread, once
/// started, detects nodes. Every D-Bus message leaves from the main thread.
class Dump : public QObject {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "com.tolvekserver.Kadrel.Dump")

public:
  static constexpr std::size_t kWriteBuffer = 32UL << 20;

  /// Starts the writer thread, and the receive thread on UDP port @p port.
  /// @param announced  universes to announce in answer to an ArtPoll
  /// @param write_buffer  bytes of a recording that may wait in memory for the disk
  explicit Dump(int port, qint32 announced = 1, std::size_t write_buffer = kWriteBuffer);

  /// Ends the threads at once, within a second when the port could not be bound, or after ten when the disk
  /// stands still. A recording in progress is written and closed, not finalised.
  ~Dump() override;

  Dump(const Dump&) = delete;
  Dump& operator=(const Dump&) = delete;
  Dump(Dump&&) = delete;
  Dump& operator=(Dump&&) = delete;

  /// See TriggerQueue. Main thread.
  void watch_bus(const QDBusConnection& watched) { triggers.watch_bus(watched); }

  /// The service is ready; from now on @p manager, which outlives it, is told how it is. Main thread.
  void report_to(const ServiceManager& manager);

public slots:
  // Recorder.
  void grab(const QString& filename);
  QString dup_cue(const QString& destpath, const QString& filename);
  void stop();
  QString get_status();
  QString latest_grab();

  // Node detection.
  bool set_automatic_node_detection(bool enable);
  bool request_node_detection();
  bool node_detection_request_pending();
  bool start_polling_artnet_nodes();
  QString get_detected_nodes();
  bool remove_detected_nodes();

  // Manual nodes.
  bool init_manual_nodes(const std::vector<ArtnetNode>& nodes);
  bool add_manual_node(const ArtnetNode& node);
  bool update_manual_node(const ArtnetNode& node);
  bool remove_manual_node(int id);
  void remove_all_manual_nodes();

  // Control universe.
  bool set_ctrl_universe(int universe);
  bool set_ctrl_action(int key_channel, int value_channel, int step);
  bool set_ctrl_record(int channel, int threshold);

signals:
  void OnArtnetTrigger(int key, int subkey);
  void OnArtnetNodesUpdated(const QString& message);

private:
  // Lets a test drive single steps without a thread or a network.
  friend class DumpProbe;

  /// The appliance at the start of the service.
  struct Device {
    std::string device_ip_hex;  // own IPv4 address, 8 hexadecimal digits, first byte first
    std::string device_mac;     // 12 hexadecimal digits
    std::string broadcast_ip;   // dotted decimal
  };
  static Device look_at_device();

  /// Everything but the threads.
  Dump(Device own, qint32 announced, std::size_t write_buffer);

  /// Takes over what the writer has completed: the summary of the last such recording becomes the latest one.
  void take_concluded_grabs();

  /// Waits for the disk until the recordings that have ended are complete, or those into @p file, and takes
  /// them over. When the service is to end, at most until the time for that is over.
  /// @return whether they are complete
  bool settle_grabs(std::optional<FileIdentity> file = std::nullopt);

  /// Whether to wait on for the disk. @param waiting  bytes in memory
  bool may_wait(std::size_t waiting);

  /// How the service is now.
  ServiceStatus look();

  /// Logs and emits the node-update message of @p method, if there is one. @return whether there is one
  bool announce(const char* method, const std::optional<QString>& message);

  /// Stores a setting of the control universe while the grabber is off, and logs a refusal.
  /// @param subject  which setting: "universe", "action" or "record"
  template <typename Setter>
  bool set_control(const char* subject, Setter setter);

  // Constant after construction.
  const Device device;

  // The writer thread emits, the event loop takes over.
  GrabConcludedObject grab_signals;

  // Its own lock. Outlives this object when its thread hangs in a disk.
  std::unique_ptr<GrabWriter> writer;

  // Main thread and receive thread, each through its own guard.
  GuardedState state;

  // Main thread only.
  GrabSummary latest_grab_summary;
  QString grab_name;        // of the latest recording that has begun
  quint64 grab_number = 0;  // how many have begun
  RateMeter rate_meter;
  bool ending = false;
  std::optional<kesto::Clock::time_point>
      last_wait;  // for the disk, when the service is to end: its beginning
  bool said_to_wait = false;
  ManualNodes manual_nodes;

  // The receive thread posts, the main thread hands over to the bus.
  TriggerQueue triggers;

  // Its own thread and locks.
  NodeDetector detector;

  // Main thread; the receive thread proves that it goes on.
  ServiceReport service_report;

  // Receive thread only.
  PollResponder responder;
  ReceiveLoop receive_loop;
  std::thread listen_thread;
};
