#include "cue/DatagramBounds.h"

#include <algorithm>
#include <cstring>

#include "artnet/ArtNet.h"
#include "artnet/ArtNetPackets.h"
#include "artnet/RecordingFormat.h"
#include "cue/DatagramWalk.h"

namespace cue {
namespace {

constexpr std::size_t kDmxSlotsOffset = offsetof(ArtDmx, length);

// A sender that rounds its packets up to a multiple of 2 or 4 adds so many zero bytes.
constexpr std::size_t kMostZeros = 3;

// An Ethernet frame: no packet of a sender is longer.
constexpr std::size_t kLongestOther = 1500;

// Art-Net 4, table 1: the OpCodes begin with OpPoll, and those that senders of ArtDmx use have the low byte
// 0.
constexpr std::uint16_t kLowestOpCode = OpPoll;
constexpr std::uint16_t kLowByte = 0x00FF;

// Art-Net 4, "Protocol Version": 14 or more, high byte first, in all packets but the ArtPollReply.
constexpr std::size_t kVersionOffset = kArtHeaderSize;
constexpr std::uint8_t kLowestVersion = 14;

/// Identifier and OpCode of a packet as two numbers that compare at once.
struct HeaderNumbers {
  std::uint64_t id = 0;
  std::uint16_t opcode = 0;

  explicit HeaderNumbers(const std::uint8_t* bytes) {
    memcpy(&id, bytes, sizeof id);
    memcpy(&opcode, bytes + sizeof id, sizeof opcode);
  }
  bool is(std::uint16_t wanted) const { return id == artnet_id() && opcode == wanted; }
  bool is_packet() const { return id == artnet_id(); }

  static std::uint64_t artnet_id() {
    std::uint64_t number = 0;
    memcpy(&number, kArtNetId, sizeof number);
    return number;
  }
};

/// How many of the @p size bytes are the same.
std::size_t alike(const std::uint8_t* a, const void* b, std::size_t size) {
  const auto* const other = static_cast<const std::uint8_t*>(b);
  std::size_t count = 0;
  for (std::size_t i = 0; i < size; ++i) count += a[i] == other[i] ? 1 : 0;
  return count;
}

/// Whether nearly an identifier stands anywhere in the bytes: two bytes of it may differ, so that one of its
/// first three is there.
bool holds_damaged_identifier(const std::uint8_t* bytes, std::size_t size) {
  for (std::size_t letter = 0; letter < 3; ++letter) {
    for (std::size_t at = letter; at < size; ++at) {
      const void* const found = memchr(bytes + at, kArtNetId[letter], size - at);
      if (found == nullptr) break;
      at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - bytes);
      const std::size_t begin = at - letter;
      if (begin + kArtNetIdSize <= size &&
          alike(bytes + begin, kArtNetId, kArtNetIdSize) + 2 >= kArtNetIdSize)
        return true;
    }
  }
  return false;
}

/// The bytes of a file from some place on.
struct Rest {
  const std::uint8_t* bytes;
  std::size_t size;

  Rest from(std::size_t at) const { return {bytes + at, size - at}; }
  bool is_beginning_of(const void* whole, std::size_t whole_size) const {
    return size < whole_size && memcmp(bytes, whole, size) == 0;
  }
};

/// Whether a packet begins as those of Art-Net do.
bool begins_packet(const Rest& rest) {
  if (rest.size < kVersionOffset + 2) return false;
  const HeaderNumbers header(rest.bytes);
  if (!header.is_packet() || header.opcode < kLowestOpCode || (header.opcode & kLowByte) != 0) return false;
  const std::uint8_t* const version = rest.bytes + kVersionOffset;
  return header.opcode == OpDmx || header.opcode == OpPollReply ||
         (version[0] == 0 && version[1] >= kLowestVersion);
}

/// What stands at the end of a packet; another packet counts as Behind::Unknown.
Behind look(const Rest& rest) {
  if (rest.size == 0) return Behind::End;
  const ArtHeader delay = make_delay_record(0).header;
  if (rest.size < kDelaySize && memcmp(rest.bytes, &delay, std::min(rest.size, kArtHeaderSize)) == 0)
    return Behind::CutDelay;
  if (rest.size >= kDelaySize && begins_delay(rest.bytes)) return Behind::Delay;
  if (begins_packet(rest)) return Behind::Unknown;
  if (rest.size >= kDelaySize && begins_damaged_delay(rest.bytes)) return Behind::DamagedDelay;
  return rest.bytes[0] == 0 ? Behind::Zeros : Behind::Unknown;
}

bool ends_datagram(const Rest& rest) {
  return DatagramBounds{0, look(rest)}.ends_well();
}

/// Bytes that a sender has added to the ArtDmx of @p size bytes: zeros up to a multiple of 2 or 4, or what
/// was in its buffer of the full size.
std::size_t padding_of(const Rest& rest, std::size_t size) {
  if (ends_datagram(rest.from(size)) || begins_packet(rest.from(size))) return 0;
  for (std::size_t zeros = 1; zeros <= kMostZeros; ++zeros) {
    const std::size_t padded = size + zeros;
    if (padded > rest.size || rest.bytes[padded - 1] != 0) break;
    if (ends_datagram(rest.from(padded)) || begins_packet(rest.from(padded))) return zeros;
  }
  constexpr std::size_t kFull = sizeof(ArtDmx);
  if (size < kFull && kFull <= rest.size && ends_datagram(rest.from(kFull)) &&
      !holds_damaged_identifier(rest.bytes + size, kFull - size))
    return kFull - size;
  return 0;
}

/// Size of the packet at @p rest that is no ArtDmx: it goes on to the next identifier, as its length is
/// another in each version of the protocol. 0 when it is too long, or an ArtDmx of too many slots.
std::size_t other_size(const Rest& rest) {
  if (HeaderNumbers(rest.bytes).is(OpDmx)) return 0;
  for (std::size_t at = kVersionOffset + 2; at <= kLongestOther; ++at) {
    const Rest next = rest.from(at);
    if (begins_packet(next) || ends_datagram(next)) return at;
  }
  return 0;
}

/// Walks over the packets of a datagram.
class Bounds {
public:
  explicit Bounds(const Rest& file) : all(file) {}

  DatagramBounds find() {
    while (take_packet()) {
      behind = look(all.from(at));
      if (!begins_packet(all.from(at))) break;
    }
    if (others && good > plain && !shape_of(all.bytes, good).recordable()) return {plain, Behind::Unknown};
    return {good, behind, !others && behind != Behind::TooLong};
  }

private:
  /// Passes over the packet at `at`. @return false when there is none
  bool take_packet() {
    const Rest rest = all.from(at);
    if (is_cut(rest)) {
      behind = Behind::CutPacket;
      return false;
    }
    if (!begins_packet(rest)) {
      behind = look(rest);
      return false;
    }
    const std::size_t dmx = padded_dmx_size(rest.bytes, rest.size);
    const std::size_t size = dmx > 0 ? dmx : other_size(rest);
    if (size == 0 || at + size > kLongestDatagram) {
      behind = size == 0 ? Behind::Unknown : Behind::TooLong;
      return false;
    }
    at += size;
    others = others || dmx == 0;
    holds_dmx = holds_dmx || dmx > 0;
    if (holds_dmx) good = at;
    if (!others) plain = at;
    return true;
  }

  /// Whether the file ends within an ArtDmx or the header of a packet.
  static bool is_cut(const Rest& rest) {
    if (rest.size < kArtHeaderSize)
      return memcmp(rest.bytes, kArtNetId, std::min(rest.size, kArtNetIdSize)) == 0;
    if (!HeaderNumbers(rest.bytes).is(OpDmx)) return false;
    if (rest.size < kDmxHeaderSize) return true;
    const std::size_t slots =
        static_cast<std::size_t>(rest.bytes[kDmxSlotsOffset] << 8) | rest.bytes[kDmxSlotsOffset + 1];
    return slots <= kDmxSlots && kDmxHeaderSize + slots > rest.size;
  }

  Rest all;
  std::size_t at = 0;     // end of the packets so far
  std::size_t good = 0;   // end of the packets of a datagram with an ArtDmx
  std::size_t plain = 0;  // end of the ArtDmx packets before any other
  bool holds_dmx = false;
  bool others = false;  // a packet is no ArtDmx
  Behind behind = Behind::Unknown;
};

/// Whether records that begin at @p at go on beyond @p end, and the last of them ends well.
bool records_reach_beyond(const Rest& file, std::size_t at, std::size_t end) {
  while (at < end && file.size - at >= kDelaySize && begins_delay(file.bytes + at)) {
    const DatagramBounds next = Bounds(file.from(at + kDelaySize)).find();
    if (next.size == 0 || !next.ends_well()) return false;
    at += kDelaySize + next.size;
  }
  return at > end;
}

/// Whether the last ArtDmx of the @p size bytes has lost a part, so that it takes the records after it for
/// its slots.
bool runs_into_next(const Rest& file, std::size_t size) {
  const std::size_t front = size - std::min(size, sizeof(ArtDmx));
  for (std::size_t at = front; at < size && file.size - at >= kDelaySize; ++at)
    if (begins_delay(file.bytes + at) && records_reach_beyond(file, at, size)) return true;
  return false;
}

}  // namespace

bool begins_delay(const std::uint8_t* bytes) {
  return HeaderNumbers(bytes).is(OpOemVfpsNs);
}

bool begins_damaged_delay(const std::uint8_t* bytes) {
  const ArtHeader header = make_delay_record(0).header;
  return alike(bytes, &header, sizeof header) + 2 >= sizeof header;
}

std::int64_t delay_pause(const std::uint8_t* bytes) {
  std::int64_t pause = 0;
  memcpy(&pause, bytes + kArtHeaderSize, sizeof pause);
  return pause;
}

std::size_t dmx_size(const std::uint8_t* bytes, std::size_t available) {
  if (available < kDmxHeaderSize || !HeaderNumbers(bytes).is(OpDmx)) return 0;
  const std::size_t slots =
      static_cast<std::size_t>(bytes[kDmxSlotsOffset] << 8) | bytes[kDmxSlotsOffset + 1];
  const std::size_t size = kDmxHeaderSize + slots;
  return slots <= kDmxSlots && size <= available ? size : 0;
}

std::size_t padded_dmx_size(const std::uint8_t* bytes, std::size_t available) {
  const std::size_t size = dmx_size(bytes, available);
  return size > 0 ? size + padding_of({bytes, available}, size) : 0;
}

const char* text_of(Behind behind) {
  switch (behind) {
    case Behind::CutDelay:
      return "cut off within a delay record";
    case Behind::End:
    case Behind::CutPacket:
      return "cut off within a datagram";
    case Behind::DamagedDelay:
      return "a damaged delay record";
    case Behind::Zeros:
      return "zeros where a record should be";
    case Behind::TooLong:
      return "no end of a datagram within 8191 bytes";
    case Behind::Within:
      return "a datagram that runs into the next one";
    case Behind::Delay:
    case Behind::Unknown:
      break;
  }
  return "bytes that belong to no packet";
}

DatagramBounds bounds_of(const std::uint8_t* bytes, std::size_t available) {
  const Rest file{bytes, available};
  const DatagramBounds bounds = Bounds(file).find();
  if (bounds.size > 0 && !bounds.ends_well() && runs_into_next(file, bounds.size)) return {0, Behind::Within};
  return bounds;
}

}  // namespace cue
