#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "src/Dump.h"
#include "src/UdpReplySender.h"

/// The service object without its threads, and its inside: a test or benchmark plays the receive thread and
/// the polling thread itself, one step at a time, on the thread of its own.
///
/// What the object sends goes through an unbound socket; use it in a private network namespace, or catch
/// sendto() at link time.
class DumpProbe {
public:
  /// @param own_address  the appliance's address as dotted text: datagrams from there are dropped
  explicit DumpProbe(qint32 announced = 1, std::string own_address = "0.0.0.0")
      : dump(new Dump(announced, nullptr)), own(std::move(own_address)) {
    dump->socket = std::make_unique<kesto::net::UdpSocket>();
    dump->socket->initialize();
  }

  Dump& service() { return *dump; }
  Dump* operator->() { return dump.get(); }

  /// Handles one datagram as the receive thread does after reading it.
  /// @param time  receive time, ns
  void receive(const char* data, std::size_t size, const std::string& address, int port, qint64 time) {
    dump->rx_time = time;
    // Of exactly this size each time: a sanitizer sees a read beyond its end.
    held = std::vector<char>(data, data + size);
    held.reserve(1);  // an empty datagram has an address, too
    dump->current_datagram = std::string_view(held.data(), size);
    dump->sender_address = address;
    dump->sender_port = port;
    dump->handle_datagram(own);
  }
  void receive(const std::vector<char>& datagram, const std::string& address, int port, qint64 time) {
    receive(datagram.data(), datagram.size(), address, port, time);
  }

  /// Sends at most @p limit of the due ArtPollReplies.
  PollResponder::Wait send_poll_replies(int limit, std::int64_t now) {
    UdpReplySender replies(*dump->socket);
    return dump->responder.send_due(limit, now, replies);
  }

  // Detection cycle, as the polling thread runs it without its pauses.
  void begin_detection_cycle() { detector().begin_detection_cycle(); }
  void evaluate_detection_cycle() {
    ArtnetNodesUpdatedObject updates;
    QObject::connect(&updates, &ArtnetNodesUpdatedObject::OnArtnetNodesUpdated, dump.get(),
                     &Dump::OnArtnetNodesUpdated);
    detector().evaluate_detection_cycle(updates);
  }
  /// The polling thread has seen the request of a client.
  void mark_detection_in_progress() { detector().cycle_due(); }

  // State.
  int grab_state() const { return dump->grab_state; }
  int grab_packet_count() const { return dump->grab_packet_count; }
  int grab_max_universe() const { return dump->grab_max_universe; }
  int current_universe() const { return dump->current_universe; }
  bool record_current() const { return dump->record_current; }
  qint64 prev_rx_time() const { return dump->prev_rx_time; }
  const std::unordered_set<qint32>& grab_universes() const { return dump->grab_universes; }
  const GrabSummary& latest_grab_summary() const { return *dump->latest_grab_summary; }
  bool file_is_open() const { return dump->recording_file != nullptr; }
  void flush_file() { dump->recording_file->flush(); }

  int ctrl_universe() const { return dump->ctrl_universe; }
  int ctrl_key_channel() const { return dump->ctrl_key_channel; }
  int ctrl_value_channel() const { return dump->ctrl_value_channel; }
  int ctrl_step() const { return dump->ctrl_step; }
  int ctrl_record_channel() const { return dump->ctrl_record_channel; }
  int ctrl_record_threshold() const { return dump->ctrl_record_threshold; }

  bool automatic_detection() const { return detector().automatic_detection; }
  bool detection_requested() const { return detector().detection_requested; }
  bool nodes_changed() const { return detector().cycle.nodes_changed(); }
  std::vector<ArtnetNode> detected_nodes() const { return records(*detector().detected_nodes); }
  std::vector<ArtnetNode> poll_seen_nodes() const { return records(detector().cycle.poll_seen_nodes()); }
  std::vector<ArtnetNode> poll_new_nodes() const { return records(detector().cycle.poll_new_nodes()); }
  std::vector<ArtnetNode> poll_missing_nodes() const {
    return records(detector().cycle.poll_missing_nodes());
  }
  const std::vector<ArtnetNode>& manual_nodes() const { return dump->manual_nodes.nodes(); }
  std::size_t pending_askers() const { return dump->responder.waiting(); }

private:
  NodeDetector& detector() const { return dump->node_detector; }

  static std::vector<ArtnetNode> records(const DetectedNodes& nodes) {
    std::vector<ArtnetNode> records;
    for (const DetectedNode& node : nodes) records.push_back(node.record());
    return records;
  }

  std::unique_ptr<Dump> dump;
  std::string own;
  std::vector<char> held;  // the datagram that is being handled
};
