#include "tools/PlayWords.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

#include "cue/Sacn.h"
#include "tools/Arguments.h"

namespace kadrel_cue {
namespace {

constexpr std::uint64_t kMostPasses = std::uint64_t{1} << 63;

constexpr double kSlowest = 0.01;
constexpr double kFastest = 100;

constexpr int kMostPercent = 100;

/// All of a text as a number; nothing for other text.
template <typename Number, typename... Format>
std::optional<Number> number_of(const std::string& text, Format... format) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, format...);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

/// Bytes of the UTF-8 character at @p at; 0 when there is none.
std::size_t character_at(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0U;
  };
  const unsigned first = byte(at);
  const std::size_t size = first < 0x80 ? 1 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if ((first >= 0x80 && first < 0xC2) || first > 0xF4) return 0;
  for (std::size_t next = 1; next < size; ++next)
    if ((byte(at + next) & 0xC0U) != 0x80) return 0;
  return size;
}

}  // namespace

std::optional<Passes> parse_passes(const std::string& text) {
  if (text == "forever") return Passes{};
  const auto count = number_of<std::uint64_t>(text);
  if (!count || *count == 0 || *count > kMostPasses) return std::nullopt;
  return Passes{count};
}

std::optional<Speed> parse_speed(const std::string& text) {
  if (!text.empty() && text.back() == 'x') {
    const auto factor = number_of<double>(text.substr(0, text.size() - 1), std::chars_format::fixed);
    if (!factor || !(*factor >= kSlowest && *factor <= kFastest)) return std::nullopt;
    return Speed{0, factor};
  }
  const auto percent = number_of<int>(text);
  if (!percent || *percent < -kMostPercent || *percent > kMostPercent) return std::nullopt;
  return Speed{*percent, std::nullopt};
}

std::optional<cue::Target> parse_target(const std::string& text) {
  cue::Target target;
  const std::size_t equals = text.find('=');
  if (equals != std::string::npos) {
    target.universes = parse_universes(text.substr(0, equals));
    if (!target.universes) return std::nullopt;
  }
  const auto to = parse_destination(equals == std::string::npos ? text : text.substr(equals + 1), 0);
  if (!to) return std::nullopt;
  target.to = *to;
  return target;
}

std::optional<std::string> parse_source_name(const std::string& text) {
  if (text.empty() || text.size() > cue::kSacnNameSize) return std::nullopt;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = character_at(text, at);
    if (size == 0) return std::nullopt;
    at += size;
  }
  return text;
}

}  // namespace kadrel_cue
