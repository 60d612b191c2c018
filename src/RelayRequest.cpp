#include "src/RelayRequest.h"

#include <cstring>

namespace {

constexpr std::size_t kAddressOffset = 4;
constexpr std::size_t kAddressSize = 16;
constexpr std::size_t kPortOffset = 20;
constexpr std::size_t kPayloadOffset = 24;

}  // namespace

std::optional<RelayRequest> read_relay_request(const char* datagram, std::size_t size,
                                               std::uint16_t manufacturer_id) {
  if (size <= kPayloadOffset) return std::nullopt;
  std::uint32_t id = 0;
  memcpy(&id, datagram, sizeof id);
  if (id != manufacturer_id) return std::nullopt;
  RelayRequest request;
  // The last byte of the field is never part of the text.
  request.address.assign(datagram + kAddressOffset, strnlen(datagram + kAddressOffset, kAddressSize - 1));
  memcpy(&request.port, datagram + kPortOffset, sizeof request.port);
  request.payload = datagram + kPayloadOffset;
  request.size = size - kPayloadOffset;
  return request;
}

bool is_allowed_destination(const std::string& address, std::int32_t port) {
  return !address.empty() && address != "127.0.0.1" && port >= 1024 && port <= 65535;
}
