#pragma once

#include <cstdint>
#include <string_view>

#include "kesto/udpsocket.h"

/// One received datagram, as it goes down the road.
struct Datagram {
  std::string_view bytes;  // in the memory of the socket, until its next receiving or waiting operation
  kesto::net::HostAddress sender_address;
  int sender_port = 0;
  std::int64_t rx_time = 0;  // ns on kesto::Clock
};
