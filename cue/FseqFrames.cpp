#include "cue/FseqFrames.h"

#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace cue {

/// The inside of a block, uncompressed.
class FseqDecoder {
public:
  FseqDecoder() = default;
  virtual ~FseqDecoder() = default;
  FseqDecoder(const FseqDecoder&) = delete;
  FseqDecoder& operator=(const FseqDecoder&) = delete;
  FseqDecoder(FseqDecoder&&) = delete;
  FseqDecoder& operator=(FseqDecoder&&) = delete;

  /// @return bytes put at @p out, 0 at the end of the block. @throws FseqDamage
  virtual std::size_t decode(FseqBlockInput& input, std::uint8_t* out, std::size_t size) = 0;
};

namespace {

constexpr std::size_t kBufferSize = std::size_t{64} * 1024;

// Bytes by which a stream of zlib is known.
constexpr std::size_t kSignature = 2;

// A frame grows by so many bytes at once, each time that the file has filled it.
constexpr std::size_t kPiece = std::size_t{64} * 1024;

/// The compressed data cannot be read on.
class FseqDamage : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

class PlainDecoder : public FseqDecoder {
public:
  std::size_t decode(FseqBlockInput& input, std::uint8_t* out, std::size_t size) override {
    if (!input.fill()) return 0;
    const std::size_t count = std::min(size, input.available());
    memcpy(out, input.data(), count);
    input.take(count);
    return count;
  }
};

class ZstdDecoder : public FseqDecoder {
public:
  ZstdDecoder() : stream(ZSTD_createDStream()) {
    if (!stream) throw std::bad_alloc();
  }

  std::size_t decode(FseqBlockInput& input, std::uint8_t* out, std::size_t size) override {
    ZSTD_outBuffer to{out, size, 0};
    for (;;) {
      const bool has_input = input.fill();
      ZSTD_inBuffer from{input.data(), input.available(), 0};
      const std::size_t result = ZSTD_decompressStream(stream.get(), &to, &from);
      if (ZSTD_isError(result) != 0) {
        // Bytes behind a whole stream.
        if (ended && ZSTD_getErrorCode(result) == ZSTD_error_prefix_unknown) return to.pos;
        throw FseqDamage(std::string("zstd: ") + ZSTD_getErrorName(result));
      }
      ended = result == 0;
      input.take(from.pos);
      if (to.pos > 0 || !has_input) return to.pos;
    }
  }

private:
  struct Free {
    void operator()(ZSTD_DStream* of) const { ZSTD_freeDStream(of); }
  };
  std::unique_ptr<ZSTD_DStream, Free> stream;
  bool ended = false;  // a whole stream of zstd has been unpacked
};

class ZlibDecoder : public FseqDecoder {
public:
  ZlibDecoder() {
    if (inflateInit(&stream) != Z_OK) throw std::bad_alloc();
  }
  ~ZlibDecoder() override { inflateEnd(&stream); }
  ZlibDecoder(const ZlibDecoder&) = delete;
  ZlibDecoder& operator=(const ZlibDecoder&) = delete;
  ZlibDecoder(ZlibDecoder&&) = delete;
  ZlibDecoder& operator=(ZlibDecoder&&) = delete;

  std::size_t decode(FseqBlockInput& input, std::uint8_t* out, std::size_t size) override {
    // No more than kPiece, see FseqFrames::next().
    stream.next_out = out;
    stream.avail_out = static_cast<uInt>(size);
    while (!ended && stream.avail_out == size) {
      const bool has_input = input.fill();
      stream.next_in = const_cast<Bytef*>(input.data());  // NOLINT: zlib only reads
      stream.avail_in = static_cast<uInt>(input.available());
      const int result = inflate(&stream, Z_NO_FLUSH);
      input.take(input.available() - stream.avail_in);
      ended = result == Z_STREAM_END;
      if (result == Z_BUF_ERROR && !has_input) break;
      // What came before the damage is delivered first; the next call meets it again.
      if (!ended && result != Z_OK && result != Z_BUF_ERROR && stream.avail_out == size)
        throw FseqDamage(std::string("zlib: ") + (stream.msg == nullptr ? "not a whole stream" : stream.msg));
    }
    return size - stream.avail_out;
  }

private:
  z_stream stream{};
  bool ended = false;
};

/// Whether a block begins as a stream of zlib does (RFC 1950).
bool begins_zlib(const FseqBlockInput& input) {
  if (input.available() < kSignature) return false;
  const unsigned method = input.data()[0];
  const unsigned flags = input.data()[1];
  return (method & 0x0FU) == Z_DEFLATED && method >> 4 <= 7 && (method << 8 | flags) % 31 == 0;
}

}  // namespace

FseqBlockInput::FseqBlockInput(ByteSource from) : source(std::move(from)), buffer(kBufferSize) {}

void FseqBlockInput::begin_block(std::uint64_t size) {
  while (fill()) take(available());
  std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(end),
            buffer.begin() + static_cast<std::ptrdiff_t>(read), buffer.begin());
  read -= end;
  begin = end = 0;
  while (read < kSignature) {
    const std::size_t count = source(buffer.data() + read, buffer.size() - read);
    if (count == 0) break;
    read += count;
  }
  left = size;
}

bool FseqBlockInput::fill() {
  if (available() > 0) return true;
  if (left == 0) return false;
  if (end == read) {
    begin = end = 0;
    read = source(buffer.data(), buffer.size());
    if (read == 0) left = 0;
  }
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(left, read - end));
  end += count;
  left -= count;
  return count > 0;
}

void FseqBlockInput::take(std::size_t size) {
  begin += size;
}

FseqFrames::FseqFrames(ByteSource behind_header, FseqHeader described)
    : header(std::move(described)), input(std::move(behind_header)) {
  constexpr std::uint64_t kToTheEnd = std::numeric_limits<std::uint64_t>::max();
  if (header.compression == FseqHeader::Compression::None) header.blocks.clear();
  if (header.blocks.empty()) begin_block(0, header.frames, kToTheEnd);
}

FseqFrames::~FseqFrames() = default;

void FseqFrames::begin_block(std::uint32_t first_frame, std::uint32_t end_frame, std::uint64_t size) {
  input.begin_block(size);
  switch (header.compression) {
    case FseqHeader::Compression::None:
      decoder = std::make_unique<PlainDecoder>();
      break;
    case FseqHeader::Compression::Zstd:
      decoder = std::make_unique<ZstdDecoder>();
      break;
    case FseqHeader::Compression::Zlib: {
      // Such a block may be stored as it is.
      input.fill();
      const std::uint64_t plain = std::uint64_t{end_frame - first_frame} * header.channels;
      if (size == plain && !begins_zlib(input))
        decoder = std::make_unique<PlainDecoder>();
      else
        decoder = std::make_unique<ZlibDecoder>();
      break;
    }
  }
}

/// Begins the block of the next frame when it is in a new one.
void FseqFrames::begin_blocks() {
  const std::vector<FseqBlock>& blocks = header.blocks;
  while (next_block < blocks.size() && (next_block == 0 || blocks[next_block].first_frame <= number)) {
    const FseqBlock& block = blocks[next_block];
    if (block.first_frame != number)
      throw FseqDamage("a block begins with frame " + std::to_string(block.first_frame + std::uint64_t{1}));
    ++next_block;
    const std::uint32_t end = next_block < blocks.size() ? blocks[next_block].first_frame : header.frames;
    begin_block(block.first_frame, std::max(end, block.first_frame), block.bytes);
  }
}

std::size_t FseqFrames::read(std::uint8_t* out, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const std::size_t count = decoder->decode(input, out + done, size - done);
    if (count == 0) break;
    done += count;
  }
  return done;
}

/// Behind the last frame of a block its checksum follows. More frames than the table says are left out.
void FseqFrames::check_end_of_block() {
  const std::uint32_t end =
      next_block < header.blocks.size() ? header.blocks[next_block].first_frame : header.frames;
  if (number + std::uint64_t{1} != end) return;
  std::uint8_t left_out = 0;
  read(&left_out, 1);
}

bool FseqFrames::next(std::vector<std::uint8_t>& frame) {
  const std::string place =
      "frame " + std::to_string(number + std::uint64_t{1}) + " of " + std::to_string(header.frames);
  try {
    begin_blocks();
    for (std::size_t at = 0; at < header.channels;) {
      const std::size_t size = std::min<std::size_t>(kPiece, header.channels - at);
      if (frame.size() < at + size) frame.resize(at + size);
      const std::size_t count = read(frame.data() + at, size);
      if (count < size) {
        broken = "ends " + std::string(at + count == 0 ? "before " : "within ") + place;
        return false;
      }
      at += size;
    }
    check_end_of_block();
  } catch (const FseqDamage& damage) {
    broken = place + ": " + damage.what();
    return false;
  }
  ++number;
  return true;
}

}  // namespace cue
