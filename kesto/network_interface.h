#pragma once

#include <string>

namespace kesto::net {

/// IPv4 address of the interface @p name as 8 lower-case hexadecimal digits, first byte first: 192.168.1.20
/// is c0a80114. Empty when there is no such interface or it has no address.
std::string interface_ip_hex(const char* name);

/// Hardware address of the interface @p name as 12 lower-case hexadecimal digits, empty when there is none.
std::string interface_mac_hex(const char* name);

/// Broadcast address of the interface @p name in dotted decimal, from its last IPv4 entry that has one; else
/// empty.
std::string interface_broadcast(const char* name);

}  // namespace kesto::net
