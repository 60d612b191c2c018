#include "src/Dump.h"

#include <QFile>
#include <chrono>
#include <utility>

#include "kesto/device_info.h"
#include "kesto/logger.h"
#include "src/CueCopy.h"
#include "src/ThreadSignals.h"

namespace {

// The service ends after this time, whatever becomes of the disk.
constexpr std::chrono::seconds kLastWait(10);

// A wait that is not over by then is told of.
constexpr std::chrono::milliseconds kQuietWait(500);

constexpr qint64 kMillisecond = 1000000;  // ns

ServiceStatus::Grabber grabber_of(Recorder::GrabState state) {
  switch (state) {
    case Recorder::Armed:
      return ServiceStatus::Grabber::WaitsForChannel;
    case Recorder::StartPending:
      return ServiceStatus::Grabber::WaitsForFrame;
    case Recorder::Running:
    case Recorder::StopPending:
      return ServiceStatus::Grabber::Records;
    case Recorder::Off:
      break;
  }
  return ServiceStatus::Grabber::Off;
}

}  // namespace

Dump::Dump(int port, qint32 announced, std::size_t write_buffer)
    : Dump(look_at_device(), announced, write_buffer) {
  writer->start();
  const EndSignalsBlocked blocked;
  listen_thread = std::thread(&ReceiveLoop::listen_incoming_data, &receive_loop, port);
}

Dump::Dump(Device own, qint32 announced, std::size_t write_buffer)
    : device(std::move(own)),
      writer(std::make_unique<GrabWriter>(write_buffer, [this] { emit grab_signals.grab_concluded(); })),
      state(*writer),
      detector([this](ArtnetNodesUpdatedObject& updates) {
        connect(&updates, &ArtnetNodesUpdatedObject::OnArtnetNodesUpdated, this, &Dump::OnArtnetNodesUpdated);
      }),
      responder({device.device_ip_hex, device.device_mac, kesto::device::oem_id(),
                 kesto::device::manufacturer_id(), kesto::device::short_name(), kesto::device::long_name()},
                announced),
      receive_loop(device.device_ip_hex, {state, responder, detector, triggers, service_report}) {
  register_node_types();
  connect(&triggers, &TriggerQueue::OnArtnetTrigger, this, &Dump::OnArtnetTrigger);
  // Never at once: the writer thread emits.
  connect(
      &grab_signals, &GrabConcludedObject::grab_concluded, this, [this] { take_concluded_grabs(); },
      Qt::QueuedConnection);
}

Dump::Device Dump::look_at_device() {
  kesto::device::initialize();
  return {kesto::device::ip_address(), kesto::device::mac_address(), kesto::device::broadcast_ip()};
}

Dump::~Dump() {
  service_report.end();
  receive_loop.stop();
  detector.stop();
  if (listen_thread.joinable()) listen_thread.join();
  ending = true;
  const GrabWriter::Finished finished =
      writer->finish([this](std::size_t waiting) { return may_wait(waiting); });
  take_concluded_grabs();
  if (finished.given_up > 0) {
    KESTO_LOG(-1, "[Dump::~Dump] File took no data at the end (bytes:%llu)",
              static_cast<unsigned long long>(finished.given_up));
  }
  // Its thread may come back from the disk at any time. The process ends now.
  if (!finished.all) static_cast<void>(writer.release());
}

// ---- recorder ----

bool Dump::may_wait(std::size_t waiting) {
  const auto now = kesto::Clock::now();
  if (!ending && !end_requested()) {
    service_report.tick(now);
    return true;
  }
  if (!last_wait) last_wait = now;
  const auto waited = now - *last_wait;
  if (waited >= kQuietWait && !std::exchange(said_to_wait, true)) {
    KESTO_LOG(-1, "[Dump::~Dump] Waiting for the file, at most %d s (bytes:%llu)",
              static_cast<int>(kLastWait.count()), static_cast<unsigned long long>(waiting));
    service_report.end(waiting, kLastWait);
  }
  return waited < kLastWait;
}

void Dump::take_concluded_grabs() {
  for (ConcludedGrab& grab : writer->take_concluded()) {
    if (grab.recovered_at_end) KESTO_LOG(-1, "[Dump::finalize_grabbing] File takes data again (dropped:0)");
    if (grab.dropped_at_end > 0) {
      KESTO_LOG(-1, "[Dump::finalize_grabbing] File took no data at the end (dropped:%llu)",
                static_cast<unsigned long long>(grab.dropped_at_end));
    }
    if (grab.losses.any()) {
      KESTO_LOG(
          -1, "[Dump::finalize_grabbing] Recording lost datagrams (kernel:%llu, writer:%llu, after:%lld ms)",
          static_cast<unsigned long long>(grab.losses.kernel),
          static_cast<unsigned long long>(grab.losses.writer),
          static_cast<long long>(grab.losses.began / kMillisecond));
    } else {
      const long long milliseconds = grab.length / kMillisecond;
      KESTO_LOG(3,
                "[Dump::finalize_grabbing] Recording lost nothing (universes:%zu, datagrams:%lld, "
                "duration:%lld.%03lld s)",
                grab.summary.universes.size(), static_cast<long long>(grab.datagrams), milliseconds / 1000,
                milliseconds % 1000);
    }
    latest_grab_summary = std::move(grab.summary);
  }
}

bool Dump::settle_grabs(std::optional<FileIdentity> file) {
  const ServiceReport::DiskCall disk(service_report);
  const bool complete =
      writer->wait_for_ended([this](std::size_t waiting) { return may_wait(waiting); }, file);
  take_concluded_grabs();
  return complete;
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
  const ServiceReport::DiskCall disk(service_report);
  // Only this thread starts a recording, so it stays off meanwhile. One that has ended goes into its file
  // before a new one of the same name empties it; another file does not wait for it.
  const auto identity = FileIdentity::of(filename);
  const bool may_empty = !identity || settle_grabs(identity);
  auto file = may_empty ? RecordingFile::open(filename) : nullptr;
  if (file == nullptr) {
    KESTO_LOG(-2, "Can't open file for grabbing");
    return;
  }
  writer->begin(std::move(file));
  grab_name = filename;
  ++grab_number;
  GuardedState::Writer guard(state);
  guard.recorder().arm(guard.control().ctrl_record_enabled());
}

void Dump::stop() {
  KESTO_LOG(3, "[Dump::stop] Stopping grabber");
  bool off = false;
  {
    GuardedState::Writer guard(state);
    Recorder& recorder = guard.recorder();
    off = recorder.is_off();
    if (!off) {
      // No datagram may come any more to tell of those that were dropped last.
      if (const auto drops = receive_loop.kernel_drops())
        recorder.note_kernel_drops(*drops, kesto::Clock::now().time_since_epoch().count());
      recorder.finalize_grabbing();
    }
  }
  if (off)
    KESTO_LOG(3, "[Dump::stop] Failed to stop grabber, idle");
  else
    KESTO_LOG(3, "[Dump::finalize_grabbing] Grabbing finalized");
  settle_grabs();
}

QString Dump::get_status() {
  GuardedState::Writer guard(state);
  return QString::fromLatin1(guard.recorder().status());
}

QString Dump::latest_grab() {
  settle_grabs();
  const std::string report = grab_report(latest_grab_summary);
  KESTO_LOG(3, "[Dump::latest_grab] Get latest grab (%s)", report.c_str());
  return QString::fromLocal8Bit(report.data(), static_cast<int>(report.size()));
}

QString Dump::dup_cue(const QString& destpath, const QString& filename) {
  KESTO_LOG(3, "[Dump::dup_cue] Preparing to clone cue");
  const ServiceReport::DiskCall disk(service_report);
  const auto identity = FileIdentity::of(filename);
  const bool complete = !identity || settle_grabs(identity);
  if (!QFile::exists(filename)) return QString::fromLatin1("");
  KESTO_LOG(3, "[Dump::dup_cue] Generating new cue path");
  QString path = new_cue_path(destpath);
  KESTO_LOG(3, "[Dump::dup_cue] New cue path is: %s", path.toLocal8Bit().constData());
  if (complete && !path.isEmpty())
    copy_cue(filename, path, [this] { service_report.tick(kesto::Clock::now()); });
  KESTO_LOG(3, "[Dump::dup_cue] cue cloned");
  return path;
}

// ---- service manager ----

void Dump::report_to(const ServiceManager& manager) {
  service_report.begin(manager, [this] { return look(); });
}

ServiceStatus Dump::look() {
  Recorder::Progress progress;
  {
    GuardedState::Writer guard(state);
    progress = guard.recorder().progress();
  }
  ServiceStatus status;
  status.grabber = grabber_of(progress.state);
  status.has_port = !receive_loop.is_without_port();
  status.file = grab_name;
  status.universes = progress.universes;
  status.rate = rate_meter.rate(grab_number, progress.datagrams, kesto::Clock::now());
  status.refuses = progress.refuses;
  status.lost = progress.lost;
  status.late = writer->held_up(GrabWriter::Clock::now());
  return status;
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
