#pragma once

#include <cstdint>

/// What a local process puts before the packet that it hands the service over 127.0.0.1, to be sent on from
/// the Art-Net port. All in host order.
struct RelayHeader {
  std::uint32_t manufacturer_id;  // of the appliance
  char address[16];               // where to, dotted decimal, zero-terminated; the last byte does not count
  std::int32_t port;
};
static_assert(sizeof(RelayHeader) == 24);

/// Nothing is relayed to ports below.
constexpr int kLowestRelayedPort = 1024;
