#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cue/FseqHeader.h"
#include "cue/Input.h"

namespace cue {

/// The bytes of a file behind its header, block by block, through a buffer of their own.
class FseqBlockInput {
public:
  explicit FseqBlockInput(ByteSource from);

  /// Goes on to the block behind the present one, and brings its first two bytes in at least. @param size
  /// bytes
  void begin_block(std::uint64_t size);

  /// The next bytes of the block. @return false at its end, or the end of the file
  bool fill();

  const std::uint8_t* data() const { return buffer.data() + begin; }
  std::size_t available() const { return end - begin; }
  void take(std::size_t size);

private:
  ByteSource source;
  std::vector<std::uint8_t> buffer;
  std::size_t begin = 0;   // of the bytes of the block that have not been taken, in buffer
  std::size_t end = 0;     // of those bytes
  std::size_t read = 0;    // end of what has been read, in buffer
  std::uint64_t left = 0;  // bytes of the block that are not in buffer
};

class FseqDecoder;

/// The frames of a sequence, uncompressed, in order. Memory: a frame, as far as the file has shown that it is
/// there, and what the decoder needs.
class FseqFrames {
public:
  /// @param behind_header  delivers what follows the header
  FseqFrames(ByteSource behind_header, FseqHeader described);
  ~FseqFrames();
  FseqFrames(const FseqFrames&) = delete;
  FseqFrames& operator=(const FseqFrames&) = delete;
  FseqFrames(FseqFrames&&) = delete;
  FseqFrames& operator=(FseqFrames&&) = delete;

  /// The next frame. Not to be called beyond the last.
  /// @return false when the file breaks off here; then breaks_off() says why. @throws CueError
  bool next(std::vector<std::uint8_t>& frame);

  /// Empty as long as everything was whole.
  const std::string& breaks_off() const { return broken; }

private:
  void begin_blocks();
  void begin_block(std::uint32_t first_frame, std::uint32_t end_frame, std::uint64_t size);
  std::size_t read(std::uint8_t* out, std::size_t size);
  void check_end_of_block();

  FseqHeader header;
  FseqBlockInput input;
  std::unique_ptr<FseqDecoder> decoder;
  std::size_t next_block = 0;  // index in header.blocks
  std::uint32_t number = 0;    // of the next frame
  std::string broken;
};

}  // namespace cue
