#include "artnet/ArtNetPackets.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

void set_header(ArtHeader& header, std::uint16_t opcode) {
  memcpy(header.id, kArtNetId, sizeof header.id);
  header.opcode = opcode;
}

void scan_ip(const std::string& hex, std::uint8_t (&ip)[4]) {
  sscanf(hex.c_str(), "%2hhx%2hhx%2hhx%2hhx", &ip[0], &ip[1], &ip[2], &ip[3]);
}

void scan_mac(const std::string& hex, std::uint8_t (&mac)[6]) {
  sscanf(hex.c_str(), "%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4], &mac[5]);
}

/// Copies a name into a zeroed field; the last byte stays zero.
template <std::size_t size>
void set_name(char (&field)[size], const std::string& name) {
  memcpy(field, name.c_str(), std::min(strlen(name.c_str()), size - 1));
}

}  // namespace

ArtPoll make_art_poll() {
  ArtPoll poll{};
  set_header(poll.header, OpPoll);
  poll.prot_ver_lo = 14;
  poll.flags = 0x02;
  poll.diag_priority = 0x10;
  return poll;
}

ArtPollReply make_art_poll_reply(const NodeIdentity& identity) {
  ArtPollReply reply{};
  set_header(reply.header, OpPollReply);
  scan_ip(identity.ip_hex, reply.ip);
  reply.port = kArtNetPort;
  reply.vers_info = swap_word(0x0100);
  reply.oem = swap_word(identity.oem);
  reply.esta_man = identity.esta_man;
  set_name(reply.short_name, identity.short_name);
  set_name(reply.long_name, identity.long_name);
  reply.num_ports = swap_word(1);
  reply.port_types[0] = 0xC5;  // can output and input, Art-Net protocol
  scan_mac(identity.mac_hex, reply.mac);
  memcpy(reply.bind_ip, reply.ip, sizeof reply.bind_ip);
  return reply;
}

void set_port_address(ArtPollReply& reply, std::int32_t index) {
  const auto address = static_cast<std::uint32_t>(index);
  reply.net_switch = static_cast<std::uint8_t>((address >> 8U) & 0x7FU);
  reply.sub_switch = static_cast<std::uint8_t>((address >> 4U) & 0x0FU);
  reply.sw_in[0] = static_cast<std::uint8_t>(address & 0x0FU);
  reply.sw_out[0] = static_cast<std::uint8_t>(address & 0x0FU);
  reply.bind_index = static_cast<std::uint8_t>((address & 0xFFU) + 1U);
}

ArtOemVfpsNs make_delay_record(std::int64_t nanoseconds) {
  ArtOemVfpsNs record{};
  set_header(record.header, OpOemVfpsNs);
  static_assert(sizeof nanoseconds == sizeof record.payload);
  memcpy(record.payload, &nanoseconds, sizeof record.payload);
  return record;
}

std::string dotted_address(const std::string& ip_hex) {
  std::uint8_t ip[4] = {};
  scan_ip(ip_hex, ip);
  char text[16] = {};
  snprintf(text, sizeof text, "%d.%d.%d.%d", ip[0], ip[1], ip[2], ip[3]);
  return text;
}
