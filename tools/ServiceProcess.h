#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

/// What the kernel tells about the running service and about UDP ports, without any privilege.
namespace kadrel_cue {

/// A UDP socket over IPv4 in this network namespace.
struct UdpSocketInfo {
  int port = 0;
  std::uint64_t inode = 0;
  std::uint64_t waiting = 0;  // bytes in the receive queue
  std::uint64_t drops = 0;    // datagrams that it has dropped
  std::optional<std::uint64_t>
      buffer_limit;  // bytes of the receive buffer (sk_rcvbuf), where the kernel tells
};

/// The socket that is bound to @p port on all addresses.
std::optional<UdpSocketInfo> find_udp_socket(int port);

/// A process that holds a socket.
struct SocketOwner {
  pid_t pid = 0;
  std::string name;  // as ps(1) shows it
};

/// @return nothing when no process that this user may look into has it
std::optional<SocketOwner> owner_of_socket(std::uint64_t inode);

/// The running service.
struct ServiceProcess {
  pid_t pid = 0;
  int port = 0;                  // UDP, from its command line; 0: not known
  std::string version;           // "1.5.2"; empty: not known
  bool replaced = false;         // its program has been upgraded or removed since its start
  std::optional<int> announced;  // universes it announces; nothing: its environment cannot be read
};

ServiceProcess look_at_service(pid_t pid);

}  // namespace kadrel_cue
