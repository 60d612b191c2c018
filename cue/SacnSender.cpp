#include "cue/SacnSender.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QUuid>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <utility>

#include "cue/CueError.h"

namespace cue {
namespace {

// A receiver takes a source for lost after 2.5 s without a packet (E1.31, E131_NETWORK_DATA_LOSS_TIMEOUT),
// and a source that holds a look repeats it every 800 to 1000 ms (6.6.1).
constexpr kesto::Clock::duration kRepeat = std::chrono::milliseconds(900);

// Repeats in a row when the playback is idle.
constexpr int kMostRepeats = 16;

// Packets that end a stream (E1.31, 6.2.6).
constexpr int kTerminatingPackets = 3;

// Enough for the routers of a large house; 239.255.0.0/16 does not leave a site anyway (RFC 2365).
constexpr int kTimeToLive = 20;

// The name space of the CIDs of this program.
const QUuid kNamespace("{6f1c1d9e-5b0a-4c57-9d1e-2f6a1f0f7c3b}");

std::string host_identity() {
  std::ifstream file("/etc/machine-id");
  std::string identity;
  if (std::getline(file, identity) && !identity.empty()) return identity;
  char name[256] = {};
  gethostname(name, sizeof name - 1);
  return name;
}

}  // namespace

SacnCid cid_of(const std::string& host) {
  const QByteArray uuid = QUuid::createUuidV5(kNamespace, QByteArray::fromStdString(host)).toRfc4122();
  SacnCid cid{};
  memcpy(cid.data(), uuid.constData(), cid.size());
  return cid;
}

SacnCid cid_of_this_host() {
  return cid_of(host_identity());
}

GroupSender::GroupSender(const std::optional<Destination>& from) : fd(open_socket()) {
  setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &kTimeToLive, sizeof kTimeToLive);
  if (!from) return;
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = socket_address(*from);
  if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &address.sin_addr, sizeof address.sin_addr) == 0 &&
      bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
    return;
  const int error = errno;
  close(fd);
  throw file_error(destination_text(*from), error);
}

GroupSender::~GroupSender() {
  close(fd);
}

int GroupSender::send(std::uint16_t universe, const Bytes& packet) {
  sockaddr_in group{};
  group.sin_family = AF_INET;
  group.sin_port = htons(kSacnPort);
  group.sin_addr.s_addr = htonl(sacn_group(universe));
  const int error = send_datagram(fd, packet.data, packet.size, &group, stuck);
  if (error != 0) failed.add(error);
  return error;
}

SacnSender::SacnSender(const SacnOptions& options, Now clock)
    : now(std::move(clock)),
      builder(options.source),
      routes(options.targets),
      senders(options.targets,
              [&](const Destination& to) { return std::make_unique<UdpSender>(to, options.from); }) {
  if (options.targets.empty()) groups.emplace(options.from);
}

int SacnSender::send(const std::uint8_t* data, std::size_t size) {
  int first_error = 0;
  for_each_dmx(data, size, [&](const DmxPacket& packet) {
    const int error = send_levels(packet, data + packet.offset + kDmxHeaderSize);
    if (first_error == 0) first_error = error;
  });
  repeat_oldest();
  return first_error;
}

int SacnSender::send_levels(const DmxPacket& packet, const std::uint8_t* slots) {
  if (packet.slots == 0) return 0;
  if (packet.port_address >= kSacnUniverseLimit) {
    no_universe.add(EADDRNOTAVAIL);
    return EADDRNOTAVAIL;
  }
  const auto universe = static_cast<std::uint16_t>(packet.port_address + 1);
  const auto [entry, is_new] = streams.try_emplace(universe);
  Stream& stream = entry->second;
  if (is_new) {
    stream.universe = universe;
    stream.place = oldest_first.insert(oldest_first.end(), &stream);
  }
  stream.slots.assign(slots, slots + packet.slots);
  return send_stream(stream, false);
}

int SacnSender::send_stream(Stream& stream, bool terminated) {
  SacnData data;
  data.universe = stream.universe;
  data.sequence = stream.sequence++;
  data.terminated = terminated;
  data.slots = {stream.slots.data(), stream.slots.size()};
  const Bytes packet = builder.packet(data);
  stream.sent = now();
  oldest_first.splice(oldest_first.end(), oldest_first, stream.place);
  if (!groups) return senders.send(routes.of(static_cast<std::uint16_t>(stream.universe - 1)), packet);
  const int error = groups->send(stream.universe, packet);
  if (error == 0) ++taken;
  return error;
}

/// Repeats the stream that has waited longest, if it is time. @return whether it was
bool SacnSender::repeat_oldest() {
  if (oldest_first.empty() || now() - oldest_first.front()->sent < kRepeat) return false;
  send_stream(*oldest_first.front(), false);
  return true;
}

void SacnSender::idle() {
  for (int repeats = 0; repeats < kMostRepeats && repeat_oldest();) ++repeats;
}

void SacnSender::finish() {
  for (int packets = 0; packets < kTerminatingPackets; ++packets)
    for (auto& [universe, stream] : streams) send_stream(stream, true);
  senders.settle();
}

std::vector<Delivery> SacnSender::deliveries() const {
  std::vector<Delivery> found = senders.deliveries();
  if (groups) found.push_back({"multicast", groups->failures()});
  if (no_universe.count > 0) found.push_back({"universes above 63999", no_universe});
  return found;
}

}  // namespace cue
