#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace cue {

/// An IPv4 address in dotted decimals, and a port.
struct Destination {
  std::string address;
  int port = 0;
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
};

/// Sends to an address, also a broadcast address.
class UdpSender : public DatagramSink {
public:
  /// @param from  source address and port, port 0 for any; nothing: any address and port
  /// @throws CueError when the socket cannot be made
  UdpSender(const Destination& to, const std::optional<Destination>& from);
  ~UdpSender() override;
  UdpSender(const UdpSender&) = delete;
  UdpSender& operator=(const UdpSender&) = delete;
  UdpSender(UdpSender&&) = delete;
  UdpSender& operator=(UdpSender&&) = delete;

  int send(const std::uint8_t* data, std::size_t size) override;

private:
  int fd;
};

/// Hands every datagram over 127.0.0.1 to the service, which sends it on from the Art-Net port.
class RelaySender : public DatagramSink {
public:
  /// @param port             of the service
  /// @param to               must not be 127.0.0.1, its port at least 1024
  /// @param manufacturer_id  of the appliance; the service ignores requests with another number
  /// @throws CueError when the service would refuse the destination, or the socket cannot be made
  RelaySender(int port, const Destination& to, std::uint16_t manufacturer_id);

  int send(const std::uint8_t* data, std::size_t size) override;

private:
  UdpSender socket;
  std::vector<std::uint8_t> request;  // header of the request, then the datagram
};

}  // namespace cue
