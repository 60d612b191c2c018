#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kesto/logger.h"

/// What the environment of the process sets. A value that is not understood means the default and a warning.
struct Settings {
  int log_level = 3;  // KADREL_LOG_LEVEL, threshold of the log: any int
  kesto::Logger::Output log_output = kesto::Logger::Syslog;  // KADREL_LOG_OUTPUT: syslog, console or none
  std::int32_t universe_count = 1;  // KADREL_UNIVERSE_COUNT, universes to announce: 1..32768

  std::vector<std::string> warnings;  // a line for each variable whose value was not understood
};

/// Settings of the environment that @p variable looks into.
/// @param variable  value of the variable of a name, null when it is not set; as getenv()
Settings read_settings(const char* (*variable)(const char* name));
