#include "cue/FseqReader.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <utility>

#include "artnet/ArtNet.h"
#include "artnet/RecordingFormat.h"
#include "cue/CueError.h"
#include "cue/DmxDatagram.h"
#include "cue/FseqFrames.h"
#include "cue/Time.h"

namespace cue {
namespace {

constexpr std::int64_t kMillisecond = kSecond / 1000;
constexpr std::size_t kSizeKnown = 8;  // bytes of a file that tell the size of its header
constexpr unsigned kHighestSequence = 255;

std::size_t read_fully(const ByteSource& source, std::uint8_t* bytes, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const std::size_t count = source(bytes + done, size - done);
    if (count == 0) break;
    done += count;
  }
  return done;
}

/// Reads the header and leaves the source at the channel data. @throws CueError
FseqHeader read_header(const ByteSource& source, const std::string& file) {
  std::vector<std::uint8_t> bytes(kSizeKnown);
  bytes.resize(read_fully(source, bytes.data(), bytes.size()));
  if (bytes.size() == kSizeKnown && is_fseq(bytes.data(), bytes.size())) {
    bytes.resize(std::max(kSizeKnown, fseq_header_size(bytes.data())));
    bytes.resize(kSizeKnown + read_fully(source, bytes.data() + kSizeKnown, bytes.size() - kSizeKnown));
  }
  return decode_fseq_header(bytes, file);
}

/// Channels of one universe that lie together in a frame.
struct Piece {
  std::uint16_t port_address = 0;
  std::uint16_t slot = 0;  // of the first one, from 0
  std::uint16_t count = 0;
  std::size_t at = 0;  // in the frame

  std::size_t end() const { return std::size_t{slot} + count; }
};

/// The pieces of a frame, sorted by port-address; those of a universe in the order of the file.
std::vector<Piece> pieces_of(const FseqHeader& header) {
  std::vector<ChannelRange> ranges = header.ranges;
  if (ranges.empty()) ranges.push_back({0, header.channels});
  std::vector<Piece> pieces;
  std::size_t at = 0;
  for (const ChannelRange& range : ranges) {
    for (std::uint64_t channel = range.first; channel < range.end();) {
      const auto slot = static_cast<std::size_t>(channel % kDmxSlots);
      const auto count =
          static_cast<std::size_t>(std::min<std::uint64_t>(kDmxSlots - slot, range.end() - channel));
      pieces.push_back({static_cast<std::uint16_t>(channel / kDmxSlots), static_cast<std::uint16_t>(slot),
                        static_cast<std::uint16_t>(count), at});
      channel += count;
      at += count;
    }
  }
  std::stable_sort(pieces.begin(), pieces.end(),
                   [](const Piece& a, const Piece& b) { return a.port_address < b.port_address; });
  return pieces;
}

class FseqReader : public ForeignReader {
public:
  FseqReader(ByteSource source, const std::string& file)
      : header(read_header(source, file)), frames(std::move(source), header), pieces(pieces_of(header)) {
    if (pieces.empty()) throw CueError(file + ": FSEQ: a frame has no channels");
    next_piece = pieces.size();
  }

  bool next(ForeignDatagram& datagram) override {
    if (next_piece == pieces.size()) {
      if (frames_read == header.frames || !frames.breaks_off().empty() || !frames.next(frame)) return false;
      ++frames_read;
      next_piece = 0;
    }
    build_packet();
    datagram = {packet.data(), packet.size(), (frames_read - 1) * header.step * kMillisecond};
    return true;
  }

  std::string breaks_off() const override { return frames.breaks_off(); }

  std::vector<std::string> losses() const override {
    if (header.media.empty()) return {};
    return {"the music file \"" + header.media + "\""};
  }

private:
  /// The ArtDmx of the universe of the next piece, out of all its pieces.
  void build_packet() {
    const std::uint16_t port_address = pieces[next_piece].port_address;
    const auto sequence = static_cast<std::uint8_t>((frames_read - 1) % kHighestSequence + 1);
    std::size_t slots = 0;
    std::size_t end = next_piece;
    for (; end < pieces.size() && pieces[end].port_address == port_address; ++end)
      slots = std::max(slots, pieces[end].end());
    packet = make_dmx_datagram(port_address, sequence, slots);
    for (; next_piece < end; ++next_piece) {
      const Piece& piece = pieces[next_piece];
      memcpy(packet.data() + kDmxHeaderSize + piece.slot, frame.data() + piece.at, piece.count);
    }
  }

  FseqHeader header;
  FseqFrames frames;
  std::vector<Piece> pieces;
  std::vector<std::uint8_t> frame;
  std::vector<std::uint8_t> packet;
  std::size_t next_piece = 0;
  std::int64_t frames_read = 0;
};

}  // namespace

std::unique_ptr<ForeignReader> open_fseq(ByteSource source, const std::string& name) {
  return std::make_unique<FseqReader>(std::move(source), name);
}

}  // namespace cue
