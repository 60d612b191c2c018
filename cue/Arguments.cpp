#include "cue/Arguments.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <limits>

#include "artnet/ArtNet.h"
#include "cue/CueError.h"

namespace cue {
namespace {

constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;

/// Reads text from front to back.
class Cursor {
public:
  explicit Cursor(const std::string& read) : text(read) {}

  bool at_end() const { return at == text.size(); }
  bool is_digit() const { return !at_end() && text[at] >= '0' && text[at] <= '9'; }

  bool take(char wanted) {
    if (at_end() || text[at] != wanted) return false;
    ++at;
    return true;
  }

  /// The digits here as a number; nothing without any, or when it is above @p highest.
  std::optional<std::int64_t> number(std::int64_t highest) {
    if (!is_digit()) return std::nullopt;
    std::int64_t value = 0;
    for (; is_digit(); ++at) {
      const int digit = text[at] - '0';
      if (value > (highest - digit) / 10) return std::nullopt;
      value = value * 10 + digit;
    }
    return value;
  }

  /// The digits behind a decimal point as nanoseconds; what is finer is cut off.
  std::int64_t fraction() {
    std::int64_t value = 0;
    for (std::int64_t unit = kSecond / 10; is_digit(); ++at, unit /= 10) value += unit * (text[at] - '0');
    return value;
  }

private:
  const std::string& text;
  std::size_t at = 0;
};

/// Length of the UTF-8 character at @p at, 0 when there is none (RFC 3629).
std::size_t utf8_length(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) {
    return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0;
  };
  const auto follows = [&](std::size_t i, int lowest = 0x80, int highest = 0xBF) {
    return byte(i) >= lowest && byte(i) <= highest;
  };
  const int lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return follows(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    const int lowest = lead == 0xE0 ? 0xA0 : 0x80;
    const int highest = lead == 0xED ? 0x9F : 0xBF;
    return follows(1, lowest, highest) && follows(2) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const int lowest = lead == 0xF0 ? 0x90 : 0x80;
    const int highest = lead == 0xF4 ? 0x8F : 0xBF;
    return follows(1, lowest, highest) && follows(2) && follows(3) ? 4 : 0;
  }
  return 0;
}

std::optional<std::uint16_t> parse_universe(Cursor& cursor, std::int64_t highest) {
  const auto number = cursor.number(highest);
  if (!number || *number == 0) return std::nullopt;
  return static_cast<std::uint16_t>(*number - 1);
}

}  // namespace

std::optional<std::int64_t> parse_time(const std::string& text) {
  Cursor cursor(text);
  std::int64_t total = 0;
  std::int64_t last_unit = std::numeric_limits<std::int64_t>::max();
  const auto add = [&total](std::int64_t count, std::int64_t unit) {
    const std::int64_t room = std::numeric_limits<std::int64_t>::max() - total;
    if (count > room / unit) return false;
    total += count * unit;
    return true;
  };
  if (cursor.at_end()) return std::nullopt;
  while (!cursor.at_end()) {
    const bool has_digits = cursor.is_digit();
    const auto whole = has_digits ? cursor.number(std::numeric_limits<std::int64_t>::max()) : 0;
    if (!whole) return std::nullopt;
    const bool point = cursor.take('.');
    // ".5" is half a second; without digits on either side it is nothing.
    if (point ? !cursor.is_digit() : !has_digits) return std::nullopt;
    const std::int64_t fraction = point ? cursor.fraction() : 0;
    std::int64_t unit = kSecond;
    if (!point && cursor.take('h')) {
      unit = kHour;
    } else if (!point && cursor.take('m')) {
      unit = kMinute;
    } else {
      cursor.take('s');
      if (!cursor.at_end()) return std::nullopt;
    }
    if (unit >= last_unit || !add(*whole, unit) || !add(fraction, 1)) return std::nullopt;
    last_unit = unit;
  }
  return total;
}

std::int64_t add_times(std::int64_t a, std::int64_t b) {
  if (b > std::numeric_limits<std::int64_t>::max() - a) throw CueError("longer than 292 years");
  return a + b;
}

std::string format_time(std::int64_t nanoseconds) {
  constexpr std::int64_t kMillisecond = kSecond / 1000;
  const std::int64_t ms =
      nanoseconds / kMillisecond + (nanoseconds % kMillisecond >= kMillisecond / 2 ? 1 : 0);
  const auto hours = static_cast<long long>(ms / 3'600'000);
  const auto minutes = static_cast<int>(ms / 60'000 % 60);
  const auto seconds = static_cast<int>(ms / 1000 % 60);
  const auto rest = static_cast<int>(ms % 1000);
  char text[48];
  if (hours > 0)
    snprintf(text, sizeof text, "%lldh%02dm%02d.%03ds", hours, minutes, seconds, rest);
  else if (minutes > 0)
    snprintf(text, sizeof text, "%dm%02d.%03ds", minutes, seconds, rest);
  else
    snprintf(text, sizeof text, "%d.%03d s", seconds, rest);
  return text;
}

std::optional<UniverseSet> parse_universes(const std::string& text) {
  Cursor cursor(text);
  UniverseSet universes;
  do {
    const auto first = parse_universe(cursor, UniverseSet::kPortAddresses);
    if (!first) return std::nullopt;
    auto last = first;
    if (cursor.take('-')) last = parse_universe(cursor, UniverseSet::kPortAddresses);
    if (!last || *last < *first) return std::nullopt;
    for (unsigned port_address = *first; port_address <= *last; ++port_address)
      universes.insert(static_cast<std::uint16_t>(port_address));
  } while (cursor.take(','));
  if (!cursor.at_end()) return std::nullopt;
  return universes;
}

std::optional<std::pair<std::uint16_t, std::uint16_t>> parse_universe_change(const std::string& text) {
  Cursor cursor(text);
  const auto from = parse_universe(cursor, UniverseSet::kPortAddresses);
  if (!from || !cursor.take('=')) return std::nullopt;
  const auto to = parse_universe(cursor, kUniverseLimit);
  if (!to || !cursor.at_end()) return std::nullopt;
  return std::make_pair(*from, *to);
}

std::optional<Destination> parse_destination(const std::string& text, int default_port) {
  const std::size_t colon = text.find(':');
  Destination destination{text.substr(0, colon), default_port};
  in_addr address{};
  if (inet_pton(AF_INET, destination.address.c_str(), &address) != 1) return std::nullopt;
  if (colon == std::string::npos) return destination;
  const std::string port_text = text.substr(colon + 1);
  Cursor cursor(port_text);
  const auto port = cursor.number(65535);
  if (!port || *port == 0 || !cursor.at_end()) return std::nullopt;
  destination.port = static_cast<int>(*port);
  return destination;
}

std::string port_address_text(std::uint16_t port_address) {
  char text[24];
  snprintf(text, sizeof text, "%d/%d/%d", port_address >> 8, (port_address >> 4) & 0x0F, port_address & 0x0F);
  return text;
}

std::string json_string(const std::string& text) {
  std::string json = "\"";
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = utf8_length(text, at);
    const auto byte = static_cast<unsigned char>(text[at]);
    if (length == 0) {
      json += "\xEF\xBF\xBD";
    } else if (byte == '"' || byte == '\\') {
      json += {'\\', text[at]};
    } else if (byte < 0x20) {
      char escape[8];
      snprintf(escape, sizeof escape, "\\u%04x", byte);
      json += escape;
    } else {
      json.append(text, at, length);
    }
    at += std::max<std::size_t>(length, 1);
  }
  return json + "\"";
}

}  // namespace cue
