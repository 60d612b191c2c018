#include "src/Dump.h"

#include "kesto/device_info.h"
#include "kesto/logger.h"
#include "src/ThreadSignals.h"

// Life cycle of the service object and the wiring of its parser.

namespace {

/// What the appliance says of itself.
NodeIdentity identity_of_device() {
  kesto::device::initialize();
  return {kesto::device::ip_address(),      kesto::device::mac_address(), kesto::device::oem_id(),
          kesto::device::manufacturer_id(), kesto::device::short_name(),  kesto::device::long_name()};
}

}  // namespace

Dump::Dump(int port, qint32 announced) : Dump(announced, nullptr) {
  const EndSignalsBlocked blocked;
  listen_thread = std::thread(&Dump::listen_incoming_data, this, port);
}

Dump::Dump(qint32 announced, std::nullptr_t)
    : latest_grab_summary(std::make_shared<const GrabSummary>()), responder(identity_of_device(), announced) {
  register_node_types();
  connect(&trigger_signals, &OnArtnetTriggerObject::OnArtnetTrigger, this, &Dump::OnArtnetTrigger);
  connect(this, &Dump::OnArtnetTrigger, this, [this] { trigger_handed_over(); });
  device_ip_hex = kesto::device::ip_address();
  device_mac = kesto::device::mac_address();
  broadcast_ip = kesto::device::broadcast_ip();
  wire_parser();
}

Dump::~Dump() {
  running = false;
  node_detector.stop();
  if (listen_thread.joinable()) listen_thread.join();
}

void Dump::wire_parser() {
  parser.on_trigger = [this](ArtTrigger& trigger) { process_artnet_trigger(trigger); };
  parser.on_dmx = [this](ArtDmx& dmx) {
    if (!parser.from_stale_bytes()) holds_dmx = true;
    process_artnet_trigger_dmx(dmx);
  };
  parser.on_poll = [this](ArtPoll& poll) {
    // What lies in the buffer from before has been answered: else one byte would bring dozens of answers.
    if (!parser.from_stale_bytes()) process_art_poll(poll);
  };
  parser.on_poll_reply = [this](ArtPollReply& reply) { node_detector.process_art_poll_reply(reply); };
  parser.on_unknown = [this](ArtHeader&) {
    KESTO_LOG(6, "[Dump::ArtNetParser::on_unknown] Failed to parse unknown packet (%d)",
              static_cast<int>(parser.packet_count));
  };
  parser.on_error = [this](const std::error_code ec) {
    KESTO_LOG(-2, "[Dump::ArtNetParser::on_error] Failed to parse packet (%d, ec:%d)",
              static_cast<int>(parser.packet_count), ec.value());
  };
}

bool Dump::set_automatic_node_detection(bool enable) {
  return node_detector.set_automatic_node_detection(enable);
}

bool Dump::request_node_detection() {
  return node_detector.request_node_detection();
}

bool Dump::node_detection_request_pending() {
  return node_detector.node_detection_request_pending();
}

bool Dump::start_polling_artnet_nodes() {
  return node_detector.start_polling_artnet_nodes(broadcast_ip);
}

QString Dump::get_detected_nodes() {
  return node_detector.get_detected_nodes();
}

bool Dump::remove_detected_nodes() {
  const std::optional<QString> message = node_detector.remove_detected_nodes();
  if (message) emit OnArtnetNodesUpdated(*message);
  return message.has_value();
}

bool Dump::announce(const char* method, const std::optional<QString>& message) {
  if (!message) return false;
  KESTO_LOG(3, "[Dump::%s] Emitting OnArtnetNodesUpdated signal", method);
  emit OnArtnetNodesUpdated(*message);
  return true;
}

bool Dump::init_manual_nodes(const std::vector<ArtnetNode>& nodes) {
  return announce("init_manual_nodes", manual_nodes.init(nodes));
}

bool Dump::add_manual_node(const ArtnetNode& node) {
  return announce("add_manual_node", manual_nodes.add(node));
}

bool Dump::update_manual_node(const ArtnetNode& node) {
  return announce("update_manual_node", manual_nodes.update(node));
}

bool Dump::remove_manual_node(int id) {
  return announce("remove_manual_node", manual_nodes.remove(id));
}

void Dump::remove_all_manual_nodes() {
  announce("remove_all_manual_nodes", manual_nodes.remove_all());
}
