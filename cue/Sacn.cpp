#include "cue/Sacn.h"

#include <algorithm>
#include <cstring>

#include "artnet/ArtNet.h"
#include "cue/ByteOrder.h"
#include "cue/CueError.h"

namespace cue {
namespace {

// Preamble of the root layer (E1.31, 5.1 to 5.3).
constexpr std::array<std::uint8_t, 16> kPreamble = {0x00, 0x10, 0x00, 0x00, 'A', 'S', 'C', '-',
                                                    'E',  '1',  '.',  '1',  '7', 0,   0,   0};

// Layers of a data packet: each begins with its flags and length.
constexpr std::size_t kRoot = 16;
constexpr std::size_t kFraming = 38;
constexpr std::size_t kDmp = 115;

// Fields.
constexpr std::size_t kVector = 2;  // in the root and framing layers
constexpr std::size_t kCid = 22;
constexpr std::size_t kName = 44;
constexpr std::size_t kPriority = 108;
constexpr std::size_t kSyncUniverse = 109;
constexpr std::size_t kSequence = 111;
constexpr std::size_t kOptions = 112;
constexpr std::size_t kUniverse = 113;
constexpr std::size_t kAddressing = 117;
constexpr std::size_t kValueCount = 123;
constexpr std::size_t kStartCode = 125;

// Vectors.
constexpr std::uint32_t kRootData = 0x00000004;
constexpr std::uint32_t kRootExtended = 0x00000008;
constexpr std::uint32_t kFramingData = 0x00000002;
constexpr std::uint32_t kFramingSync = 0x00000001;
constexpr std::uint32_t kFramingDiscovery = 0x00000002;

// Set property; type of address and data; first address; increment.
constexpr std::array<std::uint8_t, 6> kSetSlots = {0x02, 0xA1, 0x00, 0x00, 0x00, 0x01};

constexpr std::uint16_t kFlags = 0x7000;
constexpr std::uint16_t kLengthMask = 0x0FFF;
constexpr std::uint8_t kPreview = 0x80;
constexpr std::uint8_t kTerminated = 0x40;

/// Bytes of @p name that fit, without half a character at the end.
std::size_t fitting(const std::string& name) {
  if (name.size() <= kSacnNameSize) return name.size();
  std::size_t size = kSacnNameSize;
  while (size > 0 && (static_cast<std::uint8_t>(name[size]) & 0xC0) == 0x80) --size;
  return size;
}

/// End of the layer that begins at @p layer; 0 when its flags or length do not hold.
/// @param need  bytes that it has at least
std::size_t end_of_layer(const std::uint8_t* bytes, std::size_t layer, std::size_t need, std::size_t end) {
  if (layer > end || end - layer < need) return 0;
  const std::uint16_t word = high_byte_first(bytes + layer);
  const std::size_t length = word & kLengthMask;
  if ((word & ~kLengthMask) != kFlags || length < need || length > end - layer) return 0;
  return layer + length;
}

/// The framing and DMP layers of a data packet. @param end  of the root layer
SacnKind parse_data(const std::uint8_t* bytes, std::size_t end, SacnData& data) {
  end = end_of_layer(bytes, kFraming, kDmp - kFraming, end);
  if (end == 0) return SacnKind::Broken;
  if (high_byte_first_long(bytes + kFraming + kVector) != kFramingData) return SacnKind::Other;
  end = end_of_layer(bytes, kDmp, kStartCode + 1 - kDmp, end);
  if (end == 0) return SacnKind::Broken;
  if (!std::equal(kSetSlots.begin(), kSetSlots.end(), bytes + kAddressing)) return SacnKind::Broken;
  const std::size_t values = high_byte_first(bytes + kValueCount);
  if (values < 1 || values > 1 + kDmxSlots || values > end - kStartCode) return SacnKind::Broken;
  data.universe = high_byte_first(bytes + kUniverse);
  if (data.universe < 1 || data.universe > kSacnUniverseLimit) return SacnKind::Broken;
  data.sync_universe = high_byte_first(bytes + kSyncUniverse);
  data.sequence = bytes[kSequence];
  data.priority = bytes[kPriority];
  data.start_code = bytes[kStartCode];
  data.preview = (bytes[kOptions] & kPreview) != 0;
  data.terminated = (bytes[kOptions] & kTerminated) != 0;
  data.slots = {bytes + kSacnHeaderSize, values - 1};
  const std::uint8_t* const name = bytes + kName;
  data.name = {name, static_cast<std::size_t>(std::find(name, bytes + kPriority, 0) - name)};
  return SacnKind::Data;
}

SacnKind parse_extended(const std::uint8_t* bytes, std::size_t end) {
  if (end_of_layer(bytes, kFraming, kVector + sizeof(std::uint32_t), end) == 0) return SacnKind::Broken;
  switch (high_byte_first_long(bytes + kFraming + kVector)) {
    case kFramingSync:
      return SacnKind::Sync;
    case kFramingDiscovery:
      return SacnKind::Discovery;
    default:
      return SacnKind::Other;
  }
}

}  // namespace

SacnBuilder::SacnBuilder(const SacnSource& source) {
  std::copy(kPreamble.begin(), kPreamble.end(), bytes.begin());
  bytes[kRoot + kVector + 3] = kRootData;
  std::copy(source.cid.begin(), source.cid.end(), bytes.begin() + kCid);
  bytes[kFraming + kVector + 3] = kFramingData;
  memcpy(bytes.data() + kName, source.name.data(), fitting(source.name));
  bytes[kPriority] = source.priority;
  std::copy(kSetSlots.begin(), kSetSlots.end(), bytes.begin() + kAddressing);
}

Bytes SacnBuilder::packet(const SacnData& data) {
  if (data.universe < 1 || data.universe > kSacnUniverseLimit)
    throw CueError("E1.31 has no universe " + std::to_string(data.universe));
  if (data.slots.size < 1 || data.slots.size > kDmxSlots)
    throw CueError("E1.31 cannot carry " + std::to_string(data.slots.size) + " slots");
  const std::size_t size = kSacnHeaderSize + data.slots.size;
  for (const std::size_t layer : {kRoot, kFraming, kDmp})
    put_high_byte_first(bytes.data() + layer, kFlags | (size - layer));
  put_high_byte_first(bytes.data() + kSyncUniverse, data.sync_universe);
  bytes[kSequence] = data.sequence;
  bytes[kOptions] =
      static_cast<std::uint8_t>((data.preview ? kPreview : 0) | (data.terminated ? kTerminated : 0));
  put_high_byte_first(bytes.data() + kUniverse, data.universe);
  put_high_byte_first(bytes.data() + kValueCount, 1 + data.slots.size);
  bytes[kStartCode] = data.start_code;
  memcpy(bytes.data() + kSacnHeaderSize, data.slots.data, data.slots.size);
  return {bytes.data(), size};
}

bool begins_sacn(const std::uint8_t* bytes, std::size_t size) {
  return size >= kPreamble.size() && std::equal(kPreamble.begin(), kPreamble.end(), bytes);
}

namespace {

constexpr int kArtNetCycle = 255;

/// @param number  1..255
std::uint8_t artnet_after(std::uint8_t number, int step) {
  const int from_zero = (number - 1 + step) % kArtNetCycle;
  return static_cast<std::uint8_t>(1 + (from_zero + kArtNetCycle) % kArtNetCycle);
}

}  // namespace

SequencePair pair_of_sacn(const std::optional<SequencePair>& last, std::uint8_t sacn) {
  if (!last) return {artnet_after(1, sacn - 1), sacn};
  const auto step = static_cast<std::int8_t>(sacn - last->sacn);
  return {artnet_after(last->artnet, step), sacn};
}

SequencePair pair_of_artnet(const std::optional<SequencePair>& last, std::uint8_t artnet) {
  if (!last) return artnet == 0 ? SequencePair{1, 1} : SequencePair{artnet, artnet};
  if (artnet == 0) artnet = artnet_after(last->artnet, 1);
  // The shorter way round.
  int step = (artnet - last->artnet + kArtNetCycle) % kArtNetCycle;
  if (step > kArtNetCycle / 2) step -= kArtNetCycle;
  return {artnet, static_cast<std::uint8_t>(last->sacn + step)};
}

SacnPacket parse_sacn(const std::uint8_t* bytes, std::size_t size) {
  SacnPacket packet;
  if (!begins_sacn(bytes, size)) return packet;
  const std::size_t end = end_of_layer(bytes, kRoot, kFraming - kRoot, size);
  if (end == 0) return packet;
  std::copy(bytes + kCid, bytes + kFraming, packet.cid.begin());
  switch (high_byte_first_long(bytes + kRoot + kVector)) {
    case kRootData:
      packet.kind = parse_data(bytes, end, packet.data);
      break;
    case kRootExtended:
      packet.kind = parse_extended(bytes, end);
      break;
    default:
      packet.kind = SacnKind::Other;
  }
  return packet;
}

}  // namespace cue
