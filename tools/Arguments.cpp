#include "tools/Arguments.h"

#include <arpa/inet.h>

#include <limits>

#include "artnet/ArtNet.h"
#include "cue/Time.h"

namespace kadrel_cue {
namespace {

constexpr std::int64_t kMinute = 60 * cue::kSecond;
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

  /// The digits here as a number; nothing without digits or above @p highest.
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

  /// The digits after a decimal point in nanoseconds; finer ones are cut off.
  std::int64_t fraction() {
    std::int64_t value = 0;
    for (std::int64_t unit = cue::kSecond / 10; is_digit(); ++at, unit /= 10)
      value += unit * (text[at] - '0');
    return value;
  }

private:
  const std::string& text;
  std::size_t at = 0;
};

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
    // ".5" is half a second, "." alone is nothing.
    if (point ? !cursor.is_digit() : !has_digits) return std::nullopt;
    const std::int64_t fraction = point ? cursor.fraction() : 0;
    std::int64_t unit = cue::kSecond;
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

std::optional<cue::UniverseSet> parse_universes(const std::string& text) {
  Cursor cursor(text);
  cue::UniverseSet universes;
  do {
    const auto first = parse_universe(cursor, cue::UniverseSet::kPortAddresses);
    if (!first) return std::nullopt;
    auto last = first;
    if (cursor.take('-')) last = parse_universe(cursor, cue::UniverseSet::kPortAddresses);
    if (!last || *last < *first) return std::nullopt;
    for (unsigned port_address = *first; port_address <= *last; ++port_address)
      universes.insert(static_cast<std::uint16_t>(port_address));
  } while (cursor.take(','));
  if (!cursor.at_end()) return std::nullopt;
  return universes;
}

std::optional<std::pair<std::uint16_t, std::uint16_t>> parse_universe_change(const std::string& text) {
  Cursor cursor(text);
  const auto from = parse_universe(cursor, cue::UniverseSet::kPortAddresses);
  if (!from || !cursor.take('=')) return std::nullopt;
  const auto to = parse_universe(cursor, kUniverseLimit);
  if (!to || !cursor.at_end()) return std::nullopt;
  return std::make_pair(*from, *to);
}

std::optional<cue::Destination> parse_destination(const std::string& text, int default_port) {
  const std::size_t colon = text.find(':');
  cue::Destination destination{text.substr(0, colon), default_port};
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

}  // namespace kadrel_cue
