#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kesto/logger.h"

/// Settings from the environment of the process. An invalid value means the default and a warning.
struct Settings {
  int log_level{};                     // KADREL_LOG_LEVEL, threshold of the log: any int
  kesto::Logger::Output log_output{};  // KADREL_LOG_OUTPUT: syslog, console or none
  std::int32_t universe_count{};       // KADREL_UNIVERSE_COUNT, universes to announce: 1..32768
  std::int32_t write_buffer_mib{};     // KADREL_WRITE_BUFFER_MIB, records that wait for the disk: 1..1024 MiB

  std::vector<std::string> warnings;  // one line for each invalid value
};

/// Reads the settings.
/// @param variable  as getenv(): value of the variable @p name, null when it is not set
Settings read_settings(const char* (*variable)(const char* name));
