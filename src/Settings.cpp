#include "src/Settings.h"

#include <charconv>
#include <cstring>
#include <string_view>

#include "artnet/ArtNet.h"

namespace {

/// Whole decimal number that fills @p text from its first to its last character.
std::optional<int> parse_int(const char* text) {
  int value = 0;
  const char* const end = text + strlen(text);
  const auto result = std::from_chars(text, end, value);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return value;
}

}  // namespace

std::optional<std::int32_t> parse_universe_count(const char* text) {
  const auto count = parse_int(text);
  if (!count || *count < 1 || *count > kUniverseLimit) return std::nullopt;
  return count;
}

std::optional<int> parse_log_level(const char* text) {
  return parse_int(text);
}

std::optional<kesto::Logger::Output> parse_log_output(const char* text) {
  const std::string_view name = text;
  if (name == "syslog") return kesto::Logger::Syslog;
  if (name == "console") return kesto::Logger::Console;
  if (name == "none") return kesto::Logger::None;
  return std::nullopt;
}
