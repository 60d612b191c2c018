#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace kadrel_cue {

enum class Level { Ok, Warning, Bad };

/// A figure for programs; without a value it is not known.
struct Figure {
  const char* name;
  std::variant<std::monostate, std::uint64_t, std::int64_t, double, bool, std::string> value;
};

/// What one check has found.
struct Finding {
  const char* name;  // of the check, at most 9 characters
  Level level = Level::Ok;
  std::string text;    // what was measured, in words
  std::string advice;  // what to do; empty when it is ok
  std::vector<Figure> figures;
};

/// The screen: a line for each finding, and below it what to do; the last line is the verdict. 80 columns.
std::string screen_of(const std::vector<Finding>& findings);

/// All of it as one JSON object in one line.
std::string json_of(const std::vector<Finding>& findings);

/// "ready", "ready, 2 warnings", "NOT ready: 1 bad, 2 warnings".
std::string verdict_of(const std::vector<Finding>& findings);

/// Whether nothing is bad.
bool is_ready(const std::vector<Finding>& findings);

}  // namespace kadrel_cue
