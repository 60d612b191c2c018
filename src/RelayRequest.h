#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// Request of a local process, sent over 127.0.0.1: send a datagram on from the Art-Net port.
struct RelayRequest {
  std::string address;  // as it stands in the datagram, at most 15 characters
  std::int32_t port = 0;
  const char* payload = nullptr;  // inside the datagram
  std::size_t size = 0;           // bytes, at least 1
};

/// Request held by a datagram: a RelayHeader and the payload. @return nothing when it is shorter than 25
/// bytes or carries another manufacturer id.
std::optional<RelayRequest> read_relay_request(const char* datagram, std::size_t size,
                                               std::uint16_t manufacturer_id);

/// Whether the service sends there: not to an empty address, not to itself, only to ports 1024..65535.
bool is_allowed_destination(const std::string& address, std::int32_t port);
