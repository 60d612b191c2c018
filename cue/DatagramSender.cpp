#include "cue/DatagramSender.h"

#include <arpa/inet.h>
#include <linux/errqueue.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "artnet/RecordingFormat.h"
#include "artnet/RelayFormat.h"
#include "cue/CueError.h"

namespace cue {
namespace {

constexpr const char* kLoopback = "127.0.0.1";

constexpr suseconds_t kSendTimeoutUs = 50'000;

// Refusals of earlier datagrams may come in while one is sent again.
constexpr int kMostTries = 4;

const Destination& relayable(const Destination& to) {
  if (to.address == kLoopback || to.port < kLowestRelayedPort)
    throw CueError(destination_text(to) +
                   ": the service relays to other hosts and to ports from 1024 on only");
  return to;
}

/// Error of a datagram that was not delivered, from a message of the socket's error queue; 0 when it says
/// something else.
int refusal_in(msghdr& message) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level != IPPROTO_IP || part->cmsg_type != IP_RECVERR) continue;
    sock_extended_err error{};
    memcpy(&error, CMSG_DATA(part), sizeof error);
    if (error.ee_origin == SO_EE_ORIGIN_ICMP) return static_cast<int>(error.ee_errno);
  }
  return 0;
}

}  // namespace

std::string destination_text(const Destination& destination) {
  return destination.address + ":" + std::to_string(destination.port);
}

sockaddr_in socket_address(const Destination& destination) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(destination.port));
  inet_pton(AF_INET, destination.address.c_str(), &address.sin_addr);
  return address;
}

int open_socket() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd == -1) throw file_error("socket", errno);
  const timeval timeout{0, kSendTimeoutUs};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  return fd;
}

int send_datagram(int fd, const std::uint8_t* data, std::size_t size, const sockaddr_in* to, bool& stuck) {
  const int flags = stuck ? MSG_DONTWAIT : 0;
  const socklen_t length = to == nullptr ? 0 : sizeof *to;
  ssize_t count = 0;
  do count = sendto(fd, data, size, flags, reinterpret_cast<const sockaddr*>(to), length);
  while (count == -1 && errno == EINTR);
  const int error = count == -1 ? errno : 0;
  if (error == 0 || error == EAGAIN) stuck = error == EAGAIN;
  return error;
}

UdpSender::UdpSender(Destination to, const std::optional<Destination>& from)
    : fd(open_socket()), peer(std::move(to)) {
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  // What the network says about a datagram (ICMP) then waits in a queue, and only there.
  setsockopt(fd, IPPROTO_IP, IP_RECVERR, &on, sizeof on);
  if (from) {
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = socket_address(*from);
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &address.sin_addr, sizeof address.sin_addr);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
      const int error = errno;
      close(fd);
      throw file_error(destination_text(*from), error);
    }
  }
  connect_to_peer();
}

UdpSender::~UdpSender() {
  close(fd);
}

/// With a peer the kernel looks up the route once, not for every datagram. @return 0, or errno
int UdpSender::connect_to_peer() {
  const sockaddr_in address = socket_address(peer);
  connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  return connected ? 0 : errno;
}

int UdpSender::send_once(const std::uint8_t* data, std::size_t size) {
  if (!connected) {
    const int error = connect_to_peer();
    if (error != 0) return error;
  }
  return send_datagram(fd, data, size, nullptr, stuck);
}

int UdpSender::send(const std::uint8_t* data, std::size_t size) {
  int error = send_once(data, size);
  // An error may be about an earlier datagram; this one has not been sent yet.
  for (int tries = 0; error != 0 && tries < kMostTries && take_refusals() > 0; ++tries)
    error = send_once(data, size);
  if (error != 0) failed.add(error);
  return error;
}

std::size_t UdpSender::take_refusals() {
  std::size_t taken = 0;
  for (;;) {
    std::uint8_t bytes[1];  // of the datagram that was refused; they are not needed
    alignas(cmsghdr) std::uint8_t control[256];
    iovec part{bytes, sizeof bytes};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(fd, &message, MSG_ERRQUEUE | MSG_DONTWAIT) == -1) return taken;
    const int refusal = refusal_in(message);
    if (refusal == 0) continue;
    failed.add(refusal);
    ++taken;
  }
}

void UdpSender::settle(kesto::Clock::time_point deadline) {
  if (take_refusals() > 0) return;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - kesto::Clock::now());
  pollfd wanted{fd, 0, 0};
  if (left.count() > 0 && poll(&wanted, 1, static_cast<int>(left.count())) == 1) take_refusals();
}

RelaySender::RelaySender(int port, const Destination& to, std::uint16_t manufacturer_id)
    : socket({kLoopback, port}, Destination{kLoopback, 0}), request(sizeof(RelayHeader)) {
  relayable(to);
  RelayHeader header{manufacturer_id, {}, to.port};
  to.address.copy(header.address, sizeof header.address - 1);
  memcpy(request.data(), &header, sizeof header);
}

int RelaySender::send(const std::uint8_t* data, std::size_t size) {
  if (sizeof(RelayHeader) + size > kLongestDatagram) {
    ++too_long;
    return EMSGSIZE;
  }
  request.resize(sizeof(RelayHeader));
  request.insert(request.end(), data, data + size);
  const int error = socket.send(request.data(), request.size());
  if (error != 0 || !first) return error;
  first = false;
  // On this host a refusal is there at once.
  return socket.take_refusals() > 0 ? ECONNREFUSED : 0;
}

Failures RelaySender::failures() const {
  Failures all = socket.failures();
  if (all.count == 0) all.first_error = too_long > 0 ? EMSGSIZE : 0;
  all.count += too_long;
  return all;
}

}  // namespace cue
