#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cue/live/Traffic.h"

/// What the outputs of traffic for programs have in common.
namespace kadrel_cue {

/// "artnet", "sacn".
const char* protocol_name(cue::Protocol protocol);

/// "10.0.0.1". @param address  host order
std::string ipv4_text(std::uint32_t address);

/// "0:0:0", net:sub-net:universe. @param universe  0-based
/// @return nothing above 32767, which Art-Net cannot address
std::optional<std::string> net_address_text(std::uint16_t universe);

/// A CID as UUIDs are written: "00112233-4455-6677-8899-aabbccddeeff".
std::string cid_text(const cue::SacnCid& cid);

/// With a point in every language. @param decimals  digits after it
std::string decimal_text(double number, int decimals);

/// Seconds with milliseconds, rounded down: "1763814241.123". @param time  ns
std::string decimal_seconds(std::int64_t time);

}  // namespace kadrel_cue
