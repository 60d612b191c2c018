#pragma once

#include <cstdint>
#include <string>

#include "artnet/ArtNet.h"

/// The packets that the service sends or writes, byte for byte.

/// The appliance as every ArtPollReply describes it.
struct NodeIdentity {
  std::string ip_hex;   // IPv4 address, 8 hexadecimal digits, first byte first
  std::string mac_hex;  // hardware address, 12 hexadecimal digits
  std::uint16_t oem = 0;
  std::uint16_t esta_man = 0;
  std::string short_name;  // UTF-8; 17 bytes are sent
  std::string long_name;   // UTF-8; 63 bytes are sent
};

/// ArtPoll of a node detection: protocol 14, replies wanted when node conditions change, diagnostics of low
/// priority.
ArtPoll make_art_poll();

/// ArtPollReply of one output and input port, in wire order, without its port-address. Unused bytes are zero,
/// and so is the byte of a pair of digits that does not scan.
ArtPollReply make_art_poll_reply(const NodeIdentity& identity);

/// Puts the port-address @p index (0..32767) into a reply in wire order. bind_index goes 1..255, then 0, and
/// round again.
void set_port_address(ArtPollReply& reply, std::int32_t index);

/// Delay record of a recording. @param nanoseconds  pause between the datagrams before and after it
ArtOemVfpsNs make_delay_record(std::int64_t nanoseconds);

/// Dotted decimal form of an address of 8 hexadecimal digits; a pair that does not scan counts as 0.
std::string dotted_address(const std::string& ip_hex);
