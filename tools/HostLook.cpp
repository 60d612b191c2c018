#include "tools/HostLook.h"

#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <sstream>
#include <string_view>
#include <thread>

#include "kesto/network_interface.h"
#include "tools/KernelFile.h"

namespace kadrel_cue {
namespace {

constexpr const char* kWired = "eth0";

// A log daemon that is only busy takes a line within this time.
constexpr int kLogPatience = 1000;  // ms

template <typename Number>
std::optional<Number> number_in(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  return number;
}

/// "10.77.0.1" of "0a4d0001"; empty of an empty text.
std::string dotted(const std::string& hex) {
  std::string text;
  for (std::size_t at = 0; at + 2 <= hex.size(); at += 2) {
    int byte = 0;
    std::from_chars(hex.data() + at, hex.data() + at + 2, byte, 16);
    text += (at > 0 ? "." : "") + std::to_string(byte);
  }
  return text;
}

/// Flags of the interface; nothing when there is none.
std::optional<int> flags_of(const char* interface) {
  const OpenDescriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
  if (!any || ioctl(any.get(), SIOCGIFFLAGS, &request) == -1) return std::nullopt;
  return static_cast<unsigned short>(request.ifr_flags);
}

/// Asks for the priority that playbacks ask for, on a thread that ends at once. @return 0 when it was granted
int error_of_real_time() {
  int error = 0;
  std::thread([&error] {
    sched_param lowest{};
    lowest.sched_priority = sched_get_priority_min(SCHED_RR);
    error = sched_setscheduler(0, SCHED_RR, &lowest) == 0 ? 0 : errno;
  }).join();
  return error;
}

/// cpu.weight of the group of a process.
std::optional<int> weight_of(pid_t pid) {
  std::istringstream groups(read_kernel_file("/proc/" + std::to_string(pid) + "/cgroup").value_or(""));
  std::string line;
  while (std::getline(groups, line)) {
    if (line.rfind("0::/", 0) != 0) continue;
    const auto text = read_kernel_file("/sys/fs/cgroup" + line.substr(3) + "/cpu.weight");
    if (text) return number_in<int>(*text);
  }
  return std::nullopt;
}

/// @return 0, or errno of the connection; a daemon may take datagrams or a stream
int connect_to(int type, const std::string& path, int& descriptor) {
  descriptor = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  path.copy(name.sun_path, sizeof name.sun_path - 1);
  if (descriptor == -1) return errno;
  return connect(descriptor, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 ? 0 : errno;
}

/// @return nothing: the log wants the other type of socket
std::optional<LogAnswer> ask_log_by(int type, const std::string& path) {
  int descriptor = -1;
  const int error = connect_to(type, path, descriptor);
  const OpenDescriptor log(descriptor);
  if (error == EPROTOTYPE) return std::nullopt;
  if (error == ENOENT) return LogAnswer::Missing;
  if (error == EAGAIN) return LogAnswer::Stuck;
  if (error != 0) return LogAnswer::Refused;
  pollfd ready{log.get(), POLLOUT, 0};
  return poll(&ready, 1, kLogPatience) == 1 && (ready.revents & POLLOUT) != 0 ? LogAnswer::Takes
                                                                              : LogAnswer::Stuck;
}

}  // namespace

NetworkLook look_at_network() {
  NetworkLook look;
  const auto flags = flags_of(kWired);
  look.exists = flags.has_value();
  look.up = (flags.value_or(0) & IFF_UP) != 0;
  look.carrier = (flags.value_or(0) & IFF_RUNNING) != 0;
  look.address = dotted(kesto::net::interface_ip_hex(kWired));
  look.broadcast = kesto::net::interface_broadcast(kWired);
  return look;
}

std::optional<std::uint64_t> receive_errors_in(const std::string& snmp) {
  std::istringstream lines(snmp);
  std::string line;
  std::string names;
  while (std::getline(lines, line)) {
    if (line.rfind("Udp: ", 0) != 0) continue;
    if (names.empty()) {
      names = line;
      continue;
    }
    std::istringstream name_words(names);
    std::istringstream value_words(line);
    std::string name;
    std::string value;
    while (name_words >> name && value_words >> value)
      if (name == "RcvbufErrors") return number_in<std::uint64_t>(value);
    return std::nullopt;
  }
  return std::nullopt;
}

std::optional<std::uint64_t> receive_errors() {
  return receive_errors_in(read_kernel_file("/proc/net/snmp").value_or(""));
}

std::optional<std::uint64_t> default_receive_buffer() {
  return number_in<std::uint64_t>(read_kernel_file("/proc/sys/net/core/rmem_default").value_or(""));
}

PriorityLook look_at_priority(pid_t service) {
  PriorityLook look;
  look.real_time_error = error_of_real_time();
  if (service == 0) return look;
  errno = 0;
  const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(service));
  if (errno == 0) look.nice = nice;
  look.weight = weight_of(service);
  const int policy = sched_getscheduler(service);
  look.service_in_real_time = policy == SCHED_RR || policy == SCHED_FIFO;
  return look;
}

LogAnswer ask_log(const std::string& path) {
  const auto answer = ask_log_by(SOCK_DGRAM, path);
  if (answer) return *answer;
  return ask_log_by(SOCK_STREAM, path).value_or(LogAnswer::Refused);
}

}  // namespace kadrel_cue
