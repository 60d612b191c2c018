#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cue/live/Traffic.h"
#include "tools/Finding.h"
#include "tools/ServiceClient.h"
#include "tools/ServiceProcess.h"

/// The checks before a show: from what was measured to what it means. Nothing here looks at the system.
namespace kadrel_cue {

/// How a user gets the rights that this program wants, both at once: setcap replaces what was there.
constexpr const char* kRightsAdvice = "sudo setcap cap_net_raw,cap_sys_nice+ep \"$(which kadrel-cue)\"";

/// The service on the bus.
struct ServiceLook {
  std::string bus_error;                  // why there is no bus; empty: there is one
  std::optional<ServiceProcess> process;  // nothing: nobody has the name
  bool can_be_started = false;            // by the bus
  std::optional<ServiceClient::State> state;
  std::string call_error;  // why there is no state
};

/// @param version  of this program
Finding check_service(const ServiceLook& look, const std::string& version);

/// Who has the Art-Net port.
struct PortLook {
  struct Holder {
    UdpSocketInfo socket;
    std::optional<SocketOwner> owner;  // nothing: a process of somebody else
  };
  int port = 0;
  pid_t service = 0;            // 0: it does not run
  bool known = true;            // false: nobody tells which sockets there are
  std::vector<Holder> holders;  // of all sockets at the port
};

Finding check_port(const PortLook& look);

/// The socket of the service itself; null when it has none.
const UdpSocketInfo* service_socket(const PortLook& look);

/// The wired interface that the service tells consoles about.
struct NetworkLook {
  bool exists = false;
  bool up = false;
  bool carrier = false;
  std::string address;    // dotted decimal; empty: none
  std::string broadcast;  // as above
};

Finding check_network(const NetworkLook& look);

/// What was heard at the interface, Art-Net of others.
struct Heard {
  struct Sender {
    std::uint32_t address = 0;
    std::string name;
  };
  std::string error;                     // why nobody could listen; empty: it was listened
  std::string advice;                    // what to do then
  double seconds = 0;                    // of listening
  std::uint64_t lost = 0;                // datagrams that came and were not looked at
  std::vector<std::uint16_t> universes;  // port-addresses, in order
  std::vector<std::uint16_t> contested;  // those with two senders
  std::vector<Sender> senders;           // by address
  double datagrams_per_second = 0;
  double bytes_per_second = 0;  // of a recording
  std::uint64_t sacn_universes = 0;
};

/// @param own  address of this host, whose datagrams are not recorded; host order, 0: none
void take_figures(const cue::TrafficFigures& figures, double seconds, std::uint32_t own, Heard& heard);

/// @param announced  universes that the service announces; nothing: not known
Finding check_universes(const Heard& heard, std::optional<int> announced);

Finding check_senders(const Heard& heard);

/// What a recording will take: as heard, and when nothing was heard all announced universes, full, at 44 Hz.
struct Load {
  bool heard = false;
  std::uint64_t universes = 0;
  double datagrams_per_second = 0;
  double bytes_per_second = 0;
};

Load load_of(const Heard& heard, std::optional<int> announced);

struct BufferLook {
  std::optional<std::uint64_t> limit;           // bytes of the service's socket
  std::optional<std::uint64_t> system_default;  // net.core.rmem_default
};

Finding check_buffer(const BufferLook& look, const Load& load);

struct DropsLook {
  std::optional<std::uint64_t> socket;  // dropped by the service's socket since its start
  std::uint64_t socket_meanwhile = 0;   // and of these while this looked
  std::optional<std::uint64_t> system;  // UdpRcvbufErrors
};

Finding check_drops(const DropsLook& look);

/// The folder of the recordings. It is looked at by a process of its own, which a disk may hold for ever.
struct FolderLook {
  std::string folder;
  bool answered = false;  // the file system told its space in time
  int error = 0;          // errno of making a file in it; 0: it can be written
  std::uint64_t free_bytes = 0;
  bool files_left = true;      // it has room for the name of another file
  bool ends_at_4_gib = false;  // FAT: no file is larger
  // The test of its speed.
  bool recording = false;       // none, a recording runs
  bool recording_known = true;  // false: it may be none
  bool tested = false;
  bool stuck = false;  // it took nothing any more
  int write_error = 0;
  std::uint64_t written = 0;  // bytes
  double seconds = 0;
};

Finding check_space(const FolderLook& look, const Load& load);
Finding check_speed(const FolderLook& look, const Load& load);

struct PriorityLook {
  int real_time_error = 0;    // errno of asking for a real-time priority; 0: playbacks get it
  std::optional<int> nice;    // of the service
  std::optional<int> weight;  // of the service's group, cpu.weight
  bool service_in_real_time = false;
};

Finding check_priority(const PriorityLook& look);

enum class LogAnswer { Takes, Missing, Refused, Stuck };

/// @param output  of the service; nothing: not known
Finding check_log(LogAnswer answer, std::optional<LogOutput> output);

}  // namespace kadrel_cue
