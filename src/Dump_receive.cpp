#include <QByteArray>
#include <cerrno>
#include <system_error>

#include "artnet/ArtNetPackets.h"
#include "kesto/delay.h"
#include "kesto/device_info.h"
#include "kesto/logger.h"
#include "src/Dump.h"
#include "src/RelayRequest.h"
#include "src/UdpReplySender.h"

// The receive thread: everything that arrives by UDP, and everything that leaves by it.

namespace {

constexpr int kWaitMs = 1000;

// Wait while ArtPollReplies are due but have no room. Even a slow link sends a few datagrams in this time,
// and the replies that have room keep a link of 40 Mbit/s busy for as long.
constexpr int kNoRoomWaitMs = 1;

// So many waits in a row may end without a datagram, be it that reading fails although the socket is readable
// or that they are interrupted; then each is followed by a pause.
constexpr int kFruitlessWaits = 4;
constexpr std::chrono::milliseconds kFruitlessPause(1);

// Pause after a wait that failed at once, so that a socket that cannot be waited for does not take a whole
// processor.
constexpr std::chrono::milliseconds kFailedWaitPause(100);

std::string error_text(int error) {
  return std::generic_category().message(error);
}

}  // namespace

void Dump::listen_incoming_data(int port) {
  KESTO_LOG(3, "[Dump::listen_incoming_data] Starting");
  socket = std::make_unique<kesto::net::UdpSocket>();
  if (!socket->bind("0.0.0.0", port)) KESTO_LOG(-2, "Failed to bind grabber socket");
  const kesto::net::HostAddress this_device_ip = dotted_address(device_ip_hex);
  KESTO_LOG(3, "[Dump::listen_incoming_data] This device IP is: %s", this_device_ip.text().c_str());

  state_lock.lock_as_reader();
  bool ready = false;
  bool waited = false;
  int fruitless_waits = 0;
  while (running) {
    if (const auto request = node_detector.take_request()) send_artpoll(*request);
    int wait_ms = kWaitMs;
    if (responder.waiting() > 0) wait_ms = send_replies(ready);
    // Behind a wait the kernel is asked; afterwards only what it gave, for the next wait asks it anyway.
    if (ready) ready = waited ? socket->hasPendingDatagrams() : socket->hasFetchedDatagrams();
    waited = !ready;
    if (!ready) {
      state_lock.unlock_as_reader();
      if (fruitless_waits > kFruitlessWaits) kesto::sleep_for(kFruitlessPause);
      errno = 0;
      ready = socket->waitForReadyRead(wait_ms);
      if (!ready && errno != 0 && errno != EINTR) kesto::sleep_for(kFailedWaitPause);
      fruitless_waits = ready || errno == EINTR ? fruitless_waits + 1 : 0;
      state_lock.lock_as_reader();
      continue;
    }
    fruitless_waits = 0;
    ready = receive_datagram();
    if (!ready) continue;
    state_lock.resolve_pending_write();
    handle_datagram(this_device_ip);
  }
  state_lock.unlock_as_reader();
  socket.reset();
  KESTO_LOG(3, "[Dump::listen_incoming_data] Finished");
}

void Dump::send_artpoll(const ArtPollRequest& request) {
  if (!is_allowed_destination(request.address, request.port)) return;
  if (socket->writeDatagram(reinterpret_cast<const char*>(&request.packet), sizeof request.packet,
                            request.address, request.port) == -1) {
    const int error = errno;
    KESTO_LOG(-2, "Failed to send artpoll datagram (ip:%s, port:%d) due to %s. errno %d",
              request.address.c_str(), request.port, error_text(error).c_str(), error);
  }
}

bool Dump::receive_datagram() {
  rx_time = kesto::Clock::now().time_since_epoch().count();
  const std::int64_t size = socket->pendingDatagramSize();
  if (size == -1) {
    KESTO_LOG(-2, "Failed to read pending datagram size");
    // A datagram that is too long would stay at the head of the queue for ever.
    socket->readDatagram(nullptr, 0, nullptr, nullptr);
    return false;
  }
  current_datagram = socket->takeDatagram(sender_address, sender_port);
  if (current_datagram.data() == nullptr) {
    KESTO_LOG(-2, "Failed to read pending datagram");
    return false;
  }
  return true;
}

void Dump::handle_datagram(const kesto::net::HostAddress& this_device_ip) {
  static const kesto::net::HostAddress loopback("127.0.0.1");
  if (sender_address == loopback) {
    relay_datagram();
    return;
  }
  if (sender_address == this_device_ip) return;
  process_datagram(current_datagram);
  if (grab_state == StopPending) finalize_grabbing();
}

void Dump::process_art_poll(const ArtPoll& /*poll*/) {
  UdpReplySender replies(*socket);
  if (responder.ask(sender_address, sender_port, replies) != PollResponder::Asked::FirstRefused) return;
  KESTO_LOG(-1, "[Dump::process_art_poll] Too many askers wait for replies, others get none (limit:%d)",
            static_cast<int>(PollResponder::kAskers));
}

int Dump::send_replies(bool between_datagrams) {
  UdpReplySender replies(*socket);
  const int limit = between_datagrams ? PollResponder::kBetweenDatagrams : PollResponder::kAtOnce;
  switch (responder.send_due(limit, kesto::Clock::now().time_since_epoch().count(), replies)) {
    case PollResponder::Wait::MoreDue:
      return 0;
    case PollResponder::Wait::NoRoom:
      return kNoRoomWaitMs;
    case PollResponder::Wait::NothingDue:
      break;
  }
  return kWaitMs;
}

void Dump::relay_datagram() {
  const auto request =
      read_relay_request(current_datagram.data(), current_datagram.size(), kesto::device::manufacturer_id());
  if (!request || !is_allowed_destination(request->address, request->port)) return;
  if (socket->writeDatagram(request->payload, static_cast<unsigned int>(request->size), request->address,
                            request->port) == -1) {
    const int error = errno;
    KESTO_LOG(-2, "Failed to send datagram (ip:%s, port:%d) due to %s. errno %d", request->address.c_str(),
              request->port, error_text(error).c_str(), error);
  }
}

bool Dump::parse_datagram(std::string_view datagram) {
  std::error_code ec;
  parser.parse_datagram(datagram, ec);
  return !ec;
}

void Dump::process_datagram(std::string_view datagram) {
  // Only an ArtDmx of this very datagram may mark it for recording.
  record_current = false;
  holds_dmx = false;
  if (!parse_datagram(datagram)) {
    KESTO_LOG(
        3, "[Dump::process_datagram] Failed to parse datagram (data:%s)",
        QByteArray::fromRawData(datagram.data(), static_cast<int>(datagram.size())).toBase64().constData());
    return;
  }
  if (holds_dmx) record_datagram(datagram);
}
