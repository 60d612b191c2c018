#include "kesto/device_info.h"

#include <QString>

#include "kesto/brand.h"
#include "kesto/network_interface.h"

namespace kesto::device {
namespace {

const char* const kInterface = "eth0";

struct Values {
  bool initialized = false;
  Brand brand;
  std::string ip_address;
  std::string broadcast_ip;
  std::string mac_address;
};

Values& values() {
  static Values instance;
  return instance;
}

}  // namespace

void initialize() {
  Values& v = values();
  if (v.initialized) return;
  v.initialized = true;
  v.brand = read_brand(QStringLiteral("/opt/tolvek/data/cfg/brand.json"));
  v.ip_address = net::interface_ip_hex(kInterface);
  v.broadcast_ip = net::interface_broadcast(kInterface);
  v.mac_address = net::interface_mac_hex(kInterface);
}

std::string short_name() {
  return values().brand.short_name;
}
std::string long_name() {
  return values().brand.long_name;
}
std::string manufacturer() {
  return values().brand.manufacturer;
}
std::string model() {
  return values().brand.model;
}
std::string modules() {
  return values().brand.modules;
}
std::string ip_address() {
  return values().ip_address;
}
std::string broadcast_ip() {
  return values().broadcast_ip;
}
std::string mac_address() {
  return values().mac_address;
}
std::uint16_t oem_id() {
  return values().brand.oem_id;
}
std::uint16_t manufacturer_id() {
  return values().brand.manufacturer_id;
}

}  // namespace kesto::device
