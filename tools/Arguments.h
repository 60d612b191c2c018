#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "cue/DatagramSender.h"
#include "cue/Selection.h"

/// Parses words of the command line.
namespace kadrel_cue {

/// What parse_time() takes, for messages.
constexpr const char* kTimeWords = "a time such as 90, 1.5, 250 ms, 1m30.5 or 1:02:03.5";

/// "90", "1.5", "0.500 s", "250ms", "1m30.5", "2h3m" or "1:02:03.5" in nanoseconds, and all that
/// cue::format_time(), cue::clock_text() and cue::seconds_text() write. Units stand in the order h, m or min,
/// s, ms, with or without blanks around them; a number without unit is in seconds. Nothing for other text, or
/// a time too long for 64 bits.
std::optional<std::int64_t> parse_time(const std::string& text);

/// "1,3,5-8", numbers from 1 to 65536; nothing for other text.
std::optional<cue::UniverseSet> parse_universes(const std::string& text);

/// "1=5" as two port-addresses. @return {from, to}; nothing for other text
std::optional<std::pair<std::uint16_t, std::uint16_t>> parse_universe_change(const std::string& text);

/// "ADDRESS" or "ADDRESS:PORT" of IPv4. @param default_port  when the text names none
/// @return nothing for other text, or a port outside 1..65535
std::optional<cue::Destination> parse_destination(const std::string& text, int default_port);

}  // namespace kadrel_cue
