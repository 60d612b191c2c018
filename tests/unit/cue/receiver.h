#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace unit {

/// A socket at an address of this host, or of a group, that is read with a deadline.
class Receiver {
public:
  /// @param wanted_port  0: any
  explicit Receiver(const char* address, int wanted_port = 0) : fd(socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_port = htons(static_cast<std::uint16_t>(wanted_port));
    inet_pton(AF_INET, address, &here.sin_addr);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&here), sizeof here), 0);
    socklen_t size = sizeof here;
    getsockname(fd, reinterpret_cast<sockaddr*>(&here), &size);
    port = ntohs(here.sin_port);
    const timeval deadline{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
  }
  ~Receiver() { close(fd); }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;
  Receiver(Receiver&&) = delete;
  Receiver& operator=(Receiver&&) = delete;

  std::string receive() {
    std::string bytes(65536, '\0');
    sockaddr_in source{};
    socklen_t size = sizeof source;
    const ssize_t count =
        recvfrom(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&source), &size);
    EXPECT_NE(count, -1);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    char text[INET_ADDRSTRLEN] = {};
    sender = inet_ntop(AF_INET, &source.sin_addr, text, sizeof text);
    return bytes;
  }

  int descriptor() const { return fd; }

  int port = 0;
  std::string sender;  // of the last datagram

private:
  int fd;
};

}  // namespace unit
