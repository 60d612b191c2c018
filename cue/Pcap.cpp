#include "cue/Pcap.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "artnet/ArtNet.h"
#include "cue/ByteOrder.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/Libpcap.h"
#include "cue/RecordingReader.h"
#include "cue/Sacn.h"
#include "cue/Selection.h"
#include "cue/Text.h"
#include "cue/Time.h"

namespace cue {
namespace {

// Magic numbers of the pcap files that libpcap reads: microseconds, nanoseconds (pcap-savefile(5)), and those
// of three patched versions that are still met.
constexpr std::uint32_t kNanosecondMagic = 0xa1b23c4d;
constexpr std::array<std::uint32_t, 5> kMagics = {0xa1b2c3d4, kNanosecondMagic, 0xa1b2cd34, 0xa1b234cd,
                                                  0xa12b3c4d};
constexpr std::uint32_t kSnapLength = 262144;

constexpr std::size_t kEthernetHeader = 14;
constexpr std::size_t kIpHeader = 20;
constexpr std::size_t kUdpHeader = 8;
constexpr std::uint8_t kUdp = 17;

constexpr std::size_t kBufferSize = std::size_t{256} * 1024;

using FrameHeader = std::array<std::uint8_t, kEthernetHeader + kIpHeader + kUdpHeader>;

/// Checksum of an IPv4 header (RFC 791) whose checksum field is zero.
std::uint16_t checksum(const std::uint8_t* header) {
  std::uint32_t sum = 0;
  for (std::size_t at = 0; at < kIpHeader; at += 2) sum += high_byte_first(header + at);
  while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

/// Ethernet, IPv4 and UDP headers of datagrams from 2.0.0.1 to everybody, without lengths and checksum.
/// @param port  of sender and receiver
FrameHeader broadcast_header(int port) {
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
  std::uint8_t* const udp = header.data() + kEthernetHeader + kIpHeader;
  put_high_byte_first(udp, static_cast<std::size_t>(port));
  put_high_byte_first(udp + 2, static_cast<std::size_t>(port));
  return header;
}

/// Turns the header to a multicast group; its Ethernet address holds the lower 23 bits (RFC 1112).
void send_to_group(FrameHeader& header, std::uint32_t group) {
  const std::array<std::uint8_t, 6> ethernet = {0x01,
                                                0x00,
                                                0x5E,
                                                static_cast<std::uint8_t>(group >> 16 & 0x7F),
                                                static_cast<std::uint8_t>(group >> 8),
                                                static_cast<std::uint8_t>(group)};
  std::copy(ethernet.begin(), ethernet.end(), header.begin());
  put_high_byte_first(header.data() + kEthernetHeader + 16, group >> 16);
  put_high_byte_first(header.data() + kEthernetHeader + 18, group);
}

/// Writes a capture with one Ethernet frame for each datagram.
class PcapWriter {
public:
  PcapWriter(const Input& file, const Output& output) : input(file), capture(output, {file}) {
    const pcap_file_header header{kNanosecondMagic, PCAP_VERSION_MAJOR, PCAP_VERSION_MINOR, 0, 0,
                                  kSnapLength,      DLT_EN10MB};
    capture.write(&header, sizeof header);
  }

  /// @param record  whose time the frame gets
  void add(const Record& record, FrameHeader header, const Bytes& payload) {
    const std::int64_t seconds = record.time / kSecond;
    if (seconds > std::numeric_limits<std::uint32_t>::max())
      throw CueError(input.name() + ": byte " + std::to_string(record.offset) +
                     ": later than a capture can tell");
    std::uint8_t* const ip = header.data() + kEthernetHeader;
    put_high_byte_first(ip + 2, kIpHeader + kUdpHeader + payload.size);
    put_high_byte_first(ip + 10, checksum(ip));
    put_high_byte_first(ip + kIpHeader + 4, kUdpHeader + payload.size);
    const auto size = static_cast<std::uint32_t>(header.size() + payload.size);
    const std::array<std::uint32_t, 4> packet = {
        static_cast<std::uint32_t>(seconds), static_cast<std::uint32_t>(record.time % kSecond), size, size};
    capture.write(packet.data(), sizeof packet);
    capture.write(header.data(), header.size());
    capture.write(payload.data, payload.size);
    ++exported.datagrams;
  }

  Exported commit() {
    capture.commit();
    return exported;
  }

  /// "2 datagrams WHAT", when there are any.
  void lost(std::uint64_t number, const char* of, const char* what) {
    if (number > 0) exported.losses.push_back(counted(number, of) + " " + what);
  }

private:
  const Input& input;
  AtomicFile capture;
  Exported exported;
};

/// The sender of exported E1.31: a UUID of version 8, whose bits are free (RFC 9562).
SacnSource export_source() {
  SacnSource source;
  source.cid = {'k', 'a', 'd', 'r', 'e', 'l', 0x80, 'c', 0x80, 'e', 'x', 'p', 'o', 'r', 't', 1};
  source.name = "kadrel-cue";
  return source;
}

/// Makes an E1.31 packet of each ArtDmx.
class SacnExport {
public:
  SacnExport(const Input& file, const Output& output)
      : pcap(file, output),
        builder(export_source()),
        header(broadcast_header(kSacnPort)),
        pairs(UniverseSet::kPortAddresses) {}

  void add(const Record& record) {
    std::size_t dmx_bytes = 0;
    for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
      dmx_bytes += packet.end() - packet.offset;
      add(record, packet);
    });
    if (dmx_bytes != record.size) ++with_more;
  }

  Exported commit() {
    pcap.lost(above, "packet", "of universes above 63999 left out");
    pcap.lost(empty, "packet", "without slots left out");
    pcap.lost(with_more, "datagram", "with more than ArtDmx packets: the rest left out");
    pcap.lost(physical, "packet", "with a physical port, which E1.31 does not tell");
    pcap.lost(uncounted, "packet", "of senders that do not count: counted");
    return pcap.commit();
  }

private:
  void add(const Record& record, const DmxPacket& packet) {
    if (packet.port_address >= kSacnUniverseLimit) {
      ++above;
      return;
    }
    if (packet.slots == 0) {
      ++empty;
      return;
    }
    const std::uint8_t sequence = record.data[packet.offset + offsetof(ArtDmx, sequence)];
    if (sequence == 0) ++uncounted;
    if (record.data[packet.offset + offsetof(ArtDmx, physical)] != 0) ++physical;
    std::optional<SequencePair>& pair = pairs[packet.port_address];
    pair = pair_of_artnet(pair, sequence);
    SacnData data;
    data.universe = static_cast<std::uint16_t>(packet.port_address + 1);
    data.sequence = pair->sacn;
    data.slots = {record.data + packet.offset + kDmxHeaderSize, packet.slots};
    send_to_group(header, sacn_group(data.universe));
    pcap.add(record, header, builder.packet(data));
  }

  PcapWriter pcap;
  SacnBuilder builder;
  FrameHeader header;
  std::vector<std::optional<SequencePair>> pairs;  // by port-address
  std::uint64_t above = 0;
  std::uint64_t empty = 0;
  std::uint64_t with_more = 0;
  std::uint64_t physical = 0;
  std::uint64_t uncounted = 0;
};

/// Reads a capture through libpcap, which in turn reads from a ByteSource.
class PcapReader : public FrameSource {
public:
  PcapReader(ByteSource source, const std::string& name) : from(std::move(source)), buffer(kBufferSize) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(
        fopencookie(this, "r", {&PcapReader::read, nullptr, nullptr, nullptr}), &fclose);
    if (!file) throw CueError(name + ": out of memory");
    setvbuf(file.get(), buffer.data(), _IOFBF, buffer.size());
    std::array<char, PCAP_ERRBUF_SIZE> text{};
    pcap.reset(pcap_fopen_offline_with_tstamp_precision(file.get(), PCAP_TSTAMP_PRECISION_NANO, text.data()));
    if (failure) std::rethrow_exception(failure);
    if (!pcap) throw CueError(name + ": " + text.data());
    // Closed by libpcap from now on.
    static_cast<void>(file.release());
    link_type = pcap_datalink(pcap.get());
  }

  bool next(Frame& frame) override {
    pcap_pkthdr* header = nullptr;
    const std::uint8_t* bytes = nullptr;
    const int result = pcap_next_ex(pcap.get(), &header, &bytes);
    if (failure) std::rethrow_exception(failure);
    if (result == PCAP_ERROR) error = pcap_geterr(pcap.get());
    if (result != 1) return false;
    frame.link_type = link_type;
    frame.interface = 0;
    frame.bytes = {bytes, header->caplen};
    frame.time = packet_time(header->ts);
    return true;
  }

  std::string breaks_off() const override { return error; }

private:
  struct Closer {
    void operator()(pcap_t* capture) const { pcap_close(capture); }
  };

  /// For stdio. An exception cannot pass through it, and is kept.
  static ssize_t read(void* self, char* bytes, std::size_t size) {
    auto* const reader = static_cast<PcapReader*>(self);
    try {
      return static_cast<ssize_t>(reader->from(reinterpret_cast<std::uint8_t*>(bytes), size));
    } catch (...) {
      reader->failure = std::current_exception();
      return -1;
    }
  }

  ByteSource from;
  std::vector<char> buffer;
  std::exception_ptr failure;
  std::unique_ptr<pcap_t, Closer> pcap;
  int link_type = 0;
  std::string error;
};

}  // namespace

Exported export_pcap(const Input& file, const Output& output, const OnDamage& on_damage) {
  GoodRecords records(file, on_damage);
  PcapWriter pcap(file, output);
  const FrameHeader header = broadcast_header(kArtNetPort);
  Record record;
  while (records.next(record)) pcap.add(record, header, {record.data, record.size});
  return pcap.commit();
}

Exported export_pcap_sacn(const Input& file, const Output& output, const OnDamage& on_damage) {
  GoodRecords records(file, on_damage);
  SacnExport sacn(file, output);
  Record record;
  while (records.next(record)) sacn.add(record);
  return sacn.commit();
}

bool begins_pcap(const std::uint8_t* head, std::size_t size) {
  std::uint32_t magic = 0;
  if (size < sizeof magic) return false;
  memcpy(&magic, head, sizeof magic);
  return std::any_of(kMagics.begin(), kMagics.end(), [magic](std::uint32_t known) {
    return magic == known || magic == __builtin_bswap32(known);
  });
}

std::unique_ptr<FrameSource> open_pcap(ByteSource source, const std::string& name) {
  return std::make_unique<PcapReader>(std::move(source), name);
}

}  // namespace cue
