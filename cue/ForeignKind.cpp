#include "cue/ForeignKind.h"

#include <algorithm>
#include <array>
#include <utility>

namespace cue {
namespace {

constexpr const char* kCapture = "a capture, see kadrel-cue import";

struct Mark {
  std::string bytes;
  const char* kind;
};

/// First bytes of the formats that are met beside recordings: pcap-savefile(5) in both byte orders, with
/// microseconds and nanoseconds; pcapng; RFC 1952.
const std::array<Mark, 9>& marks() {
  static const std::array<Mark, 9> all = {{{"\xA1\xB2\xC3\xD4", kCapture},
                                           {"\xD4\xC3\xB2\xA1", kCapture},
                                           {"\xA1\xB2\x3C\x4D", kCapture},
                                           {"\x4D\x3C\xB2\xA1", kCapture},
                                           {"\x0A\x0D\x0D\x0A", kCapture},
                                           {"\x1F\x8B", "compressed with gzip, see kadrel-cue import"},
                                           {"PSEQ", "an FSEQ sequence, see kadrel-cue import"},
                                           {"FSEQ", "an FSEQ sequence, see kadrel-cue import"},
                                           {"OLA Show", "a show of ola_recorder, see kadrel-cue import"}}};
  return all;
}

}  // namespace

std::string foreign_kind(const std::string& front) {
  for (const Mark& mark : marks())
    if (front.compare(0, mark.bytes.size(), mark.bytes) == 0) return mark.kind;
  return {};
}

std::string peek(ByteSource& source, std::size_t size) {
  std::string front(size, '\0');
  std::size_t length = 0;
  while (length < size) {
    const std::size_t count = source(reinterpret_cast<std::uint8_t*>(front.data()) + length, size - length);
    if (count == 0) break;
    length += count;
  }
  front.resize(length);
  source = [front, given = std::size_t{0}, rest = std::move(source)](std::uint8_t* bytes,
                                                                     std::size_t wanted) mutable {
    const std::size_t count = std::min(wanted, front.size() - given);
    if (count == 0) return rest(bytes, wanted);
    std::copy_n(front.begin() + static_cast<std::ptrdiff_t>(given), count, bytes);
    given += count;
    return count;
  };
  return front;
}

}  // namespace cue
