#include "tools/RecordWords.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>

#include "cue/Text.h"
#include "cue/Time.h"

namespace kadrel_cue {
namespace {

/// Bytes of the character of UTF-8 that begins with @p first; 0: none does.
std::size_t character_size(unsigned first) {
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4) return 0;
  return first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
}

/// Whether a character would be longer than needed, a surrogate, or beyond Unicode.
bool is_out_of_range(unsigned first, unsigned second) {
  return (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
         (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
}

std::string phase_text(const RecordLine& line) {
  const std::string time = cue::clock_text(line.time, 0);
  switch (line.phase) {
    case RecordLine::Phase::Armed:
      return "waiting for the first datagram, or the record channel  " + time;
    case RecordLine::Phase::Waiting:
      return "waiting for a change " + time;
    case RecordLine::Phase::Recording:
      break;
  }
  return "recording " + time + (line.length ? " of " + cue::clock_text(*line.length, 0) : "");
}

}  // namespace

std::optional<std::string> name_by_time(const std::string& pattern, const std::tm& time) {
  std::array<char, NAME_MAX + 1> name{};
  // 0 for an empty name as well as for one that is too long.
  if (strftime(name.data(), name.size(), pattern.c_str(), &time) == 0) return std::nullopt;
  std::string result = name.data();
  if (result == "." || result == ".." || result.find('/') != std::string::npos) return std::nullopt;
  if (has_control_characters(result)) return std::nullopt;
  return result;
}

std::string numbered_name(const std::string& name, int number) {
  if (number == 1) return name;
  const std::string suffix = "-" + std::to_string(number);
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return name + suffix;
  return name.substr(0, dot) + suffix + name.substr(dot);
}

std::string waiting_name(const std::string& name) {
  constexpr std::size_t kMost = 200;  // bytes
  std::size_t size = std::min(name.size(), kMost);
  // Not within a character: its other bytes are 10xxxxxx.
  while (size > 0 && size < name.size() && (static_cast<unsigned char>(name[size]) & 0xC0U) == 0x80) --size;
  return "." + name.substr(0, size) + ".waiting";
}

bool has_control_characters(const std::string& text) {
  unsigned before = 0;
  for (const char letter : text) {
    const auto code = static_cast<unsigned char>(letter);
    if (code < 0x20 || code == 0x7F) return true;
    // U+0080 to U+009F.
    if (before == 0xC2 && code < 0xA0) return true;
    before = code;
  }
  return false;
}

bool is_utf8(const std::string& text) {
  const auto byte = [&text](std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
  };
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = character_size(byte(at));
    if (size == 0 || is_out_of_range(byte(at), byte(at + 1))) return false;
    for (std::size_t next = 1; next < size; ++next)
      if ((byte(at + next) & 0xC0U) != 0x80) return false;
    at += size;
  }
  return true;
}

std::string size_text(std::uint64_t bytes) {
  std::array<char, 32> text{};
  const auto size = static_cast<double>(bytes);
  if (bytes < 1000)
    snprintf(text.data(), text.size(), "%d B", static_cast<int>(bytes));
  else if (size < 999.95e3)
    snprintf(text.data(), text.size(), "%.1f kB", size / 1e3);
  else if (size < 999.95e6)
    snprintf(text.data(), text.size(), "%.1f MB", size / 1e6);
  else
    snprintf(text.data(), text.size(), "%.2f GB", size / 1e9);
  return text.data();
}

std::vector<int> missing_universes(const cue::UniverseSet& wanted, const cue::UniverseSet& present) {
  std::vector<int> missing;
  for (std::size_t number = 0; number < cue::UniverseSet::kPortAddresses; ++number) {
    const auto port_address = static_cast<std::uint16_t>(number);
    if (wanted.holds(port_address) && !present.holds(port_address)) missing.push_back(port_address + 1);
  }
  return missing;
}

std::string line_text(const RecordLine& line, std::size_t columns) {
  std::string text = phase_text(line);
  if (line.phase != RecordLine::Phase::Armed) {
    text += "  " + cue::counted(line.universes, "universe") + "  " + std::to_string(line.rate) + "/s  " +
            size_text(line.bytes);
  }
  if (line.phase == RecordLine::Phase::Recording) {
    text += "  lost " + std::to_string(line.lost);
    if (line.dropped > 0) text += "  dropped " + std::to_string(line.dropped);
    if (line.silence && line.unchanged)
      text += "  still " + cue::clock_text(*line.unchanged, 0) + " of " + cue::clock_text(*line.silence, 0);
  }
  if (text.size() > columns) text.resize(columns);
  return text;
}

}  // namespace kadrel_cue
