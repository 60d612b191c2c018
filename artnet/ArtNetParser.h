#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <istream>
#include <streambuf>
#include <string_view>
#include <system_error>
#include <vector>

#include "artnet/ArtNet.h"

namespace errc {

enum ArtNetParserError : int {
  NoError = 0,
  FileNotFound = 1,
  UnexpectedEnd = 2,
  HeaderNotFound = 3,
  DataOversized = 4,
};

/// Category of the parser's errors; its name is "ArtNet Parser: ".
class artnet_parser_error_category : public std::error_category {
public:
  static const artnet_parser_error_category& instance();

  const char* name() const noexcept override;
  std::string message(int code) const override;

private:
  artnet_parser_error_category() = default;
};

}  // namespace errc

/// Input stream buffer over a copy of one datagram: delivers its bytes once, then the end of the stream.
class PacketStream : public std::streambuf {
public:
  PacketStream(const char* data, std::size_t size);
  ~PacketStream() override = default;
  // The get area points into the copy.
  PacketStream(const PacketStream&) = delete;
  PacketStream& operator=(const PacketStream&) = delete;
  PacketStream(PacketStream&&) = delete;
  PacketStream& operator=(PacketStream&&) = delete;

private:
  std::vector<char> bytes;
};

/// Turns a byte stream - one datagram or a file of packets - into packet records and hands each to its
/// callback.
///
/// It searches for the identifier at any offset, reads the OpCode and the body after it, calls back, and goes
/// on until the stream ends or a callback calls stop(). The search is a plain matcher without back-off over
/// the whole 512-byte refill buffer. After the valid bytes this buffer holds stale ones, of earlier refills
/// and parses. A packet found in stale bytes is dispatched like any other. A packet that would need bytes
/// from beyond the buffer ends the parse without a callback and without an error, and so does a stale
/// ArtPollReply when the last refill is shorter than a header.
///
/// One thread at a time. Callbacks run on the parsing thread; one that is unset is skipped. No allocation per
/// packet.
class ArtNetParser {
public:
  std::function<void(ArtPoll&)> on_poll;
  std::function<void(ArtPollReply&)> on_poll_reply;
  std::function<void(ArtDmx&)> on_dmx;
  std::function<void(ArtOemVfps&)> on_oem_vfps;
  std::function<void(ArtOemVfpsNs&)> on_oem_vfps_ns;
  std::function<void(ArtTrigger&)> on_trigger;
  std::function<void(ArtHeader&)> on_unknown;
  std::function<void(const std::error_code)> on_error;  // an ArtDmx of more than 512 slots

  /// Bytes that one refill takes from the stream. A short ArtPollReply ends with its refill.
  static constexpr std::uint32_t kBufferSize = 512;

  std::uint32_t packet_count = 0;  // packets dispatched by the current or the last parse
  bool running = false;            // true during a parse, until stop()

  ArtNetParser();
  virtual ~ArtNetParser() = default;
  ArtNetParser(const ArtNetParser&) = delete;
  ArtNetParser& operator=(const ArtNetParser&) = delete;
  ArtNetParser(ArtNetParser&&) = delete;
  ArtNetParser& operator=(ArtNetParser&&) = delete;

  /// Parses the whole stream.
  /// @param ec  clear on entry; on return the first error: UnexpectedEnd for an empty stream or a packet that
  ///            is cut off, HeaderNotFound when no identifier was found
  void parse(std::istream& in, std::error_code& ec);

  /// The same for one datagram that lies in memory, without the cost of a stream.
  void parse_datagram(std::string_view datagram, std::error_code& ec);

  /// The same for a file. @param ec  FileNotFound when it cannot be opened
  void parse(const char* path, std::error_code& ec);

  /// Ends the current parse after the packet that is being dispatched; for use in callbacks.
  void stop();

  /// Within a callback: whether the packet lies, whole or in part, in stale bytes, and not in the stream.
  bool from_stale_bytes() const { return position > valid_count; }

  /// Puts `length` of a received ArtDmx back into wire order, for writing it out again.
  static void convert_to_raw(ArtDmx& dmx);

protected:
  void populate_buffer(std::istream& in, std::error_code& ec);
  void fill_buffer_without_check(std::istream& in);
  bool search();
  void copy_with_populate(void* dst, std::uint32_t n, std::istream& in, std::error_code& ec);

  void parse_artpoll(ArtHeader& header, std::istream& in, std::error_code& ec);
  void parse_artpollreply(ArtHeader& header, std::istream& in, std::error_code& ec);
  void parse_artdmx(ArtHeader& header, std::istream& in, std::error_code& ec);
  void parse_artoemvfps(ArtHeader& header, std::istream& in, std::error_code& ec);
  void parse_artoemvfpsns(ArtHeader& header, std::istream& in, std::error_code& ec);
  void parse_trigger(ArtHeader& header, std::istream& in, std::error_code& ec);
  virtual void parse_unknown(ArtHeader& header, std::istream& in, std::error_code& ec);

private:
  /// parse() of the bytes that fill_buffer_without_check() delivers.
  void run(std::istream& in, std::error_code& ec);

  void dispatch(ArtHeader& header, std::istream& in, std::error_code& ec);

  /// Reads the @p n bytes after the header into @p body. @return false when the packet is not to be
  /// dispatched.
  bool read_body(void* body, std::uint32_t n, std::istream& in, std::error_code& ec);

  /// copy_with_populate() when a refill may be needed, or the copy would leave the buffer.
  void copy_across_refill(std::uint8_t* out, std::uint32_t n, std::istream& in, std::error_code& ec);

  std::uint32_t position = 0;     // read position in buffer
  std::uint32_t match_count = 0;  // identifier bytes matched so far; survives refills
  std::vector<std::uint8_t> buffer;
  std::vector<std::uint8_t> id_buffer;
  std::uint32_t valid_count = 0;  // bytes that the last refill delivered
  bool left_buffer = false;       // a stale match asked for bytes from beyond the buffer

  // A datagram in memory: its bytes come from here, not from the stream argument of the steps.
  bool in_memory = false;
  std::string_view rest;            // bytes not taken yet
  std::istream no_stream{nullptr};  // stands in for the stream, is never read
};

inline void ArtNetParser::copy_with_populate(void* dst, std::uint32_t n, std::istream& in,
                                             std::error_code& ec) {
  // Unsigned on purpose: past the valid bytes the difference wraps, and stale bytes are copied.
  if (valid_count - position >= n && kBufferSize - position >= n) {
    memcpy(dst, buffer.data() + position, n);
    position += n;
    return;
  }
  copy_across_refill(static_cast<std::uint8_t*>(dst), n, in, ec);
}
