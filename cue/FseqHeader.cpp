#include "cue/FseqHeader.h"

#include <algorithm>
#include <cstring>

#include "cue/CueError.h"

namespace cue {
namespace {

constexpr std::size_t kMagicSize = 4;
constexpr char kMagic[] = "PSEQ";
constexpr char kOldMagic[] = "FSEQ";

constexpr std::size_t kSizeOffset = 4;
constexpr std::size_t kMajorOffset = 7;
constexpr std::size_t kVariablesOffset = 8;
constexpr std::size_t kChannelsOffset = 10;
constexpr std::size_t kFramesOffset = 14;
constexpr std::size_t kStepOffset = 18;

constexpr std::size_t kFixedSizeV1 = 28;
constexpr std::uint8_t kGamma = 1;
constexpr std::uint8_t kColour = 2;
constexpr std::size_t kFixedSizeV2 = 32;
constexpr std::size_t kCompressionOffset = 20;  // and high bits of the number of blocks
constexpr std::size_t kBlocksOffset = 21;
constexpr std::size_t kRangesOffset = 22;
constexpr std::size_t kIdentifierOffset = 24;
constexpr std::size_t kBlockSize = 8;
constexpr std::size_t kRangeSize = 6;

constexpr std::size_t kVariableHeaderSize = 4;
constexpr std::size_t kLongestMediaName = 255;

/// The number of @p size bytes, low byte first.
std::uint64_t get(const std::uint8_t* at, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t i = size; i-- > 0;) value = value << 8 | at[i];
  return value;
}

std::uint32_t get32(const std::uint8_t* at) {
  return static_cast<std::uint32_t>(get(at, 4));
}

void append(std::vector<std::uint8_t>& bytes, std::uint64_t value, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

CueError refused(const std::string& file, const std::string& why) {
  return CueError{file + ": FSEQ: " + why};
}

/// Name of the music file in the variable headers, with only characters that can be shown.
std::string media_name(const std::vector<std::uint8_t>& bytes, std::size_t at) {
  while (at + kVariableHeaderSize <= bytes.size()) {
    const auto size = static_cast<std::size_t>(get(bytes.data() + at, 2));
    // One of length 0 is padding.
    const std::size_t end = at + std::max(size, kVariableHeaderSize);
    if (end > bytes.size()) break;
    if (size > kVariableHeaderSize && memcmp(bytes.data() + at + 2, "mf", 2) == 0) {
      std::string name(bytes.begin() + static_cast<std::ptrdiff_t>(at + kVariableHeaderSize),
                       bytes.begin() + static_cast<std::ptrdiff_t>(end));
      name.resize(std::min({name.find('\0'), name.size(), kLongestMediaName}));
      std::replace_if(
          name.begin(), name.end(), [](unsigned char letter) { return letter < ' ' || letter == 0x7F; }, '?');
      return name;
    }
    at = end;
  }
  return {};
}

/// Compression, blocks and ranges of version 2. @return offset of what follows them
std::size_t decode_tables(const std::vector<std::uint8_t>& bytes, const std::string& file,
                          FseqHeader& header) {
  const std::uint8_t compression = bytes[kCompressionOffset] & 0x0F;
  if (compression > static_cast<std::uint8_t>(FseqHeader::Compression::Zlib))
    throw refused(file, "compression " + std::to_string(compression) + " is not known");
  header.compression = static_cast<FseqHeader::Compression>(compression);
  const std::size_t blocks =
      static_cast<std::size_t>(bytes[kCompressionOffset] & 0xF0) << 4 | bytes[kBlocksOffset];
  const std::size_t ranges = bytes[kRangesOffset];
  header.identifier = get(bytes.data() + kIdentifierOffset, 8);
  if (kFixedSizeV2 + blocks * kBlockSize + ranges * kRangeSize > bytes.size())
    throw refused(file, "its tables reach into the channel data");
  std::size_t at = kFixedSizeV2;
  for (std::size_t i = 0; i < blocks; ++i, at += kBlockSize) {
    const FseqBlock block{get32(bytes.data() + at), get32(bytes.data() + at + 4)};
    if (block.bytes > 0) header.blocks.push_back(block);
  }
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < ranges; ++i, at += kRangeSize) {
    header.ranges.push_back({static_cast<std::uint32_t>(get(bytes.data() + at, 3)),
                             static_cast<std::uint32_t>(get(bytes.data() + at + 3, 3))});
    sum += header.ranges.back().count;
  }
  if (sum > header.channels) throw refused(file, "its ranges hold more channels than a frame");
  return at;
}

}  // namespace

bool is_fseq(const std::uint8_t* head, std::size_t size) {
  return size >= kMagicSize &&
         (memcmp(head, kMagic, kMagicSize) == 0 || memcmp(head, kOldMagic, kMagicSize) == 0);
}

std::size_t fseq_header_size(const std::uint8_t* head) {
  return static_cast<std::size_t>(get(head + kSizeOffset, 2));
}

FseqHeader decode_fseq_header(const std::vector<std::uint8_t>& bytes, const std::string& file) {
  if (!is_fseq(bytes.data(), bytes.size())) throw CueError(file + ": not an FSEQ file");
  FseqHeader header;
  if (bytes.size() > kMajorOffset) header.version = bytes[kMajorOffset];
  if (header.version != 1 && header.version != 2)
    throw refused(file, "version " + std::to_string(header.version) + " is not known");
  const std::size_t fixed = header.version == 1 ? kFixedSizeV1 : kFixedSizeV2;
  if (bytes.size() < std::max(fixed, fseq_header_size(bytes.data())))
    throw refused(file, "the header is cut off");
  header.channels = get32(bytes.data() + kChannelsOffset);
  header.frames = get32(bytes.data() + kFramesOffset);
  header.step = bytes[kStepOffset];
  if (header.channels == 0) throw refused(file, "a frame has no channels");
  if (header.channels > kFseqMostChannels)
    throw refused(file, "a frame has " + std::to_string(header.channels) + " channels, more than " +
                            std::to_string(kFseqMostChannels));
  if (header.step == 0) throw refused(file, "the step from frame to frame is 0 ms");
  const std::size_t variables = header.version == 1 ? fixed : decode_tables(bytes, file, header);
  header.media = media_name(
      bytes, std::max(variables, static_cast<std::size_t>(get(bytes.data() + kVariablesOffset, 2))));
  return header;
}

std::vector<std::uint8_t> encode_fseq_header(const FseqHeader& header) {
  const bool is_first = header.version == 1;
  const std::size_t end = is_first ? kFixedSizeV1 : kFixedSizeV2 + header.ranges.size() * kRangeSize;
  const std::size_t size = (end + 3) / 4 * 4;
  std::vector<std::uint8_t> bytes(kMagic, kMagic + kMagicSize);
  append(bytes, size, 2);
  append(bytes, 0, 1);  // minor version
  append(bytes, static_cast<std::uint64_t>(header.version), 1);
  append(bytes, end, 2);
  append(bytes, header.channels, 4);
  append(bytes, header.frames, 4);
  append(bytes, header.step, 1);
  append(bytes, 0, 1);
  if (is_first) {
    append(bytes, 0, 4);  // universes and their size, which players do not use
    append(bytes, kGamma, 1);
    append(bytes, kColour, 1);
  } else {
    append(bytes, 0, 2);  // no compression, no blocks
    append(bytes, header.ranges.size(), 1);
    append(bytes, 0, 1);
    append(bytes, header.identifier, 8);
    for (const ChannelRange& range : header.ranges) {
      append(bytes, range.first, 3);
      append(bytes, range.count, 3);
    }
  }
  bytes.resize(size);
  return bytes;
}

}  // namespace cue
