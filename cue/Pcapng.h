#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cue/Frames.h"
#include "cue/Input.h"

namespace cue {

/// Whether a file that begins with these bytes is a pcapng capture.
bool begins_pcapng(const std::uint8_t* head, std::size_t size);

/// Reads a pcapng capture (draft-ietf-opsawg-pcapng): frames in enhanced, simple and the obsolete packet
/// blocks, in any byte order, over several sections.
///
/// libpcap refuses a file as soon as two interfaces have different link types or snap lengths, and such are
/// the files that Wireshark writes when it captures on several interfaces. Hence this reader.
class PcapngReader : public FrameSource {
public:
  /// @param source  from the front of the file on
  explicit PcapngReader(ByteSource source);

  bool next(Frame& frame) override;
  std::string breaks_off() const override { return error; }

private:
  struct Interface {
    int link_type = 0;
    std::uint32_t snap_length = 0;  // bytes, 0: no limit
    std::uint8_t resolution = 6;    // bit 7: power of 2, else of 10; the rest: negative exponent, seconds
    std::int64_t offset = 0;        // s, added to each time
  };
  struct Block {
    std::uint32_t type = 0;
    Bytes body;
  };

  bool have(std::size_t size);
  bool skip(std::uint32_t size);
  bool broken(const std::string& what);
  bool begin_section();
  bool next_block(Block& block);
  bool take_interface(const Bytes& body);
  bool take_frame(const Block& block, Frame& frame);
  bool take_simple_frame(const Bytes& body, Frame& frame);

  const std::uint8_t* data() const { return buffer.data() + begin; }
  std::uint16_t get16(const std::uint8_t* at) const;
  std::uint32_t get32(const std::uint8_t* at) const;

  ByteSource from;
  std::vector<std::uint8_t> buffer;
  std::size_t begin = 0;  // of the bytes not passed yet, in buffer
  std::size_t end = 0;
  std::uint64_t base = 0;  // offset in the file of the buffer's first byte
  std::size_t passed = 0;  // bytes of the last block, still at `begin`
  bool big_endian = false;
  std::vector<Interface> interfaces;    // of this section
  std::uint32_t interfaces_before = 0;  // of the sections before
  std::string error;
};

/// Time of a frame in ns since 1970.
/// @param resolution  option if_tsresol
/// @param offset      option if_tsoffset, s
/// @return nothing when 64 bits cannot hold it (before 1677 or after 2262)
std::optional<std::int64_t> pcapng_time(std::uint64_t units, std::uint8_t resolution, std::int64_t offset);

}  // namespace cue
