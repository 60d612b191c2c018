#include "cue/Frames.h"

#include <algorithm>
#include <array>
#include <utility>

#include "cue/ByteOrder.h"

namespace cue {
namespace {

// Link types (pcap-linktype(7)).
constexpr int kNull = 0;
constexpr int kEthernet = 1;
constexpr int kPpp = 9;
constexpr int kPppHdlc = 50;
constexpr int kRaw = 101;
constexpr int kLoop = 108;
constexpr int kLinuxSll = 113;
constexpr int kIpv4 = 228;
constexpr int kIpv6 = 229;
constexpr int kLinuxSll2 = 276;
// Raw IP in the numbers of Linux and of OpenBSD, which libpcap hands on.
constexpr std::array<int, 2> kOtherRaw = {12, 14};

constexpr std::uint16_t kIpv4Type = 0x0800;
constexpr std::uint16_t kIpv6Type = 0x86DD;
constexpr std::uint16_t kOtherType = 0;
constexpr std::array<std::uint16_t, 3> kVlanTypes = {0x8100, 0x88A8, 0x9100};
constexpr std::uint16_t kPppIpv4 = 0x0021;
constexpr std::uint16_t kPppIpv6 = 0x0057;

constexpr std::uint8_t kUdp = 17;
constexpr std::size_t kIpv4Header = 20;
constexpr std::size_t kIpv6Header = 40;
constexpr std::size_t kUdpHeader = 8;
constexpr std::uint16_t kMoreFragments = 0x2000;
constexpr std::uint16_t kFragmentOffset = 0x1FFF;

/// The packet in a frame.
struct Packet {
  bool known = true;  // the link type is understood
  bool whole = true;  // the frame is long enough
  std::uint16_t type = kOtherType;
  std::size_t at = 0;
};

constexpr Packet kTooShort{true, false, kOtherType, 0};

/// Whether a frame goes to everybody or to a group.
bool goes_to_many(int link_type, const Bytes& frame) {
  // Kind of receiver in the headers of Linux (pcap-linktype(7)): 1 everybody, 2 a group.
  const auto is_kind_of_many = [](unsigned kind) { return kind == 1 || kind == 2; };
  switch (link_type) {
    case kEthernet:
      return frame.size > 0 && (frame.data[0] & 1) != 0;
    case kLinuxSll:
      return frame.size > 1 && is_kind_of_many(high_byte_first(frame.data));
    case kLinuxSll2:
      return frame.size > 10 && is_kind_of_many(frame.data[10]);
    default:
      return false;
  }
}

/// A packet whose type stands at @p type_at, with VLAN tags before it perhaps.
Packet behind_header(const Bytes& frame, std::size_t type_at, std::size_t header) {
  if (frame.size < header) return kTooShort;
  std::uint16_t type = high_byte_first(frame.data + type_at);
  while (std::find(kVlanTypes.begin(), kVlanTypes.end(), type) != kVlanTypes.end()) {
    header += 4;
    if (frame.size < header) return kTooShort;
    type = high_byte_first(frame.data + header - 2);
  }
  return {true, true, type, header};
}

Packet raw_packet(const Bytes& frame) {
  if (frame.size == 0) return kTooShort;
  switch (frame.data[0] >> 4) {
    case 4:
      return {true, true, kIpv4Type, 0};
    case 6:
      return {true, true, kIpv6Type, 0};
    default:
      return {};
  }
}

/// Behind an address family in the byte order of some host: 2 is IPv4 everywhere, IPv6 has many numbers.
Packet loopback_packet(const Bytes& frame) {
  if (frame.size < 4) return kTooShort;
  const bool is_small = frame.data[1] == 0 && frame.data[2] == 0;
  const int family = frame.data[0] | frame.data[3];
  constexpr std::array<int, 4> kIpv6Families = {10, 24, 28, 30};
  std::uint16_t type = kOtherType;
  if (is_small && family == 2) type = kIpv4Type;
  if (is_small && std::find(kIpv6Families.begin(), kIpv6Families.end(), family) != kIpv6Families.end())
    type = kIpv6Type;
  return {true, true, type, 4};
}

/// Behind address and control bytes, if they are there, and one or two bytes of protocol (RFC 1661, 1662).
Packet ppp_packet(const Bytes& frame) {
  std::size_t at = frame.size >= 2 && frame.data[0] == 0xFF && frame.data[1] == 0x03 ? 2 : 0;
  if (frame.size < at + 2) return kTooShort;
  const bool is_short = (frame.data[at] & 1) != 0;
  const std::uint16_t protocol = is_short ? frame.data[at] : high_byte_first(frame.data + at);
  at += is_short ? 1 : 2;
  if (protocol == kPppIpv4) return {true, true, kIpv4Type, at};
  return {true, true, protocol == kPppIpv6 ? kIpv6Type : kOtherType, at};
}

Packet packet_in(int link_type, const Bytes& frame) {
  switch (link_type) {
    case kEthernet:
      return behind_header(frame, 12, 14);
    case kLinuxSll:
      return behind_header(frame, 14, 16);
    case kLinuxSll2:
      return behind_header(frame, 0, 20);
    case kRaw:
    case kOtherRaw[0]:
    case kOtherRaw[1]:
    case kIpv4:
    case kIpv6:
      return raw_packet(frame);
    case kNull:
    case kLoop:
      return loopback_packet(frame);
    case kPpp:
    case kPppHdlc:
      return ppp_packet(frame);
    default:
      return {false, true, kOtherType, 0};
  }
}

bool is_ipv6_udp(const Bytes& packet) {
  return packet.size >= kIpv6Header && packet.data[6] == kUdp;
}

}  // namespace

std::optional<UdpDatagram> FrameDecoder::decode(const Frame& frame) {
  ++count.frames;
  if (frame.time) last_time = *frame.time;
  const Packet packet = packet_in(frame.link_type, frame.bytes);
  if (!packet.known) {
    ++count.link_types[frame.link_type];
    return std::nullopt;
  }
  const Bytes bytes{frame.bytes.data + packet.at, frame.bytes.size - packet.at};
  if (packet.whole && packet.type == kIpv4Type) {
    std::optional<UdpDatagram> datagram = ipv4(frame, bytes);
    if (datagram) datagram->to_many = goes_to_many(frame.link_type, frame.bytes);
    return datagram;
  }
  if (!packet.whole)
    ++count.broken;
  else if (packet.type == kIpv6Type && is_ipv6_udp(bytes))
    ++count.ipv6_udp;
  else
    ++count.without_udp;
  return std::nullopt;
}

/// @param packet  as many bytes as were captured
std::optional<UdpDatagram> FrameDecoder::ipv4(const Frame& frame, Bytes packet) {
  const std::uint8_t* const ip = packet.data;
  const std::size_t header = packet.size == 0 ? 0 : static_cast<std::size_t>(ip[0] & 0x0F) * 4;
  if (packet.size < kIpv4Header || ip[0] >> 4 != 4 || header < kIpv4Header || packet.size < header) {
    ++count.broken;
    return std::nullopt;
  }
  if (ip[9] != kUdp) {
    ++count.without_udp;
    return std::nullopt;
  }
  const std::size_t total = high_byte_first(ip + 2);
  if (total < header) {
    ++count.broken;
    return std::nullopt;
  }
  const std::size_t size = total - header;
  Bytes payload{ip + header, std::min(size, packet.size - header)};
  const std::uint16_t place = high_byte_first(ip + 6);
  if ((place & (kMoreFragments | kFragmentOffset)) == 0) return udp(ip, payload, size);

  ++count.fragments;
  if (payload.size < size) {
    ++count.cut_fragments;
    return std::nullopt;
  }
  Fragment fragment;
  fragment.sender = high_byte_first_long(ip + 12);
  fragment.receiver = high_byte_first_long(ip + 16);
  fragment.id = high_byte_first(ip + 4);
  fragment.interface = frame.interface;
  fragment.offset = static_cast<std::size_t>(place & kFragmentOffset) * 8;
  fragment.last = (place & kMoreFragments) == 0;
  fragment.bytes = payload;
  fragment.time = last_time;
  const std::optional<Bytes> whole = fragments.add(fragment);
  return whole ? udp(ip, *whole, whole->size) : std::nullopt;
}

/// @param ip        the header of the packet, or of a fragment
/// @param captured  beginning of the datagram with its header
/// @param size      bytes of all of it
std::optional<UdpDatagram> FrameDecoder::udp(const std::uint8_t* ip, const Bytes& captured,
                                             std::size_t size) {
  const std::size_t length = captured.size < kUdpHeader ? 0 : high_byte_first(captured.data + 4);
  if (length < kUdpHeader || length > size) {
    ++count.broken;
    return std::nullopt;
  }
  UdpDatagram datagram;
  datagram.sender = high_byte_first_long(ip + 12);
  datagram.receiver = high_byte_first_long(ip + 16);
  datagram.port = high_byte_first(captured.data + 2);
  datagram.cut = length > captured.size;
  datagram.payload = {captured.data + kUdpHeader, std::min(length, captured.size) - kUdpHeader};
  return datagram;
}

}  // namespace cue
