#include "src/Dump.h"

#include "kesto/device_info.h"
#include "kesto/logger.h"
#include "src/ThreadSignals.h"

// Life cycle of the service object and the wiring of its parser.

Dump::Dump(int port, qint32 announced) : Dump(announced, nullptr) {
  const EndSignalsBlocked blocked;
  listen_thread = std::thread(&Dump::listen_incoming_data, this, port);
}

namespace {

/// What the appliance says of itself.
NodeIdentity identity_of_device() {
  kesto::device::initialize();
  return {kesto::device::ip_address(),      kesto::device::mac_address(), kesto::device::oem_id(),
          kesto::device::manufacturer_id(), kesto::device::short_name(),  kesto::device::long_name()};
}

}  // namespace

Dump::Dump(qint32 announced, std::nullptr_t)
    : latest_grab_summary(std::make_shared<const GrabSummary>()), responder(identity_of_device(), announced) {
  register_node_types();
  connect(&trigger_signals, &OnArtnetTriggerObject::OnArtnetTrigger, this, &Dump::OnArtnetTrigger);
  connect(this, &Dump::OnArtnetTrigger, this, [this] { trigger_handed_over(); });
  device_ip_hex = kesto::device::ip_address();
  device_mac = kesto::device::mac_address();
  broadcast_ip = kesto::device::broadcast_ip();
  wire_parser();
  artpoll_request_done = true;
}

Dump::~Dump() {
  running = false;
  {
    // Wakes the polling thread, whatever it waits for.
    const std::lock_guard<std::mutex> guard(artpoll_request_mutex);
    artpoll_request_done = true;
  }
  artpoll_request_cv.notify_all();
  if (listen_thread.joinable()) listen_thread.join();
  if (poll_thread.joinable()) poll_thread.join();
}

void Dump::wire_parser() {
  parser.on_trigger = [this](ArtTrigger& trigger) { process_artnet_trigger(trigger); };
  parser.on_dmx = [this](ArtDmx& dmx) {
    if (!parser.from_stale_bytes()) holds_dmx = true;
    process_artnet_trigger_dmx(dmx);
  };
  parser.on_poll = [this](ArtPoll&) {
    // What lies in the buffer from before has been answered: else one byte would bring dozens of answers.
    if (!parser.from_stale_bytes()) process_art_poll();
  };
  parser.on_poll_reply = [this](ArtPollReply& reply) { process_art_poll_reply(reply); };
  parser.on_unknown = [this](ArtHeader&) {
    KESTO_LOG(6, "[Dump::ArtNetParser::on_unknown] Failed to parse unknown packet (%d)",
              static_cast<int>(parser.packet_count));
  };
  parser.on_error = [this](const std::error_code ec) {
    KESTO_LOG(-2, "[Dump::ArtNetParser::on_error] Failed to parse packet (%d, ec:%d)",
              static_cast<int>(parser.packet_count), ec.value());
  };
}
