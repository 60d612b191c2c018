#include "src/RelayRequest.h"

#include <cstring>

#include "artnet/RelayFormat.h"

std::optional<RelayRequest> read_relay_request(const char* datagram, std::size_t size,
                                               std::uint16_t manufacturer_id) {
  RelayHeader header;
  if (size <= sizeof header) return std::nullopt;
  memcpy(&header, datagram, sizeof header);
  if (header.manufacturer_id != manufacturer_id) return std::nullopt;
  RelayRequest request;
  // The last byte of the field is not part of the text, whatever it holds.
  request.address.assign(header.address, strnlen(header.address, sizeof header.address - 1));
  request.port = header.port;
  request.payload = datagram + sizeof header;
  request.size = size - sizeof header;
  return request;
}

bool is_allowed_destination(const std::string& address, std::int32_t port) {
  return !address.empty() && address != "127.0.0.1" && port >= kLowestRelayedPort && port <= 65535;
}
