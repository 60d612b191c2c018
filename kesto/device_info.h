#pragma once

#include <cstdint>
#include <string>

/// What the service reports about its appliance: brand identity and the network identity of its wired
/// interface "eth0". A snapshot for the life of the process; texts are UTF-8.
namespace kesto::device {

/// Fills the values from the branding file and the interface; only the first call does anything. Call it on
/// one thread before others read. A value that cannot be read keeps its default or stays empty, without a
/// report.
void initialize();

std::string short_name();
std::string long_name();
std::string manufacturer();
std::string model();
std::string modules();

/// Own IPv4 address as 8 lower-case hexadecimal digits, first byte first; empty when there is none.
std::string ip_address();

/// Broadcast address in dotted decimal; empty when there is none.
std::string broadcast_ip();

/// Hardware address as 12 lower-case hexadecimal digits; empty when there is none.
std::string mac_address();

/// OEM code of Art-Net.
std::uint16_t oem_id();

/// ESTA manufacturer code.
std::uint16_t manufacturer_id();

}  // namespace kesto::device
