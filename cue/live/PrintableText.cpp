#include "cue/live/PrintableText.h"

#include <algorithm>
#include <array>
#include <optional>

namespace cue {
namespace {

/// A character of UTF-8.
struct Character {
  char32_t code = 0;
  std::size_t size = 0;  // bytes
};

/// The character at the front (RFC 3629: shortest form, no surrogates, U+10FFFF at most).
/// @return nothing when there is none
std::optional<Character> first_character(const std::uint8_t* bytes, std::size_t size) {
  if (bytes[0] < 0x80) return Character{bytes[0], 1};
  const std::size_t length = bytes[0] >= 0xF0 ? 4 : bytes[0] >= 0xE0 ? 3 : 2;
  if (bytes[0] < 0xC2 || bytes[0] > 0xF4 || size < length) return std::nullopt;
  char32_t code = bytes[0] & (0x7FU >> length);
  for (std::size_t at = 1; at < length; ++at) {
    if ((bytes[at] & 0xC0) != 0x80) return std::nullopt;
    code = code << 6 | (bytes[at] & 0x3FU);
  }
  constexpr std::array<char32_t, 5> kShortest = {0, 0, 0x80, 0x800, 0x10000};
  const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < kShortest[length] || is_surrogate || code > 0x10FFFF) return std::nullopt;
  return Character{code, length};
}

bool is_utf8(const std::uint8_t* bytes, std::size_t size) {
  while (size > 0) {
    const std::optional<Character> character = first_character(bytes, size);
    if (!character) return false;
    bytes += character->size;
    size -= character->size;
  }
  return true;
}

bool is_shown(char32_t code) {
  struct Range {
    char32_t first;
    char32_t last;
  };
  // Unicode 15, categories Cc, Cf, Zl and Zp, and the noncharacters at the end of the first plane.
  constexpr std::array<Range, 22> kHidden = {
      {{0, 0x1F},          {0x7F, 0x9F},       {0xAD, 0xAD},       {0x600, 0x605},     {0x61C, 0x61C},
       {0x6DD, 0x6DD},     {0x70F, 0x70F},     {0x890, 0x891},     {0x8E2, 0x8E2},     {0x180E, 0x180E},
       {0x200B, 0x200F},   {0x2028, 0x202E},   {0x2060, 0x206F},   {0xFEFF, 0xFEFF},   {0xFFF0, 0xFFFB},
       {0xFFFE, 0xFFFF},   {0x110BD, 0x110BD}, {0x110CD, 0x110CD}, {0x13430, 0x1343F}, {0x1BCA0, 0x1BCA3},
       {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF}}};
  return std::none_of(kHidden.begin(), kHidden.end(),
                      [code](const Range& range) { return range.first <= code && code <= range.last; });
}

std::string without_blanks_at_the_ends(const std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

}  // namespace

std::string printable_text(const std::uint8_t* bytes, std::size_t size) {
  size = static_cast<std::size_t>(std::find(bytes, bytes + size, 0) - bytes);
  std::string text;
  if (is_utf8(bytes, size)) {
    while (size > 0) {
      const Character character = *first_character(bytes, size);
      if (is_shown(character.code)) text.append(reinterpret_cast<const char*>(bytes), character.size);
      bytes += character.size;
      size -= character.size;
    }
  } else {
    for (std::size_t at = 0; at < size; ++at) {
      const std::uint8_t code = bytes[at];
      if (!is_shown(code)) continue;
      if (code < 0x80) {
        text += static_cast<char>(code);
      } else {
        text += static_cast<char>(0xC0 | code >> 6);
        text += static_cast<char>(0x80 | (code & 0x3F));
      }
    }
  }
  return without_blanks_at_the_ends(text);
}

std::string printable_text(const std::string& text) {
  return printable_text(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

std::string ascii_text(const std::string& text) {
  std::string ascii;
  for (const char byte : printable_text(text)) {
    const auto code = static_cast<std::uint8_t>(byte);
    if (code < 0x80) ascii += byte;
    if (code >= 0xC0) ascii += '?';  // the first byte of a character
  }
  return ascii;
}

}  // namespace cue
