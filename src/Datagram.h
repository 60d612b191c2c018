#pragma once

#include <cstdint>
#include <string_view>

#include "kesto/udpsocket.h"

/// One received datagram.
struct Datagram {
  std::string_view bytes;  // the socket's memory, valid until it receives or waits again
  kesto::net::HostAddress sender_address;
  int sender_port = 0;
  std::int64_t rx_time = 0;  // ns on kesto::Clock
};
