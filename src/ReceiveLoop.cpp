#include "src/ReceiveLoop.h"

#include <QByteArray>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "artnet/ArtNetPackets.h"
#include "artnet/RecordingFormat.h"
#include "kesto/delay.h"
#include "kesto/device_info.h"
#include "kesto/logger.h"
#include "src/NodeDetector.h"
#include "src/PollResponder.h"
#include "src/RelayRequest.h"
#include "src/ServiceReport.h"
#include "src/TriggerQueue.h"
#include "src/UdpReplySender.h"

namespace {

using Wait = kesto::net::UdpSocket::Wait;

static_assert(kLongestDatagram == kesto::net::UdpSocket::kSizeLimit - 1,
              "a recording holds whatever the socket gives");

constexpr int kWaitMs = 1000;

// Wait while ArtPollReplies are due but have no room. In this time a few of them leave, even by a slow link.
constexpr int kNoRoomWaitMs = 1;

// When more waits in a row than this end without a datagram, interrupted or before a read that fails, a pause
// comes before each further one.
constexpr int kFruitlessWaits = 4;
constexpr std::chrono::milliseconds kFruitlessPause(1);

// Pause after a failed wait, so that endless failures do not take a whole processor.
constexpr std::chrono::milliseconds kFailedWaitPause(100);

std::string error_text(int error) {
  return std::generic_category().message(error);
}

}  // namespace

ReceiveLoop::ReceiveLoop(const std::string& device_ip_hex, const Consumers& consumers)
    : this_device_ip(dotted_address(device_ip_hex)), parts(consumers) {
  wire_parser();
}

/// Hands packets to one of the methods. A packet that lies, wholly or in part, in bytes that an earlier
/// datagram left in the parser's buffer does nothing: what a datagram does depends on that datagram alone.
template <auto method>
auto ReceiveLoop::own_packets() {
  return [this](auto&& packet) {
    if (!parser.from_stale_bytes()) (this->*method)(packet);
  };
}

void ReceiveLoop::wire_parser() {
  parser.on_trigger = own_packets<&ReceiveLoop::process_artnet_trigger>();
  parser.on_dmx = own_packets<&ReceiveLoop::process_artnet_trigger_dmx>();
  parser.on_poll = own_packets<&ReceiveLoop::process_art_poll>();
  parser.on_poll_reply = own_packets<&ReceiveLoop::process_art_poll_reply>();
  parser.on_unknown = own_packets<&ReceiveLoop::unknown_packet>();
  parser.on_error = own_packets<&ReceiveLoop::packet_error>();
}

void ReceiveLoop::listen_incoming_data(int port) {
  KESTO_LOG(3, "[Dump::listen_incoming_data] Starting");
  socket = std::make_unique<kesto::net::UdpSocket>();
  const bool has_port = socket->bind("0.0.0.0", port);
  if (!has_port) KESTO_LOG(-2, "Failed to bind grabber socket");
  without_port.store(!has_port);
  set_bound(has_port);
  KESTO_LOG(3, "[Dump::listen_incoming_data] This device IP is: %s", this_device_ip.text().c_str());
  {
    GuardedState::Reader state(parts.state);
    bool ready = false;
    bool waited = false;
    int fruitless_waits = 0;
    while (running) {
      if (const auto request = parts.detector.take_request()) serve(*request);
      const int wait_ms = parts.responder.nobody_waits() ? kWaitMs : send_replies(ready);
      // Ask the kernel only after a wait. While datagrams of a batch are left, look only at those: the next
      // wait asks the kernel anyway.
      if (ready) ready = waited ? socket->hasPendingDatagrams() : socket->hasFetchedDatagrams();
      waited = !ready;
      if (!ready) {
        state.let_go();
        parts.report.come_round();
        if (fruitless_waits > kFruitlessWaits) kesto::sleep_for(kFruitlessPause);
        const Wait result = socket->waitFor(wait_ms);
        if (result == Wait::Failed) kesto::sleep_for(kFailedWaitPause);
        ready = result == Wait::Ready;
        fruitless_waits = ready || result == Wait::Interrupted ? fruitless_waits + 1 : 0;
        state.take_again();
        continue;
      }
      fruitless_waits = 0;
      ready = receive_datagram();
      if (!ready) continue;
      state.resolve_pending_write();
      handle_datagram(state);
    }
  }
  set_bound(false);
  socket.reset();
  KESTO_LOG(3, "[Dump::listen_incoming_data] Finished");
}

void ReceiveLoop::stop() {
  running = false;
  const kesto::MutexLock lock(socket_mutex);
  if (bound) socket->wake();
}

std::optional<std::uint32_t> ReceiveLoop::kernel_drops() {
  const kesto::MutexLock lock(socket_mutex);
  return bound ? socket->kernelDrops() : std::nullopt;
}

void ReceiveLoop::set_bound(bool new_bound) {
  const kesto::MutexLock lock(socket_mutex);
  bound = new_bound;
}

int ReceiveLoop::send_replies(bool between_datagrams) {
  UdpReplySender sender(*socket);
  const int limit = between_datagrams ? PollResponder::kBetweenDatagrams : PollResponder::kAtOnce;
  switch (parts.responder.send_due(limit, kesto::Clock::now().time_since_epoch().count(), sender)) {
    case PollResponder::Wait::MoreDue:
      return 0;
    case PollResponder::Wait::NoRoom:
      return kNoRoomWaitMs;
    case PollResponder::Wait::NothingDue:
      break;
  }
  return kWaitMs;
}

void ReceiveLoop::serve(const ArtPollRequest& request) {
  if (!is_allowed_destination(request.address, request.port)) return;
  if (socket->writeDatagram(reinterpret_cast<const char*>(&request.packet), sizeof request.packet,
                            request.address, request.port) == -1) {
    const int error = errno;
    KESTO_LOG(-2, "Failed to send artpoll datagram (ip:%s, port:%d) due to %s. errno %d",
              request.address.c_str(), request.port, error_text(error).c_str(), error);
  }
}

bool ReceiveLoop::receive_datagram() {
  if (socket->pendingDatagramSize() == -1) {
    KESTO_LOG(-2, "Failed to read pending datagram size");
    // Discard it: a datagram that is too long would stay at the head of the queue for ever.
    socket->readDatagram(nullptr, 0, nullptr, nullptr);
    return false;
  }
  if (!socket->takeDatagram(datagram)) {
    KESTO_LOG(-2, "Failed to read pending datagram");
    return false;
  }
  if (!datagram.stamped && !std::exchange(missed_stamp, true)) {
    KESTO_LOG(4, "[Dump::listen_incoming_data] Kernel gives no arrival times, the time of reading is taken");
  }
  return true;
}

void ReceiveLoop::handle_datagram(GuardedState::Reader& state) {
  if (datagram.sender_address == loopback)
    relay_datagram();
  else if (datagram.sender_address != this_device_ip)
    process_datagram(state);
}

void ReceiveLoop::relay_datagram() {
  const auto request =
      read_relay_request(datagram.bytes.data(), datagram.bytes.size(), kesto::device::manufacturer_id());
  if (!request || !is_allowed_destination(request->address, request->port)) return;
  if (socket->writeDatagram(request->payload, static_cast<unsigned int>(request->size), request->address,
                            request->port) == -1) {
    const int error = errno;
    KESTO_LOG(-2, "Failed to send datagram (ip:%s, port:%d) due to %s. errno %d", request->address.c_str(),
              request->port, error_text(error).c_str(), error);
  }
}

bool ReceiveLoop::parse_datagram(std::string_view bytes) {
  std::error_code ec;
  parser.parse_datagram(bytes, ec);
  return !ec;
}

void ReceiveLoop::process_datagram(GuardedState::Reader& state) {
  Recorder& recorder = state.recorder();
  recorder.begin_datagram();
  guarded = &state;
  const bool parsed = parse_datagram(datagram.bytes);
  guarded = nullptr;
  if (!parsed) {
    KESTO_LOG(3, "[Dump::process_datagram] Failed to parse datagram (data:%s)",
              QByteArray::fromRawData(datagram.bytes.data(), static_cast<int>(datagram.bytes.size()))
                  .toBase64()
                  .constData());
  }
  const Recorder::Verdict verdict = recorder.end_datagram(datagram, parsed);
  if (verdict.started) KESTO_LOG(3, "[Dump::process_datagram] Grabbing started");
  if (verdict.file_error != 0) {
    KESTO_LOG(-1, "[Dump::process_datagram] File takes no data, datagrams wait in memory (errno:%d)",
              verdict.file_error);
  }
  if (verdict.dropping_began)
    KESTO_LOG(-1, "[Dump::process_datagram] File takes no data, datagrams are dropped");
  if (verdict.file_recovered) {
    KESTO_LOG(-1, "[Dump::process_datagram] File takes data again (dropped:%llu)",
              static_cast<unsigned long long>(verdict.dropped));
  }
  if (verdict.ended) {
    KESTO_LOG(3, "[Dump::finalize_grabbing] Grabbing finalized");
    recorder.finalize_grabbing();
  }
}

void ReceiveLoop::process_art_poll(const ArtPoll& /*poll*/) {
  UdpReplySender sender(*socket);
  if (parts.responder.ask(datagram.sender_address, datagram.sender_port, sender) ==
      PollResponder::Asked::FirstRefused) {
    KESTO_LOG(-1, "[Dump::process_art_poll] Too many askers wait for replies, others get none (limit:%d)",
              static_cast<int>(PollResponder::kAskers));
  }
}

void ReceiveLoop::process_art_poll_reply(const ArtPollReply& reply) {
  parts.detector.process_art_poll_reply(reply);
}

void ReceiveLoop::process_artnet_trigger(const ArtTrigger& trigger) {
  if (guarded->recorder().is_off())
    parts.triggers.post("process_artnet_trigger", {trigger.key, trigger.sub_key});
}

void ReceiveLoop::process_artnet_trigger_dmx(const ArtDmx& dmx) {
  Recorder& recorder = guarded->recorder();
  const ControlUniverse& control = guarded->control();
  if (!recorder.is_off()) {
    recorder.trigger_dmx_grab(dmx, control.record_level(dmx));
  } else if (const auto trigger = control.trigger_dmx_idle(dmx)) {
    parts.triggers.post("trigger_dmx_idle", *trigger);
  }
}

void ReceiveLoop::unknown_packet(const ArtHeader& /*header*/) const {
  KESTO_LOG(6, "[Dump::ArtNetParser::on_unknown] Failed to parse unknown packet (%d)",
            static_cast<int>(parser.packet_count));
}

void ReceiveLoop::packet_error(std::error_code ec) const {
  KESTO_LOG(-2, "[Dump::ArtNetParser::on_error] Failed to parse packet (%d, ec:%d)",
            static_cast<int>(parser.packet_count), ec.value());
}
