#pragma once

#include <cstdint>
#include <string>

/// Words for people.
namespace cue {

/// "1 datagram", "2 datagrams".
std::string counted(std::uint64_t count, const char* what);

/// "net/sub-net/universe" of a port-address, each counted from 0.
std::string port_address_text(std::uint16_t port_address);

}  // namespace cue
