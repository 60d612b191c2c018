#include "src/DetectedNode.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <type_traits>

namespace {

/// Copies up to the terminating zero, or all but the last byte. @p target is zeroed already.
template <std::size_t size>
void copy_text(char (&target)[size], const char (&source)[size]) {
  std::memcpy(target, source, strnlen(source, size - 1));
}

}  // namespace

static_assert(std::is_trivially_copyable_v<DetectedNode> && alignof(DetectedNode) == 1,
              "compared byte for byte, so nothing lies between the fields");

DetectedNode::DetectedNode(const ArtPollReply& reply, int index)
    : port_bytes{static_cast<quint8>(reply.port >> 8U), static_cast<quint8>(reply.port)} {
  set_port(reply, index);
  char* end = ip_text;
  for (const std::uint8_t number : reply.ip) {
    if (end != ip_text) *end++ = '.';
    end = std::to_chars(end, std::end(ip_text), static_cast<unsigned>(number)).ptr;
  }
  copy_text(short_name, reply.short_name);
  copy_text(long_name, reply.long_name);
}

void DetectedNode::set_port(const ArtPollReply& reply, int index) {
  const unsigned sub_net = (static_cast<unsigned>(reply.sub_switch) << 4U) & 0xFFU;
  universe_bytes[0] = reply.net_switch;
  universe_bytes[1] = static_cast<quint8>(sub_net | (reply.sw_out[index] & 0x0FU));
}

ArtnetNode DetectedNode::record() const {
  return {-1,
          QString::fromLatin1(static_cast<const char*>(short_name)),
          QString::fromLatin1(static_cast<const char*>(long_name)),
          universe(),
          QString::fromLatin1(static_cast<const char*>(ip_text)),
          port()};
}

bool operator<(const DetectedNode& a, const DetectedNode& b) {
  return std::memcmp(&a, &b, sizeof a) < 0;
}

bool operator==(const DetectedNode& a, const DetectedNode& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

bool is_accepted_port(const ArtPollReply& reply, int index) {
  const unsigned type = reply.port_types[index];
  const unsigned protocol = type & 0x3FU;
  return (type & 0x80U) != 0 && (protocol == 0 || protocol == 5);
}
