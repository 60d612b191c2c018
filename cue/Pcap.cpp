#include "cue/Pcap.h"

#include <arpa/inet.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>

#include "artnet/ArtNet.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/RecordingInfo.h"
#include "cue/RecordingReader.h"
#include "cue/RecordingWriter.h"
#include "cue/Selection.h"
#include "cue/Time.h"

namespace cue {
namespace {

// Magic number of a pcap file whose times have nanoseconds (pcap-savefile(5)).
constexpr std::uint32_t kNanosecondMagic = 0xa1b23c4d;
constexpr std::uint32_t kSnapLength = 262144;

constexpr std::size_t kEthernetHeader = 14;
constexpr std::size_t kIpHeader = 20;
constexpr std::size_t kUdpHeader = 8;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint16_t kIpv4Type = 0x0800;
constexpr std::array<std::uint16_t, 3> kVlanTypes = {0x8100, 0x88A8, 0x9100};

using FrameHeader = std::array<std::uint8_t, kEthernetHeader + kIpHeader + kUdpHeader>;

void put(std::uint8_t* at, std::size_t value) {
  at[0] = static_cast<std::uint8_t>(value >> 8);
  at[1] = static_cast<std::uint8_t>(value);
}

std::uint16_t get(const std::uint8_t* at) {
  return static_cast<std::uint16_t>((at[0] << 8) | at[1]);
}

/// Checksum of an IPv4 header (RFC 791) whose checksum field is zero.
std::uint16_t checksum(const std::uint8_t* header) {
  std::uint32_t sum = 0;
  for (std::size_t at = 0; at < kIpHeader; at += 2) sum += get(header + at);
  while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

/// Ethernet, IPv4 and UDP headers of a broadcast in 2.0.0.0/8 with @p size bytes of payload.
FrameHeader frame_header(std::size_t size) {
  FrameHeader header = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,  // to everybody
                        0x02, 0x00, 0x00, 0x00, 0x00, 0x01,  // from a locally administered address
                        0x08, 0x00,                          // IPv4
                        0x45, 0x00, 0,    0,                 // version 4, 20 bytes; total length
                        0,    0,    0x40, 0x00,              // not to be fragmented
                        64,   kUdp, 0,    0,                 // time to live; checksum
                        2,    0,    0,    1,                 // from 2.0.0.1
                        2,    255,  255,  255,               // to 2.255.255.255
                        0,    0,    0,    0,                 // ports
                        0,    0,    0,    0};                // length; no checksum
  std::uint8_t* const ip = header.data() + kEthernetHeader;
  std::uint8_t* const udp = ip + kIpHeader;
  put(ip + 2, kIpHeader + kUdpHeader + size);
  put(ip + 10, checksum(ip));
  put(udp, kArtNetPort);
  put(udp + 2, kArtNetPort);
  put(udp + 4, kUdpHeader + size);
  return header;
}

/// The UDP datagram of a captured frame.
struct Captured {
  enum class Kind { Datagram, Other, Fragment, Cut } kind = Kind::Other;
  int port = 0;  // of the destination
  Bytes payload;
};

/// Type and offset of the packet in a link-layer frame; nothing when the frame is too short.
std::optional<std::pair<std::uint16_t, std::size_t>> network_layer(int link_type, const std::uint8_t* frame,
                                                                   std::size_t size) {
  using Found = std::pair<std::uint16_t, std::size_t>;
  switch (link_type) {
    case DLT_EN10MB: {
      std::size_t at = kEthernetHeader;
      if (size < at) return std::nullopt;
      std::uint16_t type = get(frame + at - 2);
      while (std::find(kVlanTypes.begin(), kVlanTypes.end(), type) != kVlanTypes.end()) {
        at += 4;
        if (size < at) return std::nullopt;
        type = get(frame + at - 2);
      }
      return Found{type, at};
    }
    case DLT_LINUX_SLL:
      if (size < 16) return std::nullopt;
      return Found{get(frame + 14), 16};
    case DLT_LINUX_SLL2:
      if (size < 20) return std::nullopt;
      return Found{get(frame), 20};
    case DLT_RAW:
    case DLT_IPV4:
      return Found{kIpv4Type, 0};
    case DLT_NULL:
    case DLT_LOOP:
      // The address family in the byte order of some host: 2 is IPv4 everywhere.
      if (size < 4) return std::nullopt;
      return Found{
          (frame[0] | frame[3]) == 2 && frame[1] == 0 && frame[2] == 0 ? kIpv4Type : std::uint16_t{0}, 4};
    default:
      return std::nullopt;
  }
}

bool is_known_link(int link_type) {
  constexpr std::array<int, 7> kKnown = {DLT_EN10MB, DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_RAW,
                                         DLT_IPV4,   DLT_NULL,      DLT_LOOP};
  return std::find(kKnown.begin(), kKnown.end(), link_type) != kKnown.end();
}

/// @param size  captured bytes of the frame
Captured decode(int link_type, const std::uint8_t* frame, std::size_t size) {
  Captured captured;
  const auto network = network_layer(link_type, frame, size);
  if (!network || network->first != kIpv4Type) return captured;
  const std::uint8_t* const ip = frame + network->second;
  size -= network->second;
  if (size < kIpHeader || ip[0] >> 4 != 4 || ip[9] != kUdp) return captured;
  const std::size_t header = static_cast<std::size_t>(ip[0] & 0x0F) * 4;
  const std::size_t total = get(ip + 2);
  if (header < kIpHeader || total < header + kUdpHeader) return captured;
  if ((get(ip + 6) & 0x3FFF) != 0) {
    captured.kind = Captured::Kind::Fragment;
    return captured;
  }
  if (size < header + kUdpHeader) return captured;
  const std::uint8_t* const udp = ip + header;
  const std::size_t length = get(udp + 4);
  captured.port = get(udp + 2);
  if (length < kUdpHeader || header + length > total) return captured;
  captured.kind = header + length > size ? Captured::Kind::Cut : Captured::Kind::Datagram;
  captured.payload = {udp + kUdpHeader, length - kUdpHeader};
  return captured;
}

struct PcapCloser {
  void operator()(pcap_t* capture) const { pcap_close(capture); }
};

}  // namespace

std::uint64_t export_pcap(const Input& file, const Output& output, const OnDamage& on_damage) {
  GoodRecords reader(file, on_damage);
  AtomicFile capture(output, {file});
  const pcap_file_header header{kNanosecondMagic, PCAP_VERSION_MAJOR, PCAP_VERSION_MINOR, 0, 0,
                                kSnapLength,      DLT_EN10MB};
  capture.write(&header, sizeof header);
  std::uint64_t count = 0;
  Record record;
  while (reader.next(record)) {
    const FrameHeader frame = frame_header(record.size);
    const std::int64_t seconds = record.time / kSecond;
    if (seconds > std::numeric_limits<std::uint32_t>::max())
      throw CueError(file.name() + ": byte " + std::to_string(record.offset) +
                     ": later than a capture can tell");
    const auto size = static_cast<std::uint32_t>(frame.size() + record.size);
    const std::array<std::uint32_t, 4> packet = {
        static_cast<std::uint32_t>(seconds), static_cast<std::uint32_t>(record.time % kSecond), size, size};
    capture.write(packet.data(), sizeof packet);
    capture.write(frame.data(), frame.size());
    capture.write(record.data, record.size);
    ++count;
  }
  capture.commit();
  return count;
}

Imported import_pcap(const Input& input, int port, const Output& output) {
  const std::string& capture = input.path();
  std::array<char, PCAP_ERRBUF_SIZE> error{};
  const std::unique_ptr<pcap_t, PcapCloser> pcap(
      pcap_open_offline_with_tstamp_precision(capture.c_str(), PCAP_TSTAMP_PRECISION_NANO, error.data()));
  if (!pcap) {
    // Some of libpcap's messages begin with the name of the file, others do not.
    const std::string text = error.data();
    throw CueError(text.rfind(capture, 0) == 0 ? text : capture + ": " + text);
  }
  const int link_type = pcap_datalink(pcap.get());
  if (!is_known_link(link_type))
    throw CueError(capture + ": frames of link type " + std::to_string(link_type) + " are not understood");

  RecordingWriter writer(output, {input});
  std::optional<std::int64_t> first;
  std::int64_t last = 0;
  Imported imported;
  pcap_pkthdr* frame = nullptr;
  const std::uint8_t* bytes = nullptr;
  int result = 0;
  while ((result = pcap_next_ex(pcap.get(), &frame, &bytes)) == 1) {
    const Captured captured = decode(link_type, bytes, frame->caplen);
    if (captured.kind == Captured::Kind::Fragment) ++imported.fragments;
    if (captured.kind == Captured::Kind::Other || captured.kind == Captured::Kind::Fragment ||
        captured.port != port)
      continue;
    if (captured.kind == Captured::Kind::Cut) {
      ++imported.cut_off;
      continue;
    }
    if (captured.payload.size > kLongestDatagram ||
        !shape_of(captured.payload.data, captured.payload.size).recordable()) {
      ++imported.refused;
      continue;
    }
    // With nanoseconds asked for, tv_usec holds them. A frame that lies before its predecessor counts as
    // simultaneous.
    const std::int64_t time = static_cast<std::int64_t>(frame->ts.tv_sec) * kSecond + frame->ts.tv_usec;
    if (!first) first = last = time;
    writer.add(captured.payload.data, captured.payload.size, std::max<std::int64_t>(0, time - last));
    last = std::max(last, time);
  }
  writer.commit();
  imported.datagrams = writer.datagrams();
  imported.duration = first ? last - *first : 0;
  if (result == PCAP_ERROR) imported.error = pcap_geterr(pcap.get());
  return imported;
}

}  // namespace cue
