#include "cue/DatagramWalk.h"

#include <algorithm>
#include <cstring>

#include "artnet/ArtNetPackets.h"
#include "artnet/ArtNetParser.h"
#include "cue/ByteOrder.h"

namespace cue {
namespace {

// The parser reads its stream in portions of this size; an ArtPollReply is as long as its portion.
constexpr std::size_t kPortion = ArtNetParser::kBufferSize;

}  // namespace

/// Goes on to the end of the next identifier. @return false when there is none
bool DatagramWalk::search() {
  while (at < size) {
    if (matched == 0) {
      const auto* const next = static_cast<const std::uint8_t*>(memchr(bytes + at, kArtNetId[0], size - at));
      at = next == nullptr ? size : static_cast<std::size_t>(next - bytes);
      if (at == size) break;
    }
    // Like the parser: a byte that ends a match is not tried as the beginning of another.
    matched = bytes[at++] == static_cast<std::uint8_t>(kArtNetId[matched]) ? matched + 1 : 0;
    if (matched == kArtNetIdSize) {
      matched = 0;
      return true;
    }
  }
  return false;
}

/// Offset of the portion in which the OpCode before `at` ends.
std::size_t DatagramWalk::portion() const {
  return (at - 1) / kPortion * kPortion;
}

/// Bytes that the parser reads after a header; nothing for an ArtPollReply in a portion shorter than a
/// header.
std::optional<std::size_t> DatagramWalk::body_size(std::uint16_t opcode) const {
  switch (opcode) {
    case OpPoll:
      return kPollBody;
    case OpPollReply: {
      const std::size_t valid = std::min(kPortion, size - portion());
      if (valid > sizeof(ArtPollReply)) return kPollReplyBody;
      if (valid < kArtHeaderSize) return std::nullopt;
      return valid - kArtHeaderSize;
    }
    case OpDmx:
      return kDmxFields;
    case OpTrigger:
      return kTriggerFields;
    case OpOemVfps:
      return sizeof(ArtOemVfps::payload);
    case OpOemVfpsNs:
      return sizeof(ArtOemVfpsNs::payload);
    default:
      return 0;
  }
}

/// Walks the packet after its identifier. @return End when the walk is to go on
DatagramWalk::Step DatagramWalk::dispatch(std::size_t start) {
  if (size - at < sizeof(ArtHeader::opcode)) return Step::Truncated;
  const std::uint16_t opcode = low_byte_first(bytes + at);
  at += sizeof opcode;
  const std::optional<std::size_t> body = body_size(opcode);
  if (!body || *body > size - at) return Step::Truncated;
  const std::uint8_t* const fields = bytes + at;
  at += *body;
  if (opcode == OpDmx) {
    const std::uint16_t slots = high_byte_first(fields + 6);
    // Too many slots: the packet is ignored, and its data is searched like all other bytes.
    if (slots > kDmxSlots) return Step::End;
    if (slots > size - at) return Step::Truncated;
    at += slots;
    packet = {start, low_byte_first(fields + 4), slots};
    return Step::Dmx;
  }
  return Step::End;
}

DatagramWalk::Step DatagramWalk::next() {
  for (;;) {
    if (!search()) return Step::End;
    const Step step = dispatch(at - kArtNetIdSize);
    if (step != Step::End) return step;
  }
}

DatagramShape shape_of(const std::uint8_t* bytes, std::size_t size) {
  DatagramShape shape;
  DatagramWalk walk(bytes, size);
  for (;;) {
    switch (walk.next()) {
      case DatagramWalk::Step::Dmx:
        ++shape.dmx_count;
        shape.dmx_bytes += walk.dmx().end() - walk.dmx().offset;
        break;
      case DatagramWalk::Step::Truncated:
        shape.truncated = true;
        return shape;
      case DatagramWalk::Step::End:
        return shape;
    }
  }
}

}  // namespace cue
