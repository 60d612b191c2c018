#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kesto/delay.h"

namespace cue {

/// An IPv4 address in dotted decimals, and a port.
struct Destination {
  std::string address;
  int port = 0;
};

/// "10.0.0.9:6454".
std::string destination_text(const Destination& destination);

sockaddr_in socket_address(const Destination& destination);

/// A socket for datagrams of which none waits longer than 50 ms for the network to take it: after that it is
/// lost, so that a stop never waits for one. @throws CueError
int open_socket();

/// Sends on such a socket. After a datagram that waited in vain the next ones are lost when they are not
/// taken at once, until one is: a link that is stuck must not hold up the others, nor a stop.
/// @param to     nullptr: the peer of the socket
/// @param stuck  of the socket: false at first @return 0, or errno
int send_datagram(int fd, const std::uint8_t* data, std::size_t size, const sockaddr_in* to, bool& stuck);

/// Datagrams that did not get through.
struct Failures {
  std::uint64_t count = 0;
  int first_error = 0;  // errno of the first

  void add(int error) {
    if (count++ == 0) first_error = error;
  }
};

/// Destination of a playback.
class DatagramSink {
public:
  DatagramSink() = default;
  virtual ~DatagramSink() = default;
  DatagramSink(const DatagramSink&) = delete;
  DatagramSink& operator=(const DatagramSink&) = delete;
  DatagramSink(DatagramSink&&) = delete;
  DatagramSink& operator=(DatagramSink&&) = delete;

  /// @return 0, or the errno of a datagram that was not sent
  virtual int send(const std::uint8_t* data, std::size_t size) = 0;

  /// Whether the next datagram would go the same way as one that was not sent: to one target, or one network.
  virtual bool is_single() const { return true; }
};

/// Sends to one target.
class TargetSender : public DatagramSink {
public:
  /// All datagrams so far that were not sent, and those that the network said it could not deliver. The
  /// network may be silent about a datagram that is lost, and hosts say so for a part of the datagrams only.
  virtual Failures failures() const = 0;

  /// Waits until @p deadline for what the network says about the last datagrams, or until it has said
  /// something.
  virtual void settle(kesto::Clock::time_point deadline) = 0;
};

/// Sends to an address, also a broadcast or multicast address.
class UdpSender : public TargetSender {
public:
  /// @param from  source address and port, port 0 for any; nothing: any address and port
  /// @throws CueError when the socket cannot be made
  UdpSender(Destination to, const std::optional<Destination>& from);
  ~UdpSender() override;
  UdpSender(const UdpSender&) = delete;
  UdpSender& operator=(const UdpSender&) = delete;
  UdpSender(UdpSender&&) = delete;
  UdpSender& operator=(UdpSender&&) = delete;

  /// Without a route to the target it is looked for again each time.
  int send(const std::uint8_t* data, std::size_t size) override;
  Failures failures() const override { return failed; }
  void settle(kesto::Clock::time_point deadline) override;

  /// Takes in what the network has said so far. @return messages
  std::size_t take_refusals();

private:
  int connect_to_peer();
  int send_once(const std::uint8_t* data, std::size_t size);

  int fd;
  Destination peer;
  bool connected = false;
  bool stuck = false;
  Failures failed;
};

/// Hands every datagram over 127.0.0.1 to the service, which sends it on from the Art-Net port.
class RelaySender : public TargetSender {
public:
  /// @param port             of the service
  /// @param to               must not be 127.0.0.1, its port at least 1024
  /// @param manufacturer_id  of the appliance; the service ignores requests with another number
  /// @throws CueError when the service would refuse the destination, or the socket cannot be made
  RelaySender(int port, const Destination& to, std::uint16_t manufacturer_id);

  /// The first datagram is an error when nobody listens on the port.
  int send(const std::uint8_t* data, std::size_t size) override;
  Failures failures() const override;
  void settle(kesto::Clock::time_point deadline) override { socket.settle(deadline); }

private:
  UdpSender socket;
  bool first = true;
  std::uint64_t too_long = 0;         // datagrams that do not fit into a request
  std::vector<std::uint8_t> request;  // header of the request, then the datagram
};

}  // namespace cue
