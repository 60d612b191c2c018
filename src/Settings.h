#pragma once

#include <cstdint>
#include <optional>

#include "kesto/logger.h"

/// Settings taken from the environment. Each function takes the text of one variable.

/// Number of universes to announce, 1..32768. @return nothing when @p text is anything else
std::optional<std::int32_t> parse_universe_count(const char* text);

/// Threshold of the log, any int. @return nothing when @p text is anything else
std::optional<int> parse_log_level(const char* text);

/// Output of the log: "syslog", "console" or "none". @return nothing when @p text is anything else
std::optional<kesto::Logger::Output> parse_log_output(const char* text);
