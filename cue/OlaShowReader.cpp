#include "cue/OlaShowReader.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "artnet/ArtNet.h"
#include "artnet/RecordingFormat.h"
#include "cue/CueError.h"
#include "cue/DmxDatagram.h"
#include "cue/Looks.h"
#include "cue/Text.h"
#include "cue/Time.h"

namespace cue {
namespace {

constexpr std::string_view kTitle = "OLA Show";
constexpr std::string_view kTitleV2 = "OLA Show V2";
constexpr std::int64_t kMillisecond = kSecond / 1000;
constexpr std::int64_t kMicrosecond = kMillisecond / 1000;
constexpr std::int64_t kLatest = std::numeric_limits<std::int64_t>::max();

// 512 levels, each with its comma and zeros before it or spaces around it, fit in.
constexpr std::size_t kLongestLine = 8192;

constexpr std::size_t kBufferSize = std::size_t{64} * 1024;

/// Lines of a text, without their ends: LF or CR LF.
class Lines {
public:
  explicit Lines(ByteSource from) : source(std::move(from)), buffer(kBufferSize) {}

  /// The next line; valid until the next call. @return nothing at the end, or when a line is too long
  std::optional<std::string_view> next() {
    for (;;) {
      const char* const from = buffer.data() + begin;
      const auto* const found = static_cast<const char*>(memchr(from, '\n', end - begin));
      const std::size_t size = found == nullptr ? end - begin : static_cast<std::size_t>(found - from);
      too_long = size > kLongestLine;
      if (too_long) return std::nullopt;
      if (found != nullptr || (at_end && size > 0)) {
        begin += size + (found == nullptr ? 0 : 1);
        ++count;
        return std::string_view(from, size > 0 && from[size - 1] == '\r' ? size - 1 : size);
      }
      if (at_end) return std::nullopt;
      fill();
    }
  }

  bool is_too_long() const { return too_long; }

  /// Number of the last line, from 1.
  std::uint64_t number() const { return count; }

private:
  void fill() {
    memmove(buffer.data(), buffer.data() + begin, end - begin);
    end -= begin;
    begin = 0;
    const std::size_t size =
        source(reinterpret_cast<std::uint8_t*>(buffer.data()) + end, buffer.size() - end);
    end += size;
    at_end = size == 0;
  }

  ByteSource source;
  std::vector<char> buffer;
  std::size_t begin = 0;
  std::size_t end = 0;
  std::uint64_t count = 0;
  bool at_end = false;
  bool too_long = false;
};

bool is_digit(char letter) {
  return letter >= '0' && letter <= '9';
}

bool is_space(char letter) {
  return letter == ' ' || letter == '\t';
}

std::string_view without_spaces(std::string_view text) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

/// The number that is the whole text; nothing for other text or above @p highest.
std::optional<std::int64_t> number(std::string_view text, std::int64_t highest) {
  if (text.empty()) return std::nullopt;
  std::int64_t value = 0;
  for (const char letter : text) {
    const int digit = letter - '0';
    if (!is_digit(letter) || digit > highest || value > (highest - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  return value;
}

/// Two words with spaces between them; the second may be empty. Nothing for one word without a space.
std::optional<std::pair<std::string_view, std::string_view>> two_words(std::string_view line) {
  while (!line.empty() && is_space(line.front())) line.remove_prefix(1);
  const std::size_t space = line.find_first_of(" \t");
  if (space == std::string_view::npos) return std::nullopt;
  return std::make_pair(line.substr(0, space), without_spaces(line.substr(space)));
}

/// The levels of "1,2,,4"; one that is left out is 0. @return false for other text and more than 512
bool parse_levels(std::string_view text, std::vector<std::uint8_t>& levels) {
  levels.clear();
  std::size_t at = 0;
  if (text.empty()) return true;
  for (;;) {
    while (at < text.size() && is_space(text[at])) ++at;
    unsigned level = 0;
    for (; at < text.size() && is_digit(text[at]); ++at) {
      level = level * 10 + static_cast<unsigned>(text[at] - '0');
      if (level > 255) return false;
    }
    while (at < text.size() && is_space(text[at])) ++at;
    if (levels.size() == kDmxSlots) return false;
    levels.push_back(static_cast<std::uint8_t>(level));
    if (at == text.size()) return true;
    if (text[at++] != ',') return false;
  }
}

/// Version of a show with this first line; nothing when it is none.
std::optional<int> version_of(std::string_view line) {
  line = without_spaces(line);
  if (line == kTitle) return 1;
  if (line == kTitleV2) return 2;
  return std::nullopt;
}

/// The times in a show of version 2: seconds, and a second number in milliseconds. There are readers that
/// take it as microseconds, and so files that hold these. A number from 1000 on can be nothing else, nor can
/// the numbers after it.
class Times {
public:
  /// @return ns; nothing when the line is not a time
  std::optional<std::int64_t> parse(std::string_view line) {
    const auto words = two_words(line);
    if (!words) return std::nullopt;
    const auto seconds = number(words->first, kLatest / kSecond - 1);
    const auto rest = number(words->second, kSecond / kMicrosecond);
    if (!seconds || !rest) return std::nullopt;
    if (*rest >= kSecond / kMillisecond) unit = kMicrosecond;
    return *seconds * kSecond + *rest * unit;
  }

private:
  std::int64_t unit = kMillisecond;  // ns
};

class OlaShowReader : public ForeignReader {
public:
  OlaShowReader(ByteSource source, const std::string& name) : lines(std::move(source)) {
    const auto title = lines.next();
    const auto found = title ? version_of(*title) : std::nullopt;
    if (!found) throw CueError(name + ": not an OLA show");
    version = *found;
  }

  bool next(ForeignDatagram& datagram) override {
    while (broken.empty()) {
      const auto line = lines.next();
      if (!line) {
        if (lines.is_too_long()) break_off("is too long", lines.number() + 1);
        break;
      }
      if (without_spaces(*line).empty()) continue;
      if (take_time(*line) || !take_frame(*line)) continue;
      sequences.number(packet.data(), packet.size());
      datagram = {packet.data(), packet.size(), time};
      return true;
    }
    return false;
  }

  std::string breaks_off() const override { return broken; }

  std::vector<std::string> losses() const override {
    std::vector<std::string> found;
    if (of_other_universes > 0)
      found.push_back(counted(of_other_universes, "frame") + " of universe 0 or above " +
                      std::to_string(UniverseSet::kPortAddresses));
    if (without_levels > 0) found.push_back(counted(without_levels, "frame") + " without levels");
    return found;
  }

private:
  void break_off(const std::string& why, std::uint64_t line) {
    broken = "line " + std::to_string(line) + " " + why;
  }

  /// @return whether the line is no frame: a time was taken, or the file is broken here
  bool take_time(std::string_view line) {
    if (version == 2) {
      time_comes = !time_comes;
      if (time_comes) return false;
      const auto found = times.parse(line);
      if (!found) break_off("is not a time", lines.number());
      time = std::max(time, found.value_or(0));
      return true;
    }
    // Levels stand after a space, a pause stands alone. A frame without levels is a number and a space.
    const auto words = two_words(line);
    if (words && !(time_comes && words->second.empty())) {
      time_comes = true;
      return false;
    }
    time_comes = false;
    const auto pause = number(without_spaces(line), (kLatest - time) / kMillisecond);
    if (!pause) break_off("is neither a frame nor a pause", lines.number());
    time += pause.value_or(0) * kMillisecond;
    return true;
  }

  /// @return whether there is a packet now
  bool take_frame(std::string_view line) {
    const auto words = two_words(line);
    const auto universe =
        words ? number(words->first, std::numeric_limits<std::uint32_t>::max()) : std::nullopt;
    if (!universe || !parse_levels(words->second, levels)) {
      break_off("is not a frame", lines.number());
      return false;
    }
    if (*universe == 0 || *universe > std::int64_t{UniverseSet::kPortAddresses}) {
      ++of_other_universes;
      return false;
    }
    if (levels.empty()) {
      ++without_levels;
      return false;
    }
    packet = make_dmx_datagram(static_cast<std::uint16_t>(*universe - 1), 1, levels.size());
    std::copy(levels.begin(), levels.end(), packet.begin() + kDmxHeaderSize);
    return true;
  }

  Lines lines;
  int version = 1;
  Times times;              // version 2
  bool time_comes = false;  // the last line was a frame
  std::int64_t time = 0;    // ns, of the next frame
  std::vector<std::uint8_t> levels;
  std::vector<std::uint8_t> packet;
  SequenceNumbers sequences;
  std::string broken;
  std::uint64_t of_other_universes = 0;
  std::uint64_t without_levels = 0;
};

}  // namespace

bool is_ola_show(const std::uint8_t* head, std::size_t size) {
  return size >= kTitle.size() && memcmp(head, kTitle.data(), kTitle.size()) == 0;
}

std::unique_ptr<ForeignReader> open_ola_show(ByteSource source, const std::string& name) {
  return std::make_unique<OlaShowReader>(std::move(source), name);
}

}  // namespace cue
