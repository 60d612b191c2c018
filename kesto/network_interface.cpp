#include "kesto/network_interface.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QHostAddress>
#include <QNetworkAddressEntry>
#include <QNetworkInterface>
#include <QString>
#include <cstdint>
#include <cstring>

namespace kesto::net {
namespace {

/// Asks the system for one property of an interface. @return false when there is no such interface or
/// property.
bool request_interface(unsigned long request, const char* name, ifreq& answer) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd == -1) return false;
  memset(&answer, 0, sizeof answer);
  strncpy(answer.ifr_name, name, IFNAMSIZ - 1);
  const bool answered = ioctl(fd, request, &answer) == 0;
  close(fd);
  return answered;
}

std::string hex_text(const std::uint8_t* bytes, size_t count) {
  static const char* const kDigits = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4U];
    text += kDigits[bytes[i] & 0x0FU];
  }
  return text;
}

}  // namespace

std::string interface_ip_hex(const char* name) {
  ifreq answer;
  if (!request_interface(SIOCGIFADDR, name, answer)) return {};
  sockaddr_in address{};
  memcpy(&address, &answer.ifr_addr, sizeof address);
  std::uint8_t bytes[4];
  memcpy(bytes, &address.sin_addr, sizeof bytes);
  return hex_text(bytes, sizeof bytes);
}

std::string interface_mac_hex(const char* name) {
  ifreq answer;
  if (!request_interface(SIOCGIFHWADDR, name, answer)) return {};
  std::uint8_t bytes[6];
  memcpy(bytes, answer.ifr_hwaddr.sa_data, sizeof bytes);
  return hex_text(bytes, sizeof bytes);
}

std::string interface_broadcast(const char* name) {
  const QNetworkInterface interface = QNetworkInterface::interfaceFromName(QString::fromLatin1(name));
  std::string broadcast;
  if (!interface.isValid()) return broadcast;
  const auto entries = interface.addressEntries();
  for (const QNetworkAddressEntry& entry : entries) {
    if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol || entry.broadcast().isNull()) continue;
    broadcast = entry.broadcast().toString().toStdString();
  }
  return broadcast;
}

}  // namespace kesto::net
