#include "tools/TrafficWords.h"

#include <array>
#include <charconv>
#include <cstdio>

#include "artnet/ArtNet.h"

namespace kadrel_cue {

const char* protocol_name(cue::Protocol protocol) {
  return protocol == cue::Protocol::Sacn ? "sacn" : "artnet";
}

std::string ipv4_text(std::uint32_t address) {
  std::array<char, 16> text{};
  snprintf(text.data(), text.size(), "%u.%u.%u.%u", address >> 24, address >> 16 & 0xFF, address >> 8 & 0xFF,
           address & 0xFF);
  return text.data();
}

std::optional<std::string> net_address_text(std::uint16_t universe) {
  if (universe >= kUniverseLimit) return std::nullopt;
  return std::to_string(universe >> 8) + ":" + std::to_string(universe >> 4 & 0x0F) + ":" +
         std::to_string(universe & 0x0F);
}

std::string cid_text(const cue::SacnCid& cid) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (std::size_t at = 0; at < cid.size(); ++at) {
    if (at == 4 || at == 6 || at == 8 || at == 10) text += '-';
    text += kDigits[cid[at] >> 4];
    text += kDigits[cid[at] & 0x0F];
  }
  return text;
}

std::string decimal_text(double number, int decimals) {
  // The longest double has 309 digits before its point.
  std::array<char, 400> text{};
  char* const end =
      std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed, decimals).ptr;
  return {text.data(), end};
}

std::string decimal_seconds(std::int64_t time) {
  constexpr std::int64_t kMillisecond = 1'000'000;
  std::int64_t milliseconds = time / kMillisecond;
  if (time % kMillisecond < 0) --milliseconds;
  const bool is_negative = milliseconds < 0;
  if (is_negative) milliseconds = -milliseconds;
  std::array<char, 32> text{};
  snprintf(text.data(), text.size(), "%s%lld.%03d", is_negative ? "-" : "",
           static_cast<long long>(milliseconds / 1000), static_cast<int>(milliseconds % 1000));
  return text.data();
}

}  // namespace kadrel_cue
