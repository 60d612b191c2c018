#include "cue/Pcapng.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "cue/Time.h"

namespace cue {
namespace {

constexpr std::uint32_t kSectionHeader = 0x0A0D0D0A;  // the same in both byte orders
constexpr std::uint32_t kInterfaceDescription = 1;
constexpr std::uint32_t kObsoletePacket = 2;
constexpr std::uint32_t kSimplePacket = 3;
constexpr std::uint32_t kEnhancedPacket = 6;

constexpr std::uint32_t kByteOrder = 0x1A2B3C4D;
constexpr std::size_t kBlockHeader = 8;   // type and length
constexpr std::size_t kBlockTrailer = 4;  // the length again
constexpr std::size_t kSectionBody = 16;

constexpr std::uint16_t kEndOfOptions = 0;
constexpr std::uint16_t kTimeResolution = 9;
constexpr std::uint16_t kTimeOffset = 14;

// As libpcap: more than any frame needs, and a bound for the memory.
constexpr std::uint32_t kLongestBlock = std::uint32_t{16} << 20;
constexpr std::size_t kMostInterfaces = 65536;

constexpr std::size_t kBufferSize = std::size_t{256} * 1024;

std::uint64_t power_of_ten(unsigned exponent) {
  std::uint64_t power = 1;
  for (; exponent > 0; --exponent) power *= 10;
  return power;
}

/// Whole seconds and the nanoseconds behind them.
struct SplitTime {
  std::uint64_t seconds = 0;
  std::uint64_t nanoseconds = 0;
};

SplitTime split_decimal(std::uint64_t units, unsigned exponent) {
  constexpr unsigned kNano = 9;
  constexpr unsigned kLargest = 19;  // power of ten in 64 bits
  if (exponent > kLargest) {
    // Not even all bits together make a whole second.
    return {0, exponent - kNano > kLargest ? 0 : units / power_of_ten(exponent - kNano)};
  }
  const std::uint64_t second = power_of_ten(exponent);
  const std::uint64_t rest = units % second;
  return {units / second,
          exponent <= kNano ? rest * power_of_ten(kNano - exponent) : rest / power_of_ten(exponent - kNano)};
}

SplitTime split_binary(std::uint64_t units, unsigned exponent) {
  constexpr unsigned kBits = 64;
  constexpr unsigned kFine = 32;  // bits of a second that are finer than a nanosecond, and can be multiplied
  SplitTime time;
  if (exponent < kBits) {
    time.seconds = units >> exponent;
    units -= time.seconds << exponent;
  }
  if (exponent > kFine) {
    units = exponent - kFine < kBits ? units >> (exponent - kFine) : 0;
    exponent = kFine;
  }
  time.nanoseconds = (units * static_cast<std::uint64_t>(kSecond)) >> exponent;
  return time;
}

std::uint16_t reversed(std::uint16_t value) {
  return __builtin_bswap16(value);
}
std::uint32_t reversed(std::uint32_t value) {
  return __builtin_bswap32(value);
}

template <typename Value>
Value get(const std::uint8_t* at, bool big_endian) {
  Value value = 0;
  memcpy(&value, at, sizeof value);
  return big_endian ? reversed(value) : value;
}

}  // namespace

std::optional<std::int64_t> pcapng_time(std::uint64_t units, std::uint8_t resolution, std::int64_t offset) {
  const unsigned exponent = resolution & 0x7FU;
  const SplitTime time =
      (resolution & 0x80U) != 0 ? split_binary(units, exponent) : split_decimal(units, exponent);
  if (time.seconds > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
    return std::nullopt;
  std::int64_t total = 0;
  if (__builtin_add_overflow(static_cast<std::int64_t>(time.seconds), offset, &total) ||
      __builtin_mul_overflow(total, kSecond, &total) ||
      __builtin_add_overflow(total, static_cast<std::int64_t>(time.nanoseconds), &total))
    return std::nullopt;
  return total;
}

bool begins_pcapng(const std::uint8_t* head, std::size_t size) {
  if (size < kBlockHeader + sizeof kByteOrder || get<std::uint32_t>(head, false) != kSectionHeader)
    return false;
  const auto order = get<std::uint32_t>(head + kBlockHeader, false);
  return order == kByteOrder || reversed(order) == kByteOrder;
}

PcapngReader::PcapngReader(ByteSource source) : from(std::move(source)), buffer(kBufferSize) {}

std::uint16_t PcapngReader::get16(const std::uint8_t* at) const {
  return get<std::uint16_t>(at, big_endian);
}

std::uint32_t PcapngReader::get32(const std::uint8_t* at) const {
  return get<std::uint32_t>(at, big_endian);
}

/// Makes @p size bytes available at data(). @return false when the file ends before
bool PcapngReader::have(std::size_t size) {
  while (end - begin < size) {
    if (buffer.size() - begin < size) {
      std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(begin),
                buffer.begin() + static_cast<std::ptrdiff_t>(end), buffer.begin());
      base += begin;
      end -= std::exchange(begin, 0);
      if (buffer.size() < size) buffer.resize(size);
    }
    const std::size_t count = from(buffer.data() + end, buffer.size() - end);
    if (count == 0) return false;
    end += count;
  }
  return true;
}

/// Passes over the next @p size bytes. @return false when the file ends before
bool PcapngReader::skip(std::uint32_t size) {
  while (size > 0) {
    if (!have(1)) return false;
    const std::size_t step = std::min<std::size_t>(size, end - begin);
    begin += step;
    size -= static_cast<std::uint32_t>(step);
  }
  return true;
}

bool PcapngReader::broken(const std::string& what) {
  error = "byte " + std::to_string(base + begin) + ": " + what;
  return false;
}

/// Takes the byte order of the section whose header is at data().
bool PcapngReader::begin_section() {
  if (!have(kBlockHeader + kSectionBody)) return broken("cut off within a block");
  const auto order = get<std::uint32_t>(data() + kBlockHeader, false);
  if (order != kByteOrder && reversed(order) != kByteOrder) return broken("a section of unknown byte order");
  big_endian = order != kByteOrder;
  interfaces_before += static_cast<std::uint32_t>(interfaces.size());
  interfaces.clear();
  return true;
}

/// The next block that describes an interface or holds a frame. @return false at the end
bool PcapngReader::next_block(Block& block) {
  for (;;) {
    begin += std::exchange(passed, 0);
    if (!have(kBlockHeader)) return begin == end ? false : broken("cut off within a block");
    const bool is_section = get<std::uint32_t>(data(), false) == kSectionHeader;
    if (is_section && !begin_section()) return false;
    block.type = get32(data());
    const std::uint32_t length = get32(data() + 4);
    if (length < kBlockHeader + kBlockTrailer || length % 4 != 0)
      return broken("a block of " + std::to_string(length) + " bytes");
    const bool is_wanted = block.type == kInterfaceDescription || block.type == kObsoletePacket ||
                           block.type == kSimplePacket || block.type == kEnhancedPacket;
    if (!is_wanted) {
      if (!skip(length)) return broken("cut off within a block");
      continue;
    }
    if (length > kLongestBlock) return broken("a block of " + std::to_string(length) + " bytes");
    if (!have(length)) return broken("cut off within a block");
    if (get32(data() + length - kBlockTrailer) != length) return broken("a block whose two lengths differ");
    block.body = {data() + kBlockHeader, length - kBlockHeader - kBlockTrailer};
    passed = length;
    return true;
  }
}

bool PcapngReader::take_interface(const Bytes& body) {
  constexpr std::size_t kFields = 8;
  if (body.size < kFields) return broken("an interface description that is too short");
  if (interfaces.size() >= kMostInterfaces) return broken("too many interfaces");
  Interface interface;
  interface.link_type = get16(body.data);
  interface.snap_length = get32(body.data + 4);
  for (std::size_t at = kFields; body.size - at >= 4;) {
    const std::uint16_t code = get16(body.data + at);
    const std::size_t size = get16(body.data + at + 2);
    at += 4;
    if (code == kEndOfOptions || size > body.size - at) break;
    const std::uint8_t* const value = body.data + at;
    if (code == kTimeResolution && size >= 1) interface.resolution = value[0];
    if (code == kTimeOffset && size >= 8) {
      const std::uint64_t low = get32(value + (big_endian ? 4 : 0));
      const std::uint64_t high = get32(value + (big_endian ? 0 : 4));
      interface.offset = static_cast<std::int64_t>(high << 32 | low);
    }
    at += std::min((size + 3) / 4 * 4, body.size - at);
  }
  interfaces.push_back(interface);
  return true;
}

/// Frame of an enhanced or obsolete packet block.
bool PcapngReader::take_frame(const Block& block, Frame& frame) {
  constexpr std::size_t kFields = 20;
  if (block.body.size < kFields) return broken("a frame without its fields");
  const std::uint8_t* const fields = block.body.data;
  const std::uint32_t number = block.type == kEnhancedPacket ? get32(fields) : get16(fields);
  if (number >= interfaces.size()) return broken("a frame of an interface that is not described");
  const Interface& interface = interfaces[number];
  const std::uint32_t captured = get32(fields + 12);
  if (captured > block.body.size - kFields) return broken("a frame longer than its block");
  const std::uint64_t units = static_cast<std::uint64_t>(get32(fields + 4)) << 32 | get32(fields + 8);
  frame.link_type = interface.link_type;
  frame.interface = interfaces_before + number;
  frame.bytes = {fields + kFields, captured};
  frame.time = pcapng_time(units, interface.resolution, interface.offset);
  return true;
}

/// A simple packet block belongs to the first interface and tells no time.
bool PcapngReader::take_simple_frame(const Bytes& body, Frame& frame) {
  constexpr std::size_t kFields = 4;
  if (body.size < kFields) return broken("a frame without its fields");
  if (interfaces.empty()) return broken("a frame of an interface that is not described");
  const Interface& interface = interfaces.front();
  std::size_t captured = std::min<std::size_t>(get32(body.data), body.size - kFields);
  if (interface.snap_length != 0) captured = std::min<std::size_t>(captured, interface.snap_length);
  frame.link_type = interface.link_type;
  frame.interface = interfaces_before;
  frame.bytes = {body.data + kFields, captured};
  frame.time.reset();
  return true;
}

bool PcapngReader::next(Frame& frame) {
  Block block;
  while (error.empty() && next_block(block)) {
    if (block.type == kSimplePacket) return take_simple_frame(block.body, frame);
    if (block.type != kInterfaceDescription) return take_frame(block, frame);
    if (!take_interface(block.body)) return false;
  }
  return false;
}

}  // namespace cue
