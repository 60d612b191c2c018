#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "cue/DatagramSender.h"
#include "cue/Selection.h"

/// Reads the words of the command line that are more than a number.
namespace kadrel_cue {

/// "90", "1.5", "1m30.5", "2h3m" or "1.5s" in nanoseconds; nothing when it is no such time.
std::optional<std::int64_t> parse_time(const std::string& text);

/// "1,3,5-8"; nothing when it is no such list of numbers from 1 to 65536.
std::optional<cue::UniverseSet> parse_universes(const std::string& text);

/// "1=5" as two port-addresses; nothing when it is no such pair. @return {from, to}
std::optional<std::pair<std::uint16_t, std::uint16_t>> parse_universe_change(const std::string& text);

/// "ADDRESS" or "ADDRESS:PORT" of IPv4. @param default_port  when the text names none
/// @return nothing when it is no such text, or its port not in 1..65535
std::optional<cue::Destination> parse_destination(const std::string& text, int default_port);

}  // namespace kadrel_cue
