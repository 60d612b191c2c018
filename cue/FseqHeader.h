#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace cue {

/// Channels of a frame, one after the other; they count from 0. Slot s (from 1) of port-address p is channel
/// p * 512 + s - 1.
struct ChannelRange {
  std::uint32_t first = 0;
  std::uint32_t count = 0;

  std::uint64_t end() const { return std::uint64_t{first} + count; }
};

/// Frames that are compressed together.
struct FseqBlock {
  std::uint32_t first_frame = 0;
  std::uint32_t bytes = 0;  // in the file
};

/// Everything before the channel data of a sequence of Falcon Player and xLights (docs/conversions.md).
struct FseqHeader {
  enum class Compression : std::uint8_t { None = 0, Zstd = 1, Zlib = 2 };

  int version = 2;             // 1 or 2
  std::uint32_t channels = 0;  // of a frame
  std::uint32_t frames = 0;
  std::uint8_t step = 0;  // ms from one frame to the next
  Compression compression = Compression::None;
  std::vector<FseqBlock> blocks;     // without those of length 0
  std::vector<ChannelRange> ranges;  // of which a frame consists; none: the channels from 0 on
  std::uint64_t identifier = 0;      // version 2: usually the time of creation in us
  std::string media;                 // name of the music file, or empty
};

/// Bytes that are needed to know the size of a header.
constexpr std::size_t kFseqProbe = 32;

/// Most ranges and most channels of a frame.
constexpr std::size_t kFseqMostRanges = 255;
constexpr std::uint32_t kFseqMostChannels = std::uint32_t{65536} * 512;

/// The channels of a range count from 0 to this number, exclusive, in version 2.
constexpr std::uint32_t kFseqRangeLimit = std::uint32_t{1} << 24;

/// Whether a file that begins so is a sequence. @param size  bytes at @p head
bool is_fseq(const std::uint8_t* head, std::size_t size);

/// Offset of the channel data in a file that begins with @p head (8 bytes), which is the size of its header.
std::size_t fseq_header_size(const std::uint8_t* head);

/// @param bytes  the whole header. @param file  its name, for messages
/// @throws CueError when it is not the header of a sequence that can be read
FseqHeader decode_fseq_header(const std::vector<std::uint8_t>& bytes, const std::string& file);

/// The bytes before the channel data. Blocks, compression and the music file are not written.
std::vector<std::uint8_t> encode_fseq_header(const FseqHeader& header);

}  // namespace cue
