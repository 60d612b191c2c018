#include <algorithm>
#include <cstring>
#include <system_error>

#include "artnet/ArtNetPackets.h"
#include "kesto/device_info.h"
#include "kesto/logger.h"
#include "src/Dump.h"
#include "src/NodeMessages.h"
#include "src/ThreadSignals.h"

// Node detection: the mode that clients choose, the intake of replies on the receive thread, the cycles of
// the polling thread.

namespace {

constexpr std::chrono::milliseconds kCollectTime(3000);
constexpr std::chrono::milliseconds kIdleTime(100);

const char* flag_text(bool flag) {
  return flag ? "true" : "false";
}

// New nodes that one cycle takes in at most: one for every port-address there is. Forged replies end here.
constexpr std::size_t kNewNodeLimit = kUniverseLimit;

}  // namespace

bool Dump::set_automatic_node_detection(bool enable) {
  KESTO_LOG(3, "[Dump::set_automatic_node_detection] Set automatic node detection (enable:%s)",
            flag_text(enable));
  if (detection_requested) {
    KESTO_LOG(
        3,
        "[Dump::set_automatic_node_detection] Failed to set automatic node detection - manual in progress");
    return false;
  }
  automatic_detection = enable;
  return true;
}

bool Dump::request_node_detection() {
  KESTO_LOG(3, "[Dump::request_node_detection] Request node detection");
  if (automatic_detection) {
    KESTO_LOG(
        3, "[Dump::request_node_detection] Failed to request node detection - automatic detection enabled");
    return false;
  }
  detection_requested = true;
  return true;
}

bool Dump::node_detection_request_pending() {
  const bool pending = detection_requested;
  KESTO_LOG(3, "[Dump::node_detection_request_pending] Check node detection request pending (%s)",
            flag_text(pending));
  return pending;
}

bool Dump::start_polling_artnet_nodes() {
  if (!poll_thread.joinable()) {
    const EndSignalsBlocked blocked;
    try {
      poll_thread = std::thread(&Dump::poll_artnet_nodes, this);
      return true;
    } catch (const std::system_error&) {
      // No thread to be had now; the client may ask again.
    }
  }
  KESTO_LOG(3, "[Dump::start_polling_artnet_nodes] Failed to start polling artnet nodes");
  return false;
}

QString Dump::get_detected_nodes() {
  KESTO_LOG(6, "[Dump::get_detected_nodes] Get detected nodes");
  const std::lock_guard<std::mutex> guard(detected_mutex);
  return nodes_json(detected_nodes);
}

bool Dump::remove_detected_nodes() {
  KESTO_LOG(3, "[Dump::remove_detected_nodes] Remove detected nodes");
  const bool automatic = automatic_detection;
  const bool requested = detection_requested;
  if (automatic || requested) {
    KESTO_LOG(3, "[Dump::remove_detected_nodes] Failed to remove detected nodes (auto:%d, detect:%d)",
              static_cast<int>(automatic), static_cast<int>(requested));
    return false;
  }
  const std::lock_guard<std::mutex> poll_guard(poll_mutex);
  const std::lock_guard<std::mutex> detected_guard(detected_mutex);
  const QString message = vanished_entries(detected_nodes);
  KESTO_LOG(3, "[Dump::remove_detected_nodes] Emitting OnArtnetNodesUpdated signal");
  emit OnArtnetNodesUpdated(message);
  nodes_changed = false;
  poll_answered.clear();
  poll_new_nodes.clear();
  poll_seen_nodes.clear();
  poll_missing_nodes.clear();
  detected_nodes.clear();
  return true;
}

void Dump::process_art_poll_reply(const ArtPollReply& reply) {
  if (reply.esta_man == kesto::device::manufacturer_id() && reply.oem == kesto::device::oem_id()) return;
  // Never waits for the polling thread: a reply that comes while a cycle begins or is evaluated is dropped.
  const std::unique_lock<std::mutex> lock(poll_mutex, std::try_to_lock);
  if (!lock) return;
  if (reply.num_ports < 1 || reply.num_ports > 4) {
    KESTO_LOG(6, "[Dump::process_art_poll_reply] Port count incorrect");
    return;
  }
  for (int i = 0; i < reply.num_ports; ++i) {
    if (is_accepted_port(reply, i))
      take_in_node(node_of_reply(reply, i));
    else
      KESTO_LOG(6, "[Dump::process_art_poll_reply] Port type incorrect");
  }
}

void Dump::take_in_node(const ArtnetNode& node) {
  if (poll_answered.count(node) != 0) {
    KESTO_LOG(6, "[Dump::process_art_poll_reply] Artnet node duplicate reply (universe:%d, address:%s:%d)",
              node.universe, node.ip.toLocal8Bit().constData(), node.port);
    return;
  }
  const auto missing = std::lower_bound(poll_missing_nodes.begin(), poll_missing_nodes.end(), node);
  if (missing != poll_missing_nodes.end() && *missing == node) {
    poll_answered.insert(node);
    poll_seen_nodes.push_back(node);
    poll_missing_nodes.erase(missing);
    return;
  }
  if (poll_new_nodes.size() >= kNewNodeLimit) return;
  poll_answered.insert(node);
  nodes_changed = true;
  poll_new_nodes.push_back(node);
}

void Dump::poll_artnet_nodes() {
  KESTO_LOG(3, "[Dump::poll_artnet_nodes] Starting");
  ArtnetNodesUpdatedObject updates;
  connect(&updates, &ArtnetNodesUpdatedObject::OnArtnetNodesUpdated, this, &Dump::OnArtnetNodesUpdated);
  std::unique_lock<std::mutex> request_lock(artpoll_request_mutex);
  while (running) {
    if (detection_requested)
      detection_in_progress = true;
    else if (!automatic_detection) {
      if (!pause(request_lock, kIdleTime)) return;
      continue;
    }
    if (!run_detection_cycle(request_lock, updates)) return;
  }
}

bool Dump::pause(std::unique_lock<std::mutex>& request_lock, std::chrono::milliseconds duration) {
  artpoll_request_cv.wait_for(request_lock, duration, [this] { return !running; });
  return running;
}

bool Dump::run_detection_cycle(std::unique_lock<std::mutex>& request_lock,
                               ArtnetNodesUpdatedObject& updates) {
  begin_detection_cycle();
  if (!send_artpoll(request_lock)) return false;
  if (!pause(request_lock, kCollectTime)) return false;
  evaluate_detection_cycle(updates);
  return true;
}

void Dump::begin_detection_cycle() {
  const std::lock_guard<std::mutex> guard(poll_mutex);
  nodes_changed = false;
  poll_answered.clear();
  poll_new_nodes.clear();
  poll_seen_nodes.clear();
  poll_missing_nodes = detected_nodes;
}

bool Dump::send_artpoll(std::unique_lock<std::mutex>& request_lock) {
  strncpy(artpoll_request_address, broadcast_ip.c_str(), sizeof artpoll_request_address - 1);
  artpoll_request_port = kArtNetPort;
  artpoll_request_packet = make_art_poll();
  artpoll_request_done = false;
  artpoll_request_cv.wait(request_lock, [this] { return artpoll_request_done || !running; });
  return running;
}

void Dump::evaluate_detection_cycle(ArtnetNodesUpdatedObject& updates) {
  const std::lock_guard<std::mutex> poll_guard(poll_mutex);
  const std::lock_guard<std::mutex> detected_guard(detected_mutex);
  // Automatic detection was switched off during the cycle, and no request began it: it does not count.
  if (!automatic_detection && !detection_in_progress) return;
  if (!poll_missing_nodes.empty()) nodes_changed = true;
  if (nodes_changed) {
    nodes_changed = false;
    const QString message = appeared_entries(poll_new_nodes) + vanished_entries(poll_missing_nodes);
    KESTO_LOG(4, "[Dump::poll_artnet_nodes] Emitting OnArtnetNodesUpdated signal");
    emit updates.OnArtnetNodesUpdated(message);
    poll_missing_nodes.clear();
  }
  detected_nodes = std::move(poll_new_nodes);
  detected_nodes.insert(detected_nodes.end(), poll_seen_nodes.begin(), poll_seen_nodes.end());
  poll_answered.clear();
  poll_new_nodes.clear();
  poll_seen_nodes.clear();
  std::sort(detected_nodes.begin(), detected_nodes.end());
  detection_requested = false;
  detection_in_progress = false;
}
