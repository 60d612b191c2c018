#include "tools/ServiceProcess.h"

#include <dirent.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string_view>

#include "artnet/ArtNet.h"
#include "tools/KernelFile.h"

namespace kadrel_cue {
namespace {

constexpr std::size_t kProgramLimit = std::size_t{64} << 20;  // of a program that is searched
constexpr std::size_t kPiece = std::size_t{64} << 10;
constexpr std::size_t kLongestVersion = 64;
constexpr std::string_view kWhat = "@(#)kadrel ";

template <typename Number>
bool take(std::string_view text, Number& number, int base = 10) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return error == std::errc() && end == text.data() + text.size();
}

/// "ADDRESS:PORT" in hexadecimal digits.
bool take_address(const std::string& word, UdpSocketInfo& socket) {
  const auto colon = word.find(':');
  if (colon == std::string::npos) return false;
  socket.ipv6 = colon > 8;
  socket.any_address = colon > 0 && word.find_first_not_of('0') >= colon;
  return take(std::string_view(word).substr(colon + 1), socket.port, 16);
}

/// A line: number, local and remote address, state, tx_queue:rx_queue, timer, retransmissions, uid, timeout,
/// inode, references, pointer, drops.
bool take_line(const std::string& line, UdpSocketInfo& socket) {
  std::istringstream words(line);
  std::array<std::string, 13> word;
  for (std::string& one : word)
    if (!(words >> one)) return false;
  const auto colon = word[4].find(':');
  return take_address(word[1], socket) && colon != std::string::npos &&
         take(std::string_view(word[4]).substr(colon + 1), socket.waiting, 16) &&
         take(word[9], socket.inode) && take(word[12], socket.drops);
}

/// A question to the kernel for all UDP sockets at a port.
struct DiagRequest {
  nlmsghdr header;
  inet_diag_req_v2 request;
};

DiagRequest diag_request(int family, int port) {
  DiagRequest question{};
  question.header.nlmsg_len = sizeof question;
  question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  question.request.sdiag_family = static_cast<std::uint8_t>(family);
  question.request.sdiag_protocol = IPPROTO_UDP;
  question.request.idiag_ext = 1U << (INET_DIAG_SKMEMINFO - 1);
  question.request.idiag_states = ~0U;
  question.request.id.idiag_sport = htons(static_cast<std::uint16_t>(port));
  return question;
}

/// Size of the receive buffer in the answer about one socket; @p size bytes of @p message are there.
std::optional<std::uint64_t> buffer_in(const char* message, std::size_t size) {
  constexpr std::size_t kHeader = sizeof(nlattr);
  std::size_t at = NLMSG_LENGTH(NLMSG_ALIGN(sizeof(inet_diag_msg)));
  while (at + sizeof(nlattr) <= size) {
    nlattr attribute{};
    memcpy(&attribute, message + at, sizeof attribute);
    if (attribute.nla_len < sizeof attribute || attribute.nla_len > size - at) return std::nullopt;
    std::array<std::uint32_t, SK_MEMINFO_RCVBUF + 1> counts{};
    if (attribute.nla_type == INET_DIAG_SKMEMINFO && attribute.nla_len >= kHeader + sizeof counts) {
      memcpy(counts.data(), message + at + kHeader, sizeof counts);
      return counts[SK_MEMINFO_RCVBUF];
    }
    at += NLMSG_ALIGN(attribute.nla_len);  // to 4 bytes, as attributes are
  }
  return std::nullopt;
}

/// Gives the sockets that one answer of the kernel is about their buffer sizes. @return false: it was the
/// last
bool take_answer(const char* bytes, std::size_t size, std::vector<UdpSocketInfo>& sockets) {
  std::size_t at = 0;
  while (at + sizeof(nlmsghdr) <= size) {
    nlmsghdr header{};
    memcpy(&header, bytes + at, sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > size - at) return false;
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) return false;  // done, or an error
    inet_diag_msg about{};
    if (header.nlmsg_len >= NLMSG_LENGTH(sizeof about)) {
      memcpy(&about, bytes + at + NLMSG_HDRLEN, sizeof about);
      for (UdpSocketInfo& socket : sockets)
        if (static_cast<std::uint32_t>(socket.inode) == about.idiag_inode)
          socket.buffer_limit = buffer_in(bytes + at, header.nlmsg_len);
    }
    at += NLMSG_ALIGN(header.nlmsg_len);
  }
  return true;
}

/// Asks the kernel for the receive buffers. Where it does not answer they stay unknown.
void ask_for_buffers(int family, int port, std::vector<UdpSocketInfo>& sockets) {
  const OpenDescriptor netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (!netlink) return;
  const timeval most{1, 0};
  setsockopt(netlink.get(), SOL_SOCKET, SO_RCVTIMEO, &most, sizeof most);
  const DiagRequest question = diag_request(family, port);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  const auto* const to = reinterpret_cast<const sockaddr*>(&kernel);
  if (sendto(netlink.get(), &question, sizeof question, 0, to, sizeof kernel) == -1) return;
  std::vector<char> answer(kPiece);
  for (;;) {
    const ssize_t size = recv(netlink.get(), answer.data(), answer.size(), 0);
    if (size <= 0 || !take_answer(answer.data(), static_cast<std::size_t>(size), sockets)) return;
  }
}

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

Directory open_directory(const std::string& path) {
  return {opendir(path.c_str()), closedir};
}

/// Next name in a directory; null at its end.
const char* next_name(const Directory& directory) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): each directory is read by one thread
  const dirent* const entry = directory ? readdir(directory.get()) : nullptr;
  return entry != nullptr ? entry->d_name : nullptr;
}

std::string link_target(const std::string& path) {
  std::array<char, 4096> target{};
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  return length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : std::string();
}

std::string proc_path(pid_t pid, const char* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

bool holds(pid_t pid, const std::string& link) {
  const std::string path = proc_path(pid, "fd");
  const Directory descriptors = open_directory(path);
  while (const char* const name = next_name(descriptors))
    if (link_target(path + "/" + name) == link) return true;
  return false;
}

std::string printable_name(pid_t pid) {
  std::string name = read_kernel_file(proc_path(pid, "comm")).value_or("");
  if (!name.empty() && name.back() == '\n') name.pop_back();
  for (char& one : name)
    if (one < ' ' || one > '~') one = '?';
  return name;
}

/// Value of the first variable @p name, as getenv() takes it.
std::optional<std::string_view> variable(const std::string& environment, std::string_view name) {
  std::string_view rest = environment;
  while (!rest.empty()) {
    const std::string_view one = rest.substr(0, rest.find('\0'));
    rest.remove_prefix(std::min(rest.size(), one.size() + 1));
    if (one.size() > name.size() && one[name.size()] == '=' && one.substr(0, name.size()) == name)
      return one.substr(name.size() + 1);
  }
  return std::nullopt;
}

/// UDP port among the arguments of the service.
int port_in(const std::string& arguments) {
  const auto first = arguments.find('\0');
  if (first == std::string::npos) return 0;
  const long port = strtol(arguments.c_str() + first + 1, nullptr, 10);
  return port >= 1 && port <= 65535 ? static_cast<int>(port) : 0;
}

/// Version behind the beginning of a what(1) string.
std::string version_at(std::string_view text) {
  const auto end = text.find_first_of(std::string_view("\0\n\">\\", 5));
  std::string version(text.substr(0, std::min(end, kLongestVersion)));
  for (char& one : version)
    if (one < ' ' || one > '~') one = '?';
  return version;
}

bool is_replaced(const std::string& link) {
  constexpr std::string_view kDeleted = " (deleted)";
  const std::string target = link_target(link);
  if (target.size() < kDeleted.size()) return false;
  if (target.compare(target.size() - kDeleted.size(), kDeleted.size(), kDeleted) != 0) return false;
  return access(target.c_str(), F_OK) == -1;
}

}  // namespace

std::vector<UdpSocketInfo> parse_udp_table(const std::string& text, int port) {
  std::vector<UdpSocketInfo> sockets;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    UdpSocketInfo socket;
    if (take_line(line, socket) && socket.port == port) sockets.push_back(socket);
  }
  return sockets;
}

bool knows_udp_sockets() {
  return OpenDescriptor(open_at_once("/proc/net/udp")).get() != -1;
}

std::vector<UdpSocketInfo> udp_sockets(int port) {
  std::vector<UdpSocketInfo> sockets = parse_udp_table(read_kernel_file("/proc/net/udp").value_or(""), port);
  if (!sockets.empty()) ask_for_buffers(AF_INET, port, sockets);
  auto others = parse_udp_table(read_kernel_file("/proc/net/udp6").value_or(""), port);
  if (!others.empty()) ask_for_buffers(AF_INET6, port, others);
  sockets.insert(sockets.end(), others.begin(), others.end());
  return sockets;
}

std::optional<UdpSocketInfo> find_udp_socket(int port) {
  const auto sockets = udp_sockets(port);
  const auto found = std::find_if(sockets.begin(), sockets.end(), [](const UdpSocketInfo& socket) {
    return socket.any_address && !socket.ipv6;
  });
  if (found == sockets.end()) return std::nullopt;
  return *found;
}

std::optional<SocketOwner> owner_of_socket(std::uint64_t inode) {
  const std::string link = "socket:[" + std::to_string(inode) + "]";
  const Directory processes = open_directory("/proc");
  while (const char* const name = next_name(processes)) {
    pid_t pid = 0;
    if (take(name, pid) && holds(pid, link)) return SocketOwner{pid, printable_name(pid)};
  }
  return std::nullopt;
}

int announced_in(const std::string& environment) {
  int count = 0;
  const auto text = variable(environment, "KADREL_UNIVERSE_COUNT");
  return text && take(*text, count) && count >= 1 && count <= kUniverseLimit ? count : 1;
}

LogOutput log_output_in(const std::string& environment) {
  const auto text = variable(environment, "KADREL_LOG_OUTPUT");
  if (text == "console") return LogOutput::Console;
  return text == "none" ? LogOutput::None : LogOutput::System;
}

std::string version_in(const std::string& path) {
  const OpenDescriptor program(open_at_once(path));
  struct stat status {};
  if (!program || fstat(program.get(), &status) == -1 || !S_ISREG(status.st_mode)) return "";
  // What stands across two pieces is found in the second.
  constexpr std::size_t kKept = kWhat.size() + kLongestVersion;
  std::string window;
  std::vector<char> piece(kPiece);
  for (std::size_t total = 0; total < kProgramLimit; total += piece.size()) {
    const ssize_t count = read_some(program.get(), piece.data(), piece.size());
    if (count > 0) window.append(piece.data(), static_cast<std::size_t>(count));
    const auto at = window.find(kWhat);
    if (at != std::string::npos && (count <= 0 || window.size() - at >= kKept))
      return version_at(std::string_view(window).substr(at + kWhat.size()));
    if (count <= 0) return "";
    if (window.size() > kKept) window.erase(0, window.size() - kKept);
  }
  return "";
}

ServiceProcess look_at_service(pid_t pid) {
  ServiceProcess service;
  service.pid = pid;
  service.port = port_in(read_kernel_file(proc_path(pid, "cmdline")).value_or(""));
  if (const auto environment = read_kernel_file(proc_path(pid, "environ"))) {
    service.announced = announced_in(*environment);
    service.log = log_output_in(*environment);
  }
  const std::string program = proc_path(pid, "exe");
  service.version = version_in(program);
  service.replaced = is_replaced(program);
  return service;
}

}  // namespace kadrel_cue
