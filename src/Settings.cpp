#include "src/Settings.h"

#include <charconv>
#include <cstring>
#include <string_view>

#include "artnet/ArtNet.h"

namespace {

constexpr int kWriteBufferLimit = 1024;  // MiB

/// Reads @p text as a decimal number. @return false when any part of it is something else
bool take_int(const char* text, int& value) {
  int number = 0;
  const char* const end = text + strlen(text);
  const auto result = std::from_chars(text, end, number);
  if (result.ec != std::errc() || result.ptr != end) return false;
  value = number;
  return true;
}

bool take_log_level(const char* text, Settings& settings) {
  return take_int(text, settings.log_level);
}

bool take_log_output(const char* text, Settings& settings) {
  const std::string_view name = text;
  if (name == "syslog")
    settings.log_output = kesto::Logger::Syslog;
  else if (name == "console")
    settings.log_output = kesto::Logger::Console;
  else if (name == "none")
    settings.log_output = kesto::Logger::None;
  else
    return false;
  return true;
}

/// Reads @p text as a decimal number from 1 to @p most. @return false when it is none
bool take_count(const char* text, int most, std::int32_t& value) {
  int count = 0;
  if (!take_int(text, count) || count < 1 || count > most) return false;
  value = count;
  return true;
}

bool take_universe_count(const char* text, Settings& settings) {
  return take_count(text, kUniverseLimit, settings.universe_count);
}

bool take_write_buffer(const char* text, Settings& settings) {
  return take_count(text, kWriteBufferLimit, settings.write_buffer_mib);
}

/// One variable: its valid values and its default, in words, and the function that takes its value.
struct Variable {
  const char* name;
  const char* condition;
  const char* default_value;
  bool (*take)(const char* text, Settings& settings);
};

constexpr Variable kVariables[] = {
    {"KADREL_LOG_LEVEL", "an integer", "3", take_log_level},
    {"KADREL_LOG_OUTPUT", "syslog, console or none", "syslog", take_log_output},
    {"KADREL_UNIVERSE_COUNT", "a number from 1 to 32768", "1", take_universe_count},
    {"KADREL_WRITE_BUFFER_MIB", "a number from 1 to 1024", "32", take_write_buffer},
};
static_assert(kUniverseLimit == 32768 && kWriteBufferLimit == 1024, "texts above say it");

}  // namespace

Settings read_settings(const char* (*variable)(const char* name)) {
  Settings settings;
  for (const Variable& one : kVariables) {
    const char* const text = variable(one.name);
    if (text != nullptr && one.take(text, settings)) continue;
    one.take(one.default_value, settings);
    if (text == nullptr) continue;
    settings.warnings.push_back(std::string(one.name) + " is not " + one.condition + ", using " +
                                one.default_value + " (value:" + text + ")");
  }
  return settings;
}
