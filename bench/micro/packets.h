#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "artnet/ArtNet.h"

/// Datagrams for the micro-benchmarks.
namespace micro {

using Datagram = std::vector<char>;

template <typename Record>
Datagram datagram_of(Record record, std::uint16_t opcode) {
  std::memcpy(record.header.id, kArtNetId, kArtNetIdSize);
  record.header.opcode = opcode;
  const auto* const bytes = reinterpret_cast<const char*>(&record);
  return {bytes, bytes + sizeof record};
}

/// A full ArtDmx of a port-address; slots are all 0x55.
inline Datagram art_dmx(int port_address, std::uint16_t length = kDmxSlots) {
  ArtDmx dmx{};
  dmx.prot_ver_lo = 14;
  dmx.universe = static_cast<std::uint16_t>(port_address);
  dmx.length = swap_word(length);
  std::memset(dmx.data, 0x55, sizeof dmx.data);
  return datagram_of(dmx, OpDmx);
}

inline Datagram art_poll() {
  ArtPoll poll{};
  poll.prot_ver_lo = 14;
  return datagram_of(poll, OpPoll);
}

/// Reply of node @p number, one accepted port, as it goes over the wire.
inline Datagram art_poll_reply(int number) {
  ArtPollReply reply{};
  reply.ip[0] = 10;
  reply.ip[2] = static_cast<std::uint8_t>(number / 256);
  reply.ip[3] = static_cast<std::uint8_t>(number % 256);
  reply.port = kArtNetPort;
  reply.oem = 0x1234;       // neither the appliance's
  reply.esta_man = 0x4242;  // nor its maker
  reply.num_ports = swap_word(1);
  reply.port_types[0] = 0x80;
  reply.sw_out[0] = static_cast<std::uint8_t>(number % 16);
  const std::string name = "node " + std::to_string(number);
  std::strncpy(reply.short_name, name.c_str(), sizeof reply.short_name - 1);
  std::strncpy(reply.long_name, name.c_str(), sizeof reply.long_name - 1);
  return datagram_of(reply, OpPollReply);
}

/// The same for nodes at one address whose long names, up to number 32767, have one value in every hash that
/// multiplies by 31 ("Aa" and "BB" have): what a forger would send.
inline Datagram colliding_reply(int number) {
  Datagram reply = art_poll_reply(0);
  char* const name = &reply[offsetof(ArtPollReply, long_name)];
  for (int bit = 0; bit < 15; ++bit) std::memcpy(name + 2 * bit, (number >> bit & 1) != 0 ? "BB" : "Aa", 2);
  return reply;
}

}  // namespace micro
