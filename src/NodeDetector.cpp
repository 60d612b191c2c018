#include "src/NodeDetector.h"

#include <cstring>
#include <system_error>
#include <utility>

#include "artnet/ArtNetPackets.h"
#include "kesto/device_info.h"
#include "kesto/logger.h"
#include "src/NodeMessages.h"
#include "src/ThreadSignals.h"

namespace {

const char* flag_text(bool flag) {
  return flag ? "true" : "false";
}

}  // namespace

NodeDetector::NodeDetector(ConnectUpdates connect, Waits durations)
    : connect_updates(std::move(connect)), waits(durations) {}

NodeDetector::~NodeDetector() {
  stop();
}

bool NodeDetector::set_automatic_node_detection(bool enable) {
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

bool NodeDetector::request_node_detection() {
  KESTO_LOG(3, "[Dump::request_node_detection] Request node detection");
  if (automatic_detection) {
    KESTO_LOG(
        3, "[Dump::request_node_detection] Failed to request node detection - automatic detection enabled");
    return false;
  }
  detection_requested = true;
  return true;
}

bool NodeDetector::node_detection_request_pending() {
  const bool pending = detection_requested;
  KESTO_LOG(3, "[Dump::node_detection_request_pending] Check node detection request pending (%s)",
            flag_text(pending));
  return pending;
}

bool NodeDetector::start_polling_artnet_nodes(const std::string& broadcast) {
  if (!poll_thread.joinable()) {
    broadcast_ip = broadcast;
    const EndSignalsBlocked blocked;
    try {
      poll_thread = std::thread(&NodeDetector::poll_artnet_nodes, this);
      return true;
    } catch (const std::system_error&) {
      // No thread can be made now; the client may ask again.
    }
  }
  KESTO_LOG(3, "[Dump::start_polling_artnet_nodes] Failed to start polling artnet nodes");
  return false;
}

QString NodeDetector::get_detected_nodes() {
  KESTO_LOG(6, "[Dump::get_detected_nodes] Get detected nodes");
  std::shared_ptr<const DetectedNodes> nodes;
  {
    const kesto::MutexLock lock(detected_mutex);
    nodes = detected_nodes;
  }
  return nodes_json(*nodes);
}

std::optional<QString> NodeDetector::remove_detected_nodes() {
  KESTO_LOG(3, "[Dump::remove_detected_nodes] Remove detected nodes");
  const bool automatic = automatic_detection;
  const bool requested = detection_requested;
  if (automatic || requested) {
    KESTO_LOG(3, "[Dump::remove_detected_nodes] Failed to remove detected nodes (auto:%d, detect:%d)",
              static_cast<int>(automatic), static_cast<int>(requested));
    return std::nullopt;
  }
  const kesto::MutexLock poll_lock(poll_mutex);
  const kesto::MutexLock detected_lock(detected_mutex);
  QString message = cycle.forget();
  detected_nodes = cycle.detected_nodes();
  KESTO_LOG(3, "[Dump::remove_detected_nodes] Emitting OnArtnetNodesUpdated signal");
  return message;
}

void NodeDetector::stop() {
  {
    const kesto::MutexLock lock(artpoll_request_mutex);
    ending = true;
  }
  artpoll_request_cv.notify_all();
  if (poll_thread.joinable()) poll_thread.join();
}

void NodeDetector::process_art_poll_reply(const ArtPollReply& reply) {
  if (reply.esta_man == kesto::device::manufacturer_id() && reply.oem == kesto::device::oem_id()) return;
  if (!poll_mutex.try_lock()) return;
  if (reply.num_ports < 1 || reply.num_ports > 4) {
    KESTO_LOG(6, "[Dump::process_art_poll_reply] Port count incorrect");
  } else {
    DetectedNode node(reply, 0);
    for (int i = 0; i < reply.num_ports; ++i) {
      if (is_accepted_port(reply, i)) {
        node.set_port(reply, i);
        take_in(node);
      } else {
        KESTO_LOG(6, "[Dump::process_art_poll_reply] Port type incorrect");
      }
    }
  }
  poll_mutex.unlock();
}

void NodeDetector::take_in(const DetectedNode& node) {
  switch (cycle.take_in(node)) {
    case NodeCycle::Intake::Duplicate:
      KESTO_LOG(6, "[Dump::process_art_poll_reply] Artnet node duplicate reply (universe:%d, address:%s:%d)",
                node.universe(), node.ip(), node.port());
      return;
    case NodeCycle::Intake::FirstOverLimit:
      KESTO_LOG(-1, "[Dump::process_art_poll_reply] Too many artnet nodes, new ones are ignored (limit:%d)",
                static_cast<int>(NodeCycle::kLimit));
      return;
    case NodeCycle::Intake::New:
    case NodeCycle::Intake::SeenAgain:
    case NodeCycle::Intake::OverLimit:
      return;
  }
}

std::optional<ArtPollRequest> NodeDetector::take_waiting_request() {
  ArtPollRequest request;
  {
    // Raise the flag only under the mutex: otherwise the poller could see it first and keep the mutex for the
    // rest of its cycle, and the receive thread would wait here.
    const kesto::MutexLock lock(artpoll_request_mutex);
    request = {static_cast<const char*>(artpoll_request_address), artpoll_request_port,
               artpoll_request_packet};
    artpoll_request_done = true;
  }
  artpoll_request_cv.notify_one();
  return request;
}

void NodeDetector::poll_artnet_nodes() {
  KESTO_LOG(3, "[Dump::poll_artnet_nodes] Starting");
  ArtnetNodesUpdatedObject updates;
  connect_updates(updates);
  const kesto::MutexLock lock(artpoll_request_mutex);
  while (!ending) {
    if (!cycle_due()) {
      pause(waits.idle);
      continue;
    }
    begin_detection_cycle();
    if (!send_artpoll() || !pause(waits.collect)) return;
    evaluate_detection_cycle(updates);
  }
}

bool NodeDetector::cycle_due() {
  if (!detection_requested) return automatic_detection;
  detection_in_progress = true;
  return true;
}

bool NodeDetector::pause(std::chrono::milliseconds duration) {
  const auto deadline = std::chrono::steady_clock::now() + duration;
  while (!ending && artpoll_request_cv.wait_until(artpoll_request_mutex, deadline)) {
  }
  return !ending;
}

void NodeDetector::begin_detection_cycle() {
  const kesto::MutexLock lock(poll_mutex);
  cycle.begin();
}

bool NodeDetector::send_artpoll() {
  strncpy(artpoll_request_address, broadcast_ip.c_str(), sizeof artpoll_request_address - 1);
  artpoll_request_port = kArtNetPort;
  artpoll_request_packet = make_art_poll();
  artpoll_request_done = false;
  while (!artpoll_request_done && !ending) artpoll_request_cv.wait(artpoll_request_mutex);
  return !ending;
}

void NodeDetector::evaluate_detection_cycle(ArtnetNodesUpdatedObject& updates) {
  const kesto::MutexLock poll_lock(poll_mutex);
  // Clients wait for detected_mutex, so the work on thousands of nodes (making texts, emptying lists) is done
  // without it.
  const NodeCycle::Result result = cycle.evaluate();
  {
    const kesto::MutexLock detected_lock(detected_mutex);
    // A cycle that no request began does not count when automatic detection was switched off during it.
    if (!automatic_detection && !detection_in_progress) return;
    if (result.message) {
      KESTO_LOG(4, "[Dump::poll_artnet_nodes] Emitting OnArtnetNodesUpdated signal");
      emit updates.OnArtnetNodesUpdated(*result.message);
    }
    detected_nodes = result.nodes;
    detection_requested = false;
    detection_in_progress = false;
  }
  cycle.conclude(result);
}
