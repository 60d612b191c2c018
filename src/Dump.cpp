#include "src/Dump.h"

#include <QFile>

#include "kesto/device_info.h"
#include "kesto/logger.h"
#include "src/CueCopy.h"
#include "src/ThreadSignals.h"

Dump::Dump(int port, qint32 announced) : Dump(look_at_device(), announced) {
  const EndSignalsBlocked blocked;
  listen_thread = std::thread(&ReceiveLoop::listen_incoming_data, &receive_loop, port);
}

Dump::Dump(Device own, qint32 announced)
    : device(std::move(own)),
      detector([this](ArtnetNodesUpdatedObject& updates) {
        connect(&updates, &ArtnetNodesUpdatedObject::OnArtnetNodesUpdated, this, &Dump::OnArtnetNodesUpdated);
      }),
      responder({device.device_ip_hex, device.device_mac, kesto::device::oem_id(),
                 kesto::device::manufacturer_id(), kesto::device::short_name(), kesto::device::long_name()},
                announced),
      receive_loop(device.device_ip_hex,
                   {state, responder, detector, triggers, [this] { emit grab_signals.grab_ended(); }}) {
  register_node_types();
  connect(&triggers, &TriggerQueue::OnArtnetTrigger, this, &Dump::OnArtnetTrigger);
  // Never at once: whoever emits holds the lock that concluding takes.
  connect(
      &grab_signals, &GrabEndedObject::grab_ended, this, [this] { conclude_ended_grab(); },
      Qt::QueuedConnection);
}

Dump::Device Dump::look_at_device() {
  kesto::device::initialize();
  return {kesto::device::ip_address(), kesto::device::mac_address(), kesto::device::broadcast_ip()};
}

Dump::~Dump() {
  receive_loop.stop();
  detector.stop();
  if (listen_thread.joinable()) listen_thread.join();
  conclude_ended_grab();
}

// ---- recorder ----

void Dump::conclude_ended_grab() {
  std::optional<EndedGrab> ended;
  {
    GuardedState::Writer guard(state);
    ended = guard.recorder().take_ended_grab();
  }
  if (!ended) return;
  latest_grab_summary = ended->conclude();
  if (ended->dropped > 0) {
    KESTO_LOG(-1, "[Dump::finalize_grabbing] File took no data at the end (dropped:%llu)",
              static_cast<unsigned long long>(ended->dropped));
  }
}

void Dump::grab(const QString& filename) {
  KESTO_LOG(3, "[Dump::grab] Preparing to grab");
  bool off = false;
  {
    GuardedState::Writer guard(state);
    off = guard.recorder().is_off();
  }
  if (!off) {
    KESTO_LOG(3, "[Dump::grab] Failed to start grabber, not idle");
    return;
  }
  // Only this thread starts a recording, so it stays off meanwhile. One that the record channel ended before
  // that look goes into its file now: later it would go into a new recording of the same name.
  conclude_ended_grab();
  auto file = RecordingFile::open(filename);
  if (file == nullptr) {
    KESTO_LOG(-2, "Can't open file for grabbing");
    return;
  }
  GuardedState::Writer guard(state);
  guard.recorder().arm(std::move(file), guard.control().ctrl_record_enabled());
}

void Dump::stop() {
  KESTO_LOG(3, "[Dump::stop] Stopping grabber");
  bool off = false;
  {
    GuardedState::Writer guard(state);
    off = guard.recorder().is_off();
    if (!off) guard.recorder().finalize_grabbing();
  }
  if (off)
    KESTO_LOG(3, "[Dump::stop] Failed to stop grabber, idle");
  else
    KESTO_LOG(3, "[Dump::finalize_grabbing] Grabbing finalized");
  conclude_ended_grab();
}

QString Dump::get_status() {
  const char* status = nullptr;
  {
    GuardedState::Writer guard(state);
    status = guard.recorder().status();
  }
  // Whoever reads "off" finds the file complete: also that of a recording which ended just before the look.
  conclude_ended_grab();
  return QString::fromLatin1(status);
}

QString Dump::latest_grab() {
  conclude_ended_grab();
  const std::string report = grab_report(latest_grab_summary);
  KESTO_LOG(3, "[Dump::latest_grab] Get latest grab (%s)", report.c_str());
  return QString::fromLocal8Bit(report.data(), static_cast<int>(report.size()));
}

QString Dump::dup_cue(const QString& destpath, const QString& filename) {
  KESTO_LOG(3, "[Dump::dup_cue] Preparing to clone cue");
  conclude_ended_grab();
  if (!QFile::exists(filename)) return QString::fromLatin1("");
  KESTO_LOG(3, "[Dump::dup_cue] Generating new cue path");
  QString path = new_cue_path(destpath);
  KESTO_LOG(3, "[Dump::dup_cue] New cue path is: %s", path.toLocal8Bit().constData());
  if (!path.isEmpty()) copy_cue(filename, path);
  KESTO_LOG(3, "[Dump::dup_cue] cue cloned");
  return path;
}

// ---- control universe ----

template <typename Setter>
bool Dump::set_control(const char* subject, Setter setter) {
  using Refusal = ControlUniverse::Refusal;
  Refusal refusal = Refusal::GrabberNotIdle;
  {
    GuardedState::Writer guard(state);
    if (guard.recorder().is_off()) refusal = setter(guard.control());
  }
  if (refusal == Refusal::None) return true;
  KESTO_LOG(3, "[Dump::set_ctrl_%s] Failed to set control %s, %s", subject, subject,
            ControlUniverse::reason(refusal));
  return false;
}

bool Dump::set_ctrl_universe(int universe) {
  KESTO_LOG(3, "[Dump::set_ctrl_universe] Setting control universe (universe:%d)", universe);
  return set_control("universe",
                     [universe](ControlUniverse& control) { return control.set_ctrl_universe(universe); });
}

bool Dump::set_ctrl_action(int key_channel, int value_channel, int step) {
  KESTO_LOG(3, "[Dump::set_ctrl_action] Setting control action (key_channel:%d, value_channel:%d, step:%d)",
            key_channel, value_channel, step);
  return set_control("action", [=](ControlUniverse& control) {
    return control.set_ctrl_action(key_channel, value_channel, step);
  });
}

bool Dump::set_ctrl_record(int channel, int threshold) {
  KESTO_LOG(3, "[Dump::set_ctrl_record] Setting control record (channel:%d, threshold:%d)", channel,
            threshold);
  return set_control("record",
                     [=](ControlUniverse& control) { return control.set_ctrl_record(channel, threshold); });
}

// ---- node detection ----

bool Dump::set_automatic_node_detection(bool enable) {
  return detector.set_automatic_node_detection(enable);
}

bool Dump::request_node_detection() {
  return detector.request_node_detection();
}

bool Dump::node_detection_request_pending() {
  return detector.node_detection_request_pending();
}

bool Dump::start_polling_artnet_nodes() {
  return detector.start_polling_artnet_nodes(device.broadcast_ip);
}

QString Dump::get_detected_nodes() {
  return detector.get_detected_nodes();
}

bool Dump::remove_detected_nodes() {
  const std::optional<QString> message = detector.remove_detected_nodes();
  if (message) emit OnArtnetNodesUpdated(*message);
  return message.has_value();
}

bool Dump::announce(const char* method, const std::optional<QString>& message) {
  if (!message) return false;
  KESTO_LOG(3, "[Dump::%s] Emitting OnArtnetNodesUpdated signal", method);
  emit OnArtnetNodesUpdated(*message);
  return true;
}

// ---- manual nodes ----

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
