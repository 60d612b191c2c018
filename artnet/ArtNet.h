#pragma once

#include <cstddef>
#include <cstdint>

/// Art-Net packets as they lie on the wire (Art-Net 4), and the arithmetic of universe addresses.
///
/// Every record can be filled by copying wire bytes into it. The parser converts fields marked "host order
/// once received"; all others stay as they arrived. The host is little-endian.

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "OpCodes and port-addresses are read in host order");

/// UDP port of Art-Net.
constexpr int kArtNetPort = 6454;

/// First eight bytes of every packet: "Art-Net" and a zero byte.
constexpr std::size_t kArtNetIdSize = 8;
constexpr char kArtNetId[kArtNetIdSize] = {'A', 'r', 't', '-', 'N', 'e', 't', '\0'};

/// Slots of one DMX universe.
constexpr std::size_t kDmxSlots = 512;

/// Universes that Art-Net can address: 15 bits of port-address.
constexpr int kUniverseLimit = 32768;

enum OpCode : std::uint16_t {
  OpPoll = 0x2000,
  OpPollReply = 0x2100,
  OpDmx = 0x5000,
  OpTrigger = 0x9900,
  // Private to this recorder and its recordings, not part of Art-Net.
  OpOemVfps = 0x00FF,
  OpOemVfpsNs = 0x00FE,
};

#pragma pack(push, 1)

struct ArtHeader {
  char id[kArtNetIdSize];
  std::uint16_t opcode;  // low byte first on the wire
};

struct ArtPoll {
  ArtHeader header;
  std::uint8_t prot_ver_hi;
  std::uint8_t prot_ver_lo;
  std::uint8_t flags;  // TalkToMe
  std::uint8_t diag_priority;
};

struct ArtPollReply {
  ArtHeader header;
  std::uint8_t ip[4];       // network order
  std::uint16_t port;       // low byte first on the wire
  std::uint16_t vers_info;  // host order once received
  std::uint8_t net_switch;  // bits 14..8 of the port-address
  std::uint8_t sub_switch;  // bits 7..4 of the port-address
  std::uint16_t oem;        // host order once received
  std::uint8_t ubea_version;
  std::uint8_t status1;
  std::uint16_t esta_man;  // low byte first on the wire
  char short_name[18];     // zero-terminated once received, like the two texts below
  char long_name[64];
  char node_report[64];
  std::uint16_t num_ports;  // host order once received
  std::uint8_t port_types[4];
  std::uint8_t good_input[4];
  std::uint8_t good_output[4];
  std::uint8_t sw_in[4];   // bits 3..0 of each input port's address
  std::uint8_t sw_out[4];  // bits 3..0 of each output port's address
  std::uint8_t sw_video;
  std::uint8_t sw_macro;
  std::uint8_t sw_remote;
  std::uint8_t spare[3];
  std::uint8_t style;
  std::uint8_t mac[6];
  std::uint8_t bind_ip[4];
  std::uint8_t bind_index;
  std::uint8_t status2;
  std::uint8_t filler[26];
};

struct ArtDmx {
  ArtHeader header;
  std::uint8_t prot_ver_hi;
  std::uint8_t prot_ver_lo;
  std::uint8_t sequence;
  std::uint8_t physical;
  std::uint16_t universe;        // port-address: SubUni byte, then Net byte
  std::uint16_t length;          // slots in data, host order once received
  std::uint8_t data[kDmxSlots];  // only the first `length` slots were received
};

struct ArtTrigger {
  ArtHeader header;
  std::uint16_t prot_ver;  // host order once received
  std::uint16_t filler;
  std::uint16_t oem_code;  // host order once received
  std::uint8_t key;
  std::uint8_t sub_key;
  std::uint8_t data[512];  // never read from the wire
};

struct ArtOemVfps {
  ArtHeader header;
  std::uint8_t payload[4];
};

/// Also the delay record of a recording; its payload is then nanoseconds, signed, 64 bits, little-endian.
struct ArtOemVfpsNs {
  ArtHeader header;
  std::uint8_t payload[8];
};

#pragma pack(pop)

static_assert(sizeof(ArtHeader) == 10);
static_assert(sizeof(ArtPoll) == 14);
static_assert(sizeof(ArtPollReply) == 239);
static_assert(sizeof(ArtDmx) == 530);
static_assert(sizeof(ArtTrigger) == 530);
static_assert(sizeof(ArtOemVfps) == 14);
static_assert(sizeof(ArtOemVfpsNs) == 18);

// Bytes read after the header; for ArtDmx and ArtTrigger only the fields before the data.
constexpr std::uint32_t kPollBody = sizeof(ArtPoll) - sizeof(ArtHeader);
constexpr std::uint32_t kPollReplyBody = sizeof(ArtPollReply) - sizeof(ArtHeader);
constexpr std::uint32_t kDmxFields = offsetof(ArtDmx, data) - sizeof(ArtHeader);
constexpr std::uint32_t kTriggerFields = offsetof(ArtTrigger, data) - sizeof(ArtHeader);

/// @p v with its two bytes exchanged.
constexpr std::uint16_t swap_word(std::uint16_t v) {
  return static_cast<std::uint16_t>((v << 8) | (v >> 8));
}

/// Switch bytes of a universe in their "program" form, bit 7 set on each (Art-Net 4, ArtAddress).
/// @param universe  1-based; 0 wraps to port-address 0x7FFF
void universe_to_addr(std::uint16_t universe, std::uint8_t& uni, std::uint8_t& subnet, std::uint8_t& net);

/// 1-based universe of plain switch values (bit 7 clear; it is not stripped).
std::uint16_t addr_to_universe(std::uint8_t uni, std::uint8_t subnet, std::uint8_t net);
