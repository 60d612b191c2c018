#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "artnet/ArtNet.h"

/// Received replies of made-up nodes: with codes that are not the appliance's, from 10.0.0.x, port 6454.
namespace replies {

/// One Art-Net output port for each universe; at most 4, of one net and sub-net.
inline ArtPollReply of(std::uint8_t ip, const std::vector<int>& universes, const std::string& name = "node") {
  ArtPollReply reply{};
  reply.ip[0] = 10;
  reply.ip[3] = ip;
  reply.port = kArtNetPort;
  reply.oem = 0x1234;
  reply.esta_man = 0x4242;
  std::strncpy(reply.short_name, name.c_str(), sizeof reply.short_name - 1);
  reply.num_ports = static_cast<std::uint16_t>(universes.size());
  for (std::size_t i = 0; i < universes.size(); ++i) {
    reply.net_switch = static_cast<std::uint8_t>(universes[i] >> 8);
    reply.sub_switch = static_cast<std::uint8_t>(universes[i] >> 4 & 15);
    reply.sw_out[i] = static_cast<std::uint8_t>(universes[i] & 15);
    reply.port_types[i] = 0x85;
  }
  return reply;
}

/// The reply of the forged node with a number: universe 0, and a number for its address.
inline ArtPollReply forged(std::uint32_t number) {
  ArtPollReply reply = of(0, {0}, "forged");
  std::memcpy(reply.ip, &number, sizeof reply.ip);
  return reply;
}

}  // namespace replies
