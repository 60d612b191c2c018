#include "cue/DatagramSender.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "artnet/RecordingFormat.h"
#include "artnet/RelayFormat.h"
#include "cue/CueError.h"

namespace cue {
namespace {

constexpr const char* kLoopback = "127.0.0.1";

// Time for the network to take a datagram; after it the datagram is lost, so that a stop never waits for one.
constexpr suseconds_t kSendTimeoutUs = 50'000;

sockaddr_in socket_address(const Destination& destination) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(destination.port));
  inet_pton(AF_INET, destination.address.c_str(), &address.sin_addr);
  return address;
}

std::string text_of(const Destination& destination) {
  return destination.address + ":" + std::to_string(destination.port);
}

const Destination& relayable(const Destination& to) {
  if (to.address == kLoopback || to.port < kLowestRelayedPort)
    throw CueError(text_of(to) + ": the service relays to other hosts and to ports from 1024 on only");
  return to;
}

}  // namespace

UdpSender::UdpSender(const Destination& to, const std::optional<Destination>& from)
    : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  if (fd == -1) throw file_error("socket", errno);
  const int on = 1;
  const timeval timeout{0, kSendTimeoutUs};
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  const auto fail = [this](const Destination& what, int error) {
    close(fd);
    return file_error(text_of(what), error);
  };
  if (from) {
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = socket_address(*from);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) throw fail(*from, errno);
  }
  // With a peer the kernel looks up the route once, not for every datagram, and fails at once without one.
  const sockaddr_in address = socket_address(to);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) throw fail(to, errno);
}

UdpSender::~UdpSender() {
  close(fd);
}

int UdpSender::send(const std::uint8_t* data, std::size_t size) {
  for (;;) {
    if (::send(fd, data, size, 0) != -1) return 0;
    // ECONNREFUSED is about an earlier datagram: nobody listens, which is no error here. This datagram has
    // not been sent yet.
    if (errno != EINTR && errno != ECONNREFUSED) return errno;
  }
}

RelaySender::RelaySender(int port, const Destination& to, std::uint16_t manufacturer_id)
    : socket({kLoopback, port}, Destination{kLoopback, 0}), request(sizeof(RelayHeader)) {
  relayable(to);
  RelayHeader header{manufacturer_id, {}, to.port};
  to.address.copy(header.address, sizeof header.address - 1);
  memcpy(request.data(), &header, sizeof header);
}

int RelaySender::send(const std::uint8_t* data, std::size_t size) {
  if (sizeof(RelayHeader) + size > kLongestDatagram) return EMSGSIZE;
  request.resize(sizeof(RelayHeader));
  request.insert(request.end(), data, data + size);
  return socket.send(request.data(), request.size());
}

}  // namespace cue
