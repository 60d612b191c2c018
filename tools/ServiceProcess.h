#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What the kernel tells about the running service and about UDP ports, without any privilege.
namespace kadrel_cue {

/// A UDP socket in this network namespace.
struct UdpSocketInfo {
  int port = 0;
  bool any_address = false;  // bound to all addresses of its family
  bool ipv6 = false;         // one on all addresses keeps IPv4 from its port as well
  std::uint64_t inode = 0;
  std::uint64_t waiting = 0;  // bytes in the receive queue
  std::uint64_t drops = 0;    // datagrams that it has dropped
  std::optional<std::uint64_t>
      buffer_limit;  // bytes of the receive buffer (sk_rcvbuf), where the kernel tells
};

/// The sockets at @p port in the text of /proc/net/udp or udp6, without their buffer_limit. Lines that are
/// none are passed over.
std::vector<UdpSocketInfo> parse_udp_table(const std::string& text, int port);

/// All sockets at @p port, IPv4 first.
std::vector<UdpSocketInfo> udp_sockets(int port);

/// Whether the kernel tells which sockets there are: not where /proc is not mounted.
bool knows_udp_sockets();

/// The socket over IPv4 that is bound to @p port on all addresses.
std::optional<UdpSocketInfo> find_udp_socket(int port);

/// A process that holds a socket.
struct SocketOwner {
  pid_t pid = 0;
  std::string name;  // as ps(1) shows it; what is not printable ASCII has become "?"
};

/// @return nothing when no process that this user may look into has it
std::optional<SocketOwner> owner_of_socket(std::uint64_t inode);

/// Where the service writes its log.
enum class LogOutput { System, Console, None };

/// The running service.
struct ServiceProcess {
  pid_t pid = 0;
  int port = 0;                  // UDP, from its command line; 0: not known
  std::string version;           // "1.5.2"; empty: not known
  bool replaced = false;         // its program has been upgraded or removed since its start
  std::optional<int> announced;  // universes it announces; nothing: its environment cannot be read
  std::optional<LogOutput> log;  // nothing as above
};

/// Universes that a service with these variables (NAME=VALUE, each ended by a 0) announces.
int announced_in(const std::string& environment);

/// Where a service with these variables writes its log.
LogOutput log_output_in(const std::string& environment);

/// Version in the what(1) string of the program @p path; empty when it has none in its first 64 MiB.
std::string version_in(const std::string& path);

ServiceProcess look_at_service(pid_t pid);

}  // namespace kadrel_cue
