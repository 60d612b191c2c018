#include "artnet/ArtNetParser.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <fstream>

namespace errc {

const artnet_parser_error_category& artnet_parser_error_category::instance() {
  static const artnet_parser_error_category category;
  return category;
}

const char* artnet_parser_error_category::name() const noexcept {
  return "ArtNet Parser: ";
}

std::string artnet_parser_error_category::message(int code) const {
  switch (code) {
    case NoError:
      return "No error";
    case FileNotFound:
      return "Input file not found";
    case UnexpectedEnd:
      return "Unexpected end of input buffer";
    case HeaderNotFound:
      return "ArtNet header not found";
    case DataOversized:
      return "ArtNet data buffer oversized";
    default:
      return "Unknown error";
  }
}

}  // namespace errc

namespace {

std::error_code parser_error(errc::ArtNetParserError code) {
  return {code, errc::artnet_parser_error_category::instance()};
}

/// How many of the 8 bytes at @p bytes, from the first on, match the identifier.
std::uint32_t matching_id_bytes(const std::uint8_t* bytes) {
  std::uint64_t found = 0;
  std::uint64_t wanted = 0;
  memcpy(&found, bytes, sizeof found);
  memcpy(&wanted, kArtNetId, sizeof wanted);
  const std::uint64_t difference = found ^ wanted;
  if (difference == 0) return kArtNetIdSize;
  return static_cast<std::uint32_t>(__builtin_ctzll(difference)) / 8;
}

/// A zeroed record that starts with @p header.
template <typename Record>
Record record_with(const ArtHeader& header) {
  Record record{};
  record.header = header;
  return record;
}

/// First byte of @p record after its header.
template <typename Record>
std::uint8_t* body_of(Record& record) {
  return reinterpret_cast<std::uint8_t*>(&record) + sizeof(ArtHeader);
}

}  // namespace

PacketStream::PacketStream(const char* data, std::size_t size) : bytes(data, data + size) {
  setg(bytes.data(), bytes.data(), bytes.data() + bytes.size());
}

ArtNetParser::ArtNetParser() : buffer(kBufferSize, 0), id_buffer(kArtNetIdSize, 0) {}

void ArtNetParser::stop() {
  running = false;
}

void ArtNetParser::convert_to_raw(ArtDmx& dmx) {
  dmx.length = swap_word(dmx.length);
}

void ArtNetParser::fill_buffer_without_check(std::istream& in) {
  position = 0;
  valid_count = 0;
  if (in_memory) {
    const std::size_t size = std::min<std::size_t>(rest.size(), kBufferSize);
    if (size == 0) return;
    memcpy(buffer.data(), rest.data(), size);
    rest.remove_prefix(size);
    valid_count = static_cast<std::uint32_t>(size);
    return;
  }
  // As in.read() does, less the cost of its guards.
  if (!in.good()) {
    in.setstate(std::ios::failbit);
    return;
  }
  try {
    valid_count =
        static_cast<std::uint32_t>(in.rdbuf()->sgetn(reinterpret_cast<char*>(buffer.data()), kBufferSize));
  } catch (const std::exception&) {
    // A folder, for example, can be opened but not read.
    in.setstate(std::ios::badbit);
    return;
  }
  if (valid_count < kBufferSize) in.setstate(std::ios::eofbit | std::ios::failbit);
}

void ArtNetParser::populate_buffer(std::istream& in, std::error_code& ec) {
  fill_buffer_without_check(in);
  if (valid_count == 0) ec = parser_error(errc::UnexpectedEnd);
}

void ArtNetParser::copy_across_refill(std::uint8_t* out, std::uint32_t n, std::istream& in,
                                      std::error_code& ec) {
  const std::uint32_t remaining = valid_count - position;
  if (remaining >= n) {
    left_buffer = true;
    return;
  }
  memcpy(out, buffer.data() + position, remaining);
  const std::uint32_t wanted = n - remaining;
  populate_buffer(in, ec);
  if (ec) return;
  if (valid_count < wanted) {
    ec = parser_error(errc::UnexpectedEnd);
    return;
  }
  memcpy(out + remaining, buffer.data(), wanted);
  position = wanted;
}

bool ArtNetParser::search() {
  while (position < kBufferSize) {
    if (match_count == 0) {
      // Nothing matched yet: on to the next byte that can begin an identifier. Most often this is the first
      // byte of the datagram, and memchr() is not called.
      if (buffer[position] != static_cast<std::uint8_t>(kArtNetId[0])) {
        const void* const first = memchr(buffer.data() + position, kArtNetId[0], kBufferSize - position);
        if (first == nullptr) break;
        position = static_cast<std::uint32_t>(static_cast<const std::uint8_t*>(first) - buffer.data());
      }
      if (kBufferSize - position >= kArtNetIdSize) {
        // A whole identifier fits. The byte that ends a match is skipped, even if it could begin an
        // identifier: there is no back-off.
        const std::uint32_t matching = matching_id_bytes(buffer.data() + position);
        position += std::min<std::uint32_t>(matching + 1, kArtNetIdSize);
        if (matching < kArtNetIdSize) continue;
        memcpy(id_buffer.data(), kArtNetId, kArtNetIdSize);
        return true;
      }
    }
    // The end of the buffer is near, or the match began before the last refill: byte by byte.
    const std::uint8_t byte = buffer[position++];
    if (byte != static_cast<std::uint8_t>(kArtNetId[match_count])) {
      match_count = 0;
      continue;
    }
    id_buffer[match_count++] = byte;
    if (match_count == kArtNetIdSize) {
      match_count = 0;
      return true;
    }
  }
  position = kBufferSize;
  return false;
}

void ArtNetParser::parse(std::istream& in, std::error_code& ec) {
  in_memory = false;
  run(in, ec);
}

void ArtNetParser::parse_datagram(std::string_view datagram, std::error_code& ec) {
  in_memory = true;
  rest = datagram;
  run(no_stream, ec);
  in_memory = false;
}

void ArtNetParser::run(std::istream& in, std::error_code& ec) {
  running = true;
  left_buffer = false;
  ArtHeader header{};
  populate_buffer(in, ec);
  match_count = 0;
  packet_count = 0;
  for (;;) {
    if (ec) {
      running = false;
      return;
    }
    if (search()) {
      header = ArtHeader{};
      memcpy(header.id, id_buffer.data(), kArtNetIdSize);
      std::uint16_t opcode = 0;
      copy_with_populate(&opcode, sizeof opcode, in, ec);
      header.opcode = opcode;
      if (ec) return;  // `running` stays set
      if (!left_buffer) dispatch(header, in, ec);
      if (left_buffer) break;
      ++packet_count;
      if (!running || valid_count == 0) break;
    } else {
      fill_buffer_without_check(in);
      if (valid_count == 0) break;
    }
  }
  if (header.id[0] == '\0' && !ec) ec = parser_error(errc::HeaderNotFound);
  running = false;
}

void ArtNetParser::parse(const char* path, std::error_code& ec) {
  std::ifstream file(path, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    ec = parser_error(errc::FileNotFound);
    return;
  }
  parse(file, ec);
}

void ArtNetParser::dispatch(ArtHeader& header, std::istream& in, std::error_code& ec) {
  switch (header.opcode) {
    case OpPoll:
      parse_artpoll(header, in, ec);
      break;
    case OpPollReply:
      parse_artpollreply(header, in, ec);
      break;
    case OpDmx:
      parse_artdmx(header, in, ec);
      break;
    case OpOemVfps:
      parse_artoemvfps(header, in, ec);
      break;
    case OpOemVfpsNs:
      parse_artoemvfpsns(header, in, ec);
      break;
    case OpTrigger:
      parse_trigger(header, in, ec);
      break;
    default:
      parse_unknown(header, in, ec);
      break;
  }
}

bool ArtNetParser::read_body(void* body, std::uint32_t n, std::istream& in, std::error_code& ec) {
  copy_with_populate(body, n, in, ec);
  return !ec && !left_buffer;
}

void ArtNetParser::parse_artpoll(ArtHeader& header, std::istream& in, std::error_code& ec) {
  if (!on_poll) return;
  auto poll = record_with<ArtPoll>(header);
  if (read_body(body_of(poll), kPollBody, in, ec)) on_poll(poll);
}

void ArtNetParser::parse_artpollreply(ArtHeader& header, std::istream& in, std::error_code& ec) {
  if (!on_poll_reply) return;
  // The reply is assumed to begin the fill, so the fill's length is its length, and a short reply is copied
  // as far as it goes. A fill shorter than a header is a truncated packet, if the header ends in it.
  if (valid_count < sizeof(ArtHeader)) {
    if (from_stale_bytes())
      left_buffer = true;
    else
      ec = parser_error(errc::UnexpectedEnd);
    return;
  }
  const std::uint32_t size = valid_count > sizeof(ArtPollReply)
                                 ? kPollReplyBody
                                 : valid_count - static_cast<std::uint32_t>(sizeof(ArtHeader));
  auto reply = record_with<ArtPollReply>(header);
  if (!read_body(body_of(reply), size, in, ec)) return;
  reply.vers_info = swap_word(reply.vers_info);
  reply.oem = swap_word(reply.oem);
  reply.num_ports = swap_word(reply.num_ports);
  reply.short_name[sizeof reply.short_name - 1] = '\0';
  reply.long_name[sizeof reply.long_name - 1] = '\0';
  reply.node_report[sizeof reply.node_report - 1] = '\0';
  on_poll_reply(reply);
}

void ArtNetParser::parse_artdmx(ArtHeader& header, std::istream& in, std::error_code& ec) {
  ArtDmx dmx;
  dmx.header = header;
  if (!read_body(body_of(dmx), kDmxFields, in, ec)) return;
  dmx.length = swap_word(dmx.length);
  if (dmx.length > kDmxSlots) {
    if (on_error) on_error(parser_error(errc::DataOversized));
    return;
  }
  if (!read_body(dmx.data, dmx.length, in, ec)) return;
  memset(dmx.data + dmx.length, 0, kDmxSlots - dmx.length);
  if (on_dmx) on_dmx(dmx);
}

void ArtNetParser::parse_artoemvfps(ArtHeader& header, std::istream& in, std::error_code& ec) {
  auto oem = record_with<ArtOemVfps>(header);
  if (!read_body(oem.payload, sizeof oem.payload, in, ec)) return;
  if (on_oem_vfps) on_oem_vfps(oem);
}

void ArtNetParser::parse_artoemvfpsns(ArtHeader& header, std::istream& in, std::error_code& ec) {
  auto oem = record_with<ArtOemVfpsNs>(header);
  if (!read_body(oem.payload, sizeof oem.payload, in, ec)) return;
  if (on_oem_vfps_ns) on_oem_vfps_ns(oem);
}

void ArtNetParser::parse_trigger(ArtHeader& header, std::istream& in, std::error_code& ec) {
  auto trigger = record_with<ArtTrigger>(header);
  if (!read_body(body_of(trigger), kTriggerFields, in, ec)) return;
  trigger.prot_ver = swap_word(trigger.prot_ver);
  trigger.oem_code = swap_word(trigger.oem_code);
  if (on_trigger) on_trigger(trigger);
}

void ArtNetParser::parse_unknown(ArtHeader& header, std::istream& /*in*/, std::error_code& /*ec*/) {
  if (on_unknown) on_unknown(header);
}
