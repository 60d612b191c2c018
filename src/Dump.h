#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <atomic>
#include <bitset>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <vector>

#include "artnet/ArtNet.h"
#include "artnet/ArtNetParser.h"
#include "kesto/read_write_lock.h"
#include "kesto/udpsocket.h"
#include "src/ArtnetNode.h"
#include "src/GrabSummary.h"
#include "src/ManualNodes.h"
#include "src/NodeDetector.h"
#include "src/PollResponder.h"
#include "src/RecordingFile.h"
#include "src/SignalRelays.h"

/// The service object: recorder, remote triggers, node detection and manual nodes behind one D-Bus interface.
///
/// Its public slots are the D-Bus methods and run on the main thread, one at a time; they report a refusal by
/// their result or only by a log line, never as a D-Bus error. A receive thread owns the UDP socket and does
/// all datagram work; a polling thread, once started, detects nodes. Every D-Bus message leaves from the main
/// thread.
class Dump : public QObject {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "com.tolvekserver.Kadrel.Dump")

public:
  /// Starts the receive thread on UDP port @p port.
  /// @param announced  universes to announce in answer to an ArtPoll
  explicit Dump(int port, qint32 announced = 1);

  /// Ends the threads within about one second. A recording in progress is closed, not finalised.
  ~Dump() override;

  Dump(const Dump&) = delete;
  Dump& operator=(const Dump&) = delete;
  Dump(Dump&&) = delete;
  Dump& operator=(Dump&&) = delete;

  /// From now on triggers count as under way until this bus has taken them, not only until they have been
  /// handed to it: what a bus that hangs does not take would pile up. Main thread.
  void watch_bus(const QDBusConnection& watched);

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
  // A test drives single steps without a thread or a network.
  friend class DumpProbe;

  enum GrabState : qint32 { Off = 0, Armed = 1, StartPending = 2, Running = 3, StopPending = 4 };

  /// Everything but the receive thread.
  explicit Dump(qint32 announced, std::nullptr_t);

  void wire_parser();

  // Receive thread.
  void listen_incoming_data(int port);
  void send_artpoll(const ArtPollRequest& request);
  bool receive_datagram();
  void handle_datagram(const kesto::net::HostAddress& this_device_ip);
  void relay_datagram();
  bool parse_datagram(std::string_view datagram);
  void process_datagram(std::string_view datagram);
  void record_datagram(std::string_view datagram);
  void process_art_poll(const ArtPoll& poll);
  int send_replies(bool between_datagrams);  // ms after which to go on
  void process_artnet_trigger(const ArtTrigger& trigger);
  void process_artnet_trigger_dmx(const ArtDmx& dmx);
  void trigger_dmx_idle(const ArtDmx& dmx);
  void trigger_dmx_grab(const ArtDmx& dmx);
  void emit_trigger(int key, int subkey);

  // Main thread.
  void trigger_handed_over();
  void ask_bus();

  // Main thread with state_lock as writer, or receive thread with state_lock as reader.
  void finalize_grabbing();

  // Any holder of state_lock.
  bool ctrl_action_enabled() const;
  bool ctrl_record_enabled() const;
  static bool ctrl_action_with_step(int key);

  bool announce(const char* method, const std::optional<QString>& message);

  // Constant after construction.
  std::string device_ip_hex;  // own IPv4 address, 8 hexadecimal digits in the order of the dotted form
  std::string device_mac;     // 12 hexadecimal digits
  std::string broadcast_ip;   // dotted decimal

  std::atomic<bool> running{true};  // cleared by the destructor

  // Receive thread only.
  std::unique_ptr<kesto::net::UdpSocket> socket;

  // Guarded by state_lock: D-Bus methods write, the receive thread, while it holds the reader side, reads and
  // writes.
  qint32 grab_state = Off;
  std::shared_ptr<const GrabSummary> latest_grab_summary;
  std::unique_ptr<RecordingFile> recording_file;  // null: grab_state is Off

  std::thread listen_thread;
  kesto::ReadWriteLock state_lock;
  OnArtnetTriggerObject trigger_signals;
  std::atomic<qint32> triggers_under_way{0};  // emitted by the receive thread, not known to have left

  // Receive thread, or main thread with state_lock as writer.
  qint64 rx_time = 0;                         // ns on kesto::Clock: current datagram
  qint64 prev_rx_time = 0;                    // ns on kesto::Clock: last recorded datagram
  std::unordered_set<qint32> grab_universes;  // 0-based port-addresses
  std::bitset<65536> grab_universe_noted;     // the same set, for a quick look
  qint32 grab_max_universe = -1;
  qint32 current_universe = -1;  // 0-based port-address of the ArtDmx being processed
  qint32 grab_packet_count = 0;
  bool record_current = false;

  // Receive thread only.
  ArtNetParser parser;
  kesto::net::HostAddress sender_address;
  qint32 sender_port = 0;

  // Guarded by state_lock: D-Bus methods write, the receive thread reads. -1: not set.
  qint32 ctrl_universe = -1;          // 1..32768
  qint32 ctrl_key_channel = -1;       // 1..512
  qint32 ctrl_value_channel = -1;     // 1..512
  qint32 ctrl_step = -1;              // 1..255
  qint32 ctrl_record_channel = -1;    // 1..512
  qint32 ctrl_record_threshold = -1;  // 1..255

  NodeDetector node_detector{[this](ArtnetNodesUpdatedObject& updates) {
    connect(&updates, &ArtnetNodesUpdatedObject::OnArtnetNodesUpdated, this, &Dump::OnArtnetNodesUpdated);
  }};

  // Main thread only.
  std::optional<QDBusConnection> bus;
  bool bus_asked = false;           // an answer is due
  qint32 triggers_handed_over = 0;  // to the bus, since it was asked last
  ManualNodes manual_nodes;

  // Receive thread only.
  std::string_view current_datagram;  // the current one, in the memory of the socket
  bool holds_dmx = false;  // the current datagram itself, not only stale bytes behind it, holds an ArtDmx
  PollResponder responder;
};
