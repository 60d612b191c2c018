#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "src/Dump.h"
#include "src/UdpReplySender.h"

/// The service object without its threads, and its inside: a test or benchmark does the steps of the receive
/// thread and the polling thread on its own thread. A step costs as much as in the service.
///
/// What the object sends goes through an unbound socket; use it in a private network namespace, or catch
/// sendto() at link time.
class DumpProbe {
public:
  /// @param own_address  the appliance's address, 8 hexadecimal digits: datagrams from there are dropped
  explicit DumpProbe(qint32 announced = 1, const std::string& own_address = "")
      : dump(new Dump({own_address, "", ""}, announced, Dump::kWriteBuffer)) {
    dump->writer->start();
    loop().socket = std::make_unique<kesto::net::UdpSocket>();
    loop().socket->initialize();
  }

  Dump& service() { return *dump; }
  Dump* operator->() { return dump.get(); }

  /// Handles one datagram as the receive thread does after reading it.
  /// @param time  receive time, ns
  void receive(std::string_view bytes, const kesto::net::HostAddress& address, int port, qint64 time) {
    loop().datagram.bytes = bytes;
    loop().datagram.sender_address = address;
    loop().datagram.sender_port = port;
    loop().datagram.rx_time = time;
    GuardedState::Reader guard(dump->state);
    loop().handle_datagram(guard);
  }

  /// Waits for a recording that the record channel ended.
  void settle_grabs() { dump->settle_grabs(); }

  /// Sends at most @p limit of the due ArtPollReplies.
  PollResponder::Wait send_poll_replies(int limit, qint64 now) {
    UdpReplySender sender(*loop().socket);
    return dump->responder.send_due(limit, now, sender);
  }

  // Detection cycle, as the polling thread runs it without its pauses.
  void begin_detection_cycle() { dump->detector.begin_detection_cycle(); }
  void evaluate_detection_cycle() {
    ArtnetNodesUpdatedObject updates;
    QObject::connect(&updates, &ArtnetNodesUpdatedObject::OnArtnetNodesUpdated, dump.get(),
                     &Dump::OnArtnetNodesUpdated);
    dump->detector.evaluate_detection_cycle(updates);
  }
  /// The polling thread has seen the request of a client.
  void mark_detection_in_progress() {
    if (dump->detector.detection_requested) dump->detector.detection_in_progress = true;
  }

  // State. One thread, so no lock.
  Recorder& recorder() NO_THREAD_SAFETY_ANALYSIS { return dump->state.recorder; }
  int grab_state() { return recorder().grab_state; }
  qint32 grab_packet_count() { return recorder().grab_packet_count; }
  int grab_max_universe() { return recorder().grab_max_universe; }
  int current_universe() { return recorder().current_universe; }
  const std::unordered_set<qint32>& grab_universes() { return recorder().grab_universes; }
  /// Waits until everything recorded so far is in the file, or could not be written.
  void flush_file() {
    GrabWriter& writer = *dump->writer;
    const kesto::MutexLock lock(writer.mutex);
    GrabWriter::Grab& grab = writer.grabs.back();
    grab.emptied = {};
    writer.wake_up.wake();
    while (grab.records.bytes() > 0 && grab.error == 0)
      writer.settled.wait_until(writer.mutex, GrabWriter::Clock::now() + std::chrono::milliseconds(1));
  }
  const GrabSummary& latest_grab_summary() const { return dump->latest_grab_summary; }

  ControlUniverse& control() NO_THREAD_SAFETY_ANALYSIS { return dump->state.control; }
  int ctrl_universe() { return control().ctrl_universe; }
  int ctrl_key_channel() { return control().ctrl_key_channel; }
  int ctrl_value_channel() { return control().ctrl_value_channel; }
  int ctrl_step() { return control().ctrl_step; }
  int ctrl_record_channel() { return control().ctrl_record_channel; }
  int ctrl_record_threshold() { return control().ctrl_record_threshold; }

  bool automatic_detection() const { return dump->detector.automatic_detection; }
  bool detection_requested() const { return dump->detector.detection_requested; }
  const NodeCycle& cycle() const NO_THREAD_SAFETY_ANALYSIS { return dump->detector.cycle; }
  bool nodes_changed() const { return cycle().nodes_changed(); }
  std::vector<ArtnetNode> detected_nodes() const { return records(*cycle().detected_nodes()); }
  std::vector<ArtnetNode> poll_seen_nodes() const { return records(cycle().poll_seen_nodes()); }
  std::vector<ArtnetNode> poll_new_nodes() const { return records(cycle().poll_new_nodes()); }
  std::vector<ArtnetNode> poll_missing_nodes() const { return records(cycle().poll_missing_nodes()); }
  const std::vector<ArtnetNode>& manual_nodes() const { return dump->manual_nodes.nodes(); }
  std::size_t pending_askers() const { return dump->responder.waiting(); }

private:
  ReceiveLoop& loop() { return dump->receive_loop; }

  static std::vector<ArtnetNode> records(const DetectedNodes& nodes) {
    std::vector<ArtnetNode> records;
    for (const DetectedNode& node : nodes) records.push_back(node.record());
    return records;
  }

  std::unique_ptr<Dump> dump;
};
