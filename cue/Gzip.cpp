#include "cue/Gzip.h"

#include <zlib.h>

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "cue/CueError.h"

namespace cue {

bool begins_gzip(const std::uint8_t* head, std::size_t size) {
  return size >= 3 && head[0] == 0x1F && head[1] == 0x8B && head[2] == 8;
}

class Gunzip::Stream {
public:
  explicit Stream(ByteSource source) : from(std::move(source)), packed(kBufferSize) {
    constexpr int kGzipOnly = 16;
    if (inflateInit2(&inflating, MAX_WBITS + kGzipOnly) != Z_OK) throw CueError("zlib does not begin");
  }
  ~Stream() { inflateEnd(&inflating); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  Stream(Stream&&) = delete;
  Stream& operator=(Stream&&) = delete;

  std::size_t read(std::uint8_t* bytes, std::size_t size) {
    const auto room = static_cast<uInt>(std::min<std::size_t>(size, std::numeric_limits<uInt>::max()));
    inflating.next_out = bytes;
    inflating.avail_out = room;
    while (!at_end && inflating.avail_out == room) step();
    return room - inflating.avail_out;
  }

  const std::string& breaks_off() const { return error; }

private:
  static constexpr std::size_t kBufferSize = std::size_t{64} * 1024;

  void end(const char* what) {
    at_end = true;
    error = what;
  }

  void step() {
    if (inflating.avail_in == 0) {
      inflating.next_in = packed.data();
      inflating.avail_in = static_cast<uInt>(from(packed.data(), packed.size()));
    }
    if (inflating.avail_in == 0) return end(between_members ? "" : "the compressed data is cut off");
    // gzip pads with zeros for tapes.
    if (between_members && *inflating.next_in == 0) return end("");
    between_members = false;
    const int result = inflate(&inflating, Z_NO_FLUSH);
    if (result == Z_STREAM_END) {
      inflateReset(&inflating);
      between_members = true;
    } else if (result != Z_OK) {
      end("the compressed data is damaged");
    }
  }

  ByteSource from;
  std::vector<std::uint8_t> packed;
  z_stream inflating{};
  bool between_members = false;
  bool at_end = false;
  std::string error;
};

Gunzip::Gunzip(ByteSource source) : stream(std::make_shared<Stream>(std::move(source))) {}

ByteSource Gunzip::source() const {
  return [unpacked = stream](std::uint8_t* bytes, std::size_t size) { return unpacked->read(bytes, size); };
}

std::string Gunzip::breaks_off() const {
  return stream->breaks_off();
}

}  // namespace cue
