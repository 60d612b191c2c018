#include "tools/Arguments.h"

#include <arpa/inet.h>

#include <cstring>
#include <limits>

#include "artnet/ArtNet.h"
#include "cue/Time.h"

namespace kadrel_cue {
namespace {

constexpr std::int64_t kMillisecond = cue::kSecond / 1000;
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
      if (digit > highest || value > (highest - digit) / 10) return std::nullopt;
      value = value * 10 + digit;
    }
    return value;
  }

  /// The digits after a decimal point, in nanoseconds; finer ones are cut off.
  /// @param unit  ns of the number before the point
  std::int64_t fraction(std::int64_t unit) {
    std::int64_t value = 0;
    for (unit /= 10; is_digit(); ++at, unit /= 10) value += unit * (text[at] - '0');
    return value;
  }

  bool take(const char* word) {
    const std::size_t length = std::strlen(word);
    if (text.compare(at, length, word) != 0) return false;
    at += length;
    return true;
  }

  void pass_blanks() {
    while (take(' ')) continue;
  }

  std::size_t position() const { return at; }
  void go_to(std::size_t position) { at = position; }

private:
  const std::string& text;
  std::size_t at = 0;
};

/// Adds up the parts of a time.
class TimeSum {
public:
  /// @return false when the sum is too long
  bool add(std::int64_t count, std::int64_t unit) {
    if (count > (std::numeric_limits<std::int64_t>::max() - sum) / unit) return false;
    sum += count * unit;
    return true;
  }

  std::int64_t total() const { return sum; }

private:
  std::int64_t sum = 0;
};

/// A number of two digits below 60.
std::optional<std::int64_t> read_sixtieth(Cursor& cursor) {
  const std::size_t begin = cursor.position();
  const auto number = cursor.number(59);
  if (!number || cursor.position() - begin != 2) return std::nullopt;
  return number;
}

/// "M:SS" or "H:MM:SS", with or without decimals.
bool read_clock(Cursor& cursor, TimeSum& sum) {
  const auto first = cursor.number(std::numeric_limits<std::int64_t>::max());
  if (!first || !cursor.take(':')) return false;
  auto seconds = read_sixtieth(cursor);
  if (!seconds) return false;
  if (cursor.take(':')) {
    if (!sum.add(*first, kHour) || !sum.add(*seconds, kMinute)) return false;
    seconds = read_sixtieth(cursor);
    if (!seconds) return false;
  } else if (!sum.add(*first, kMinute)) {
    return false;
  }
  if (!sum.add(*seconds, cue::kSecond)) return false;
  if (cursor.take('.') && (!cursor.is_digit() || !sum.add(cursor.fraction(cue::kSecond), 1))) return false;
  return cursor.at_end();
}

/// The unit here in ns, with or without blanks before it; seconds where there is none.
std::int64_t read_unit(Cursor& cursor) {
  const std::size_t before = cursor.position();
  cursor.pass_blanks();
  if (cursor.take("ms")) return kMillisecond;
  if (cursor.take("min") || cursor.take('m')) return kMinute;
  if (cursor.take('h')) return kHour;
  if (!cursor.take('s')) cursor.go_to(before);
  return cue::kSecond;
}

/// Numbers with their units, from the longest to the shortest. Seconds and milliseconds may have decimals,
/// and are the last.
bool read_units(Cursor& cursor, TimeSum& sum) {
  std::int64_t last_unit = std::numeric_limits<std::int64_t>::max();
  do {
    const bool has_digits = cursor.is_digit();
    const auto whole = has_digits ? cursor.number(std::numeric_limits<std::int64_t>::max()) : 0;
    if (!whole) return false;
    const bool has_point = cursor.take('.');
    // ".5" is half a second, "." alone is nothing.
    if (has_point ? !cursor.is_digit() : !has_digits) return false;
    const std::size_t digits = cursor.position();
    cursor.fraction(cue::kSecond);  // the unit is behind it
    const std::int64_t unit = read_unit(cursor);
    const std::size_t end = cursor.position();
    if (unit >= last_unit || (has_point && unit > cue::kSecond)) return false;
    cursor.go_to(digits);
    if (!sum.add(*whole, unit) || !sum.add(cursor.fraction(unit), 1)) return false;
    cursor.go_to(end);
    last_unit = unit;
    if (unit > cue::kSecond) cursor.pass_blanks();
  } while (last_unit > cue::kSecond && !cursor.at_end());
  return cursor.at_end();
}

std::optional<std::uint16_t> parse_universe(Cursor& cursor, std::int64_t highest) {
  const auto number = cursor.number(highest);
  if (!number || *number == 0) return std::nullopt;
  return static_cast<std::uint16_t>(*number - 1);
}

}  // namespace

std::optional<std::int64_t> parse_time(const std::string& text) {
  Cursor cursor(text);
  TimeSum sum;
  const bool is_clock = text.find(':') != std::string::npos;
  if (is_clock ? !read_clock(cursor, sum) : !read_units(cursor, sum)) return std::nullopt;
  return sum.total();
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
