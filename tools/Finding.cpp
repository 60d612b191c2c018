#include "tools/Finding.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "cue/Text.h"
#include "cue/live/PrintableText.h"
#include "tools/JsonText.h"

namespace kadrel_cue {
namespace {

constexpr std::size_t kScreenColumns = 80;
constexpr std::size_t kTextColumn = 20;
constexpr std::size_t kAdviceColumn = 9;

const char* level_word(Level level) {
  switch (level) {
    case Level::Ok:
      return "ok";
    case Level::Warning:
      return "warning";
    default:
      return "bad";
  }
}

/// Words in lines up to the last column; all lines but the first begin at @p column. A word that is longer
/// than a line is broken.
std::string wrapped(const std::string& text, std::size_t column) {
  const std::size_t width = kScreenColumns - column;
  std::istringstream words(cue::ascii_text(text));
  std::string result;
  std::string line;
  std::string word;
  const auto end_line = [&] {
    result += line + "\n" + std::string(column, ' ');
    line.clear();
  };
  while (words >> word) {
    if (!line.empty() && line.size() + 1 + word.size() > width) end_line();
    if (!line.empty()) line += ' ';
    for (; word.size() > width; word.erase(0, width)) {
      line += word.substr(0, width);
      end_line();
    }
    line += word;
  }
  return result + line + "\n";
}

std::uint64_t count_of(const std::vector<Finding>& findings, Level level) {
  return static_cast<std::uint64_t>(std::count_if(
      findings.begin(), findings.end(), [level](const Finding& finding) { return finding.level == level; }));
}

std::string json_number(double value) {
  if (!std::isfinite(value)) return "null";
  std::array<char, 48> text{};
  snprintf(text.data(), text.size(), "%.3f", std::min(value, 1e18));
  return text.data();
}

std::string json_value(const Figure& figure) {
  if (const auto* const number = std::get_if<std::uint64_t>(&figure.value)) return std::to_string(*number);
  if (const auto* const number = std::get_if<std::int64_t>(&figure.value)) return std::to_string(*number);
  if (const auto* const number = std::get_if<double>(&figure.value)) return json_number(*number);
  if (const auto* const yes = std::get_if<bool>(&figure.value)) return *yes ? "true" : "false";
  if (const auto* const text = std::get_if<std::string>(&figure.value)) return json_string(*text);
  return "null";
}

std::string json_of(const Finding& finding) {
  std::string text = "{\"name\": " + json_string(finding.name);
  text += ", \"level\": " + json_string(level_word(finding.level));
  text += ", \"text\": " + json_string(finding.text);
  text += ", \"advice\": " + json_string(finding.advice);
  text += ", \"figures\": {";
  const char* separator = "";
  for (const Figure& figure : finding.figures) {
    text += std::string(separator) + "\"" + figure.name + "\": " + json_value(figure);
    separator = ", ";
  }
  return text + "}}";
}

}  // namespace

bool is_ready(const std::vector<Finding>& findings) {
  return count_of(findings, Level::Bad) == 0;
}

std::string verdict_of(const std::vector<Finding>& findings) {
  const std::uint64_t bad = count_of(findings, Level::Bad);
  const std::uint64_t warnings = count_of(findings, Level::Warning);
  std::string text = bad == 0 ? "ready" : "NOT ready: " + std::to_string(bad) + " bad";
  if (warnings > 0) text += ", " + cue::counted(warnings, "warning");
  return text;
}

std::string screen_of(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& finding : findings) {
    std::array<char, kTextColumn + 1> head{};
    const char* const word = finding.level == Level::Bad ? "BAD" : level_word(finding.level);
    snprintf(head.data(), head.size(), "%-7s  %-9s  ", word, finding.name);
    text += head.data() + wrapped(finding.text, kTextColumn);
    if (finding.level == Level::Ok) continue;
    text += std::string(kAdviceColumn, ' ') + wrapped(finding.advice, kAdviceColumn);
  }
  return text + verdict_of(findings) + "\n";
}

std::string json_of(const std::vector<Finding>& findings) {
  std::string text = std::string("{\"ready\": ") + (is_ready(findings) ? "true" : "false");
  text += ", \"verdict\": " + json_string(verdict_of(findings));
  text += ", \"bad\": " + std::to_string(count_of(findings, Level::Bad));
  text += ", \"warnings\": " + std::to_string(count_of(findings, Level::Warning));
  text += ", \"checks\": [";
  const char* separator = "";
  for (const Finding& finding : findings) {
    text += separator + json_of(finding);
    separator = ", ";
  }
  return text + "]}\n";
}

}  // namespace kadrel_cue
