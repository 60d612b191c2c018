#include "kesto/udpsocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sock_diag.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <optional>
#include <utility>

#include "kesto/arrival_clock.h"
#include "kesto/delay.h"
#include "kesto/wall_clock.h"

namespace kesto::net {
namespace {

const char* const kAnyAddress = "0.0.0.0";

// Attempts of a read that is interrupted.
constexpr int kInterruptedReads = 5;

// Looks at the clocks after one fetch. Two in a row that are both preempted are rare.
constexpr int kLooks = 3;

sockaddr_in socket_address(in_addr_t address, int port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = address;
  result.sin_port = htons(static_cast<std::uint16_t>(port));
  return result;
}

std::int64_t steady_time() {
  return Clock::now().time_since_epoch().count();
}

/// What the kernel tells about a datagram beside it.
struct Ancillary {
  std::optional<std::int64_t> stamp;  // ns by the wall clock
  std::uint32_t drops = 0;            // the kernel tells no 0
};

/// Data of a control message, unless its length is wrong or it reaches beyond @p room bytes.
template <typename Data>
std::optional<Data> data_of(const cmsghdr& message, std::size_t room) {
  if (message.cmsg_len != CMSG_LEN(sizeof(Data)) || message.cmsg_len > room) return std::nullopt;
  Data data;
  memcpy(&data, CMSG_DATA(&message), sizeof data);
  return data;
}

Ancillary read_ancillary(msghdr& header) {
  Ancillary result;
  const char* const end = static_cast<const char*>(header.msg_control) + header.msg_controllen;
  for (cmsghdr* message = CMSG_FIRSTHDR(&header); message != nullptr;
       message = CMSG_NXTHDR(&header, message)) {
    if (message->cmsg_level != SOL_SOCKET) continue;
    const auto room = static_cast<std::size_t>(end - reinterpret_cast<const char*>(message));
    if (message->cmsg_type == SCM_TIMESTAMPNS) {
      if (const auto time = data_of<timespec>(*message, room)) result.stamp = nanoseconds(*time);
    } else if (message->cmsg_type == SO_RXQ_OVFL) {
      result.drops = data_of<std::uint32_t>(*message, room).value_or(0);
    }
  }
  return result;
}

}  // namespace

HostAddress::HostAddress(std::string text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) == 1 && from_ipv4(address.s_addr).text() == text) {
    is_number = true;
    number = address.s_addr;
  } else {
    other_text = std::move(text);
  }
}

HostAddress HostAddress::from_ipv4(std::uint32_t number) {
  HostAddress address;
  address.set_ipv4(number);
  return address;
}

std::string HostAddress::text() const {
  if (!is_number) return other_text;
  std::array<char, INET_ADDRSTRLEN> text{};
  in_addr address{};
  address.s_addr = number;
  inet_ntop(AF_INET, &address, text.data(), static_cast<socklen_t>(text.size()));
  return text.data();
}

bool HostAddress::ipv4(std::uint32_t& result) const {
  if (is_number) {
    result = number;
    return true;
  }
  in_addr address{};
  if (inet_pton(AF_INET, other_text.c_str(), &address) != 1) return false;
  result = address.s_addr;
  return true;
}

/// Datagrams fetched by one call, in order.
struct UdpSocket::Batch {
  // Most datagrams of one call: a burst of 16 universes costs one call. From there on the call itself adds
  // little to the cost of a datagram, and more slots only take more cache.
  static constexpr unsigned int kSlots = 64;

  // Any UDP datagram fits whole; untouched pages take no memory. The 576 bytes more put the beginnings of the
  // slots into different cache sets.
  static constexpr size_t kSlotSize = 65536 + 576;

  // Control messages of one datagram: its stamp and the drops. The C library of a system of 32 bits may add
  // the stamp once more, in the other width; that fits, too.
  struct Control {
    alignas(cmsghdr) std::array<char, 64> bytes;
  };
  static_assert(sizeof(Control) >= CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(std::uint32_t)));

  Batch() : bytes(new (std::nothrow) char[kSlots * kSlotSize]) {
    for (unsigned int i = 0; i < kSlots; ++i) {
      parts[i].iov_base = bytes.get() + i * kSlotSize;
      parts[i].iov_len = kSlotSize;
      messages[i].msg_hdr.msg_iov = &parts[i];
      messages[i].msg_hdr.msg_iovlen = 1;
      messages[i].msg_hdr.msg_name = &senders[i];
      messages[i].msg_hdr.msg_namelen = sizeof senders[i];
      messages[i].msg_hdr.msg_control = &controls[i];
      messages[i].msg_hdr.msg_controllen = sizeof controls[i];
    }
  }

  /// Gives the slots that were used their whole control buffer again.
  void renew_controls() {
    for (unsigned int i = 0; i < count; ++i) messages[i].msg_hdr.msg_controllen = sizeof controls[i];
  }

  void look_at_clocks() {
    for (int looks = 0; looks < kLooks; ++looks) {
      ArrivalClock::Look look;
      look.before = steady_time();
      look.wall = wall_time();
      look.after = steady_time();
      arrivals.look(look);
      if (arrivals.is_close()) return;
    }
  }

  const char* data() const { return bytes.get() + first * kSlotSize; }
  size_t size() const { return messages[first].msg_len; }
  const sockaddr_in& sender() const { return senders[first]; }
  Ancillary ancillary() { return read_ancillary(messages[first].msg_hdr); }

  unsigned int first = 0;  // slot of the datagram at the head
  unsigned int count = 0;  // slots filled by the last call; all are read when first == count
  std::unique_ptr<char[]> bytes;
  std::array<mmsghdr, kSlots> messages{};
  std::array<iovec, kSlots> parts{};
  std::array<sockaddr_in, kSlots> senders{};
  std::array<Control, kSlots> controls{};

  bool stamps = false;  // the kernel tells when a datagram arrived
  ArrivalClock arrivals;
};

UdpSocket::UdpSocket() = default;

UdpSocket::~UdpSocket() {
  if (fd != -1) close(fd);
}

bool UdpSocket::initialize() {
  return initialized || create();
}

bool UdpSocket::create() {
  // An earlier initialisation may have failed half-way.
  if (fd != -1) close(fd);
  fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd == -1) return false;
  const int flags = fcntl(fd, F_GETFL);
  if (flags == -1) return false;
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1) return false;
  const int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == -1) return false;
  socklen_t length = sizeof send_buffer_size;
  if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer_size, &length) == -1) return false;
  batch.reset(new (std::nothrow) Batch);
  if (batch == nullptr || batch->bytes == nullptr) {
    errno = ENOMEM;
    return false;
  }
  // Only information. No system has to give it.
  batch->stamps = setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) == 0;
  counts_drops = setsockopt(fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on) == 0;
  initialized = true;
  return true;
}

bool UdpSocket::bind(const HostAddress& address, int port) {
  if (!initialize()) return false;
  if (address != kAnyAddress) return false;
  const sockaddr_in local = socket_address(htonl(INADDR_ANY), port);
  return ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

bool UdpSocket::bind(int port) {
  return bind(kAnyAddress, port);
}

bool UdpSocket::fetch() const {
  if (batch->first < batch->count) return true;
  batch->renew_controls();
  int received = -1;
  for (int tries = 0; tries < kInterruptedReads; ++tries) {
    received = recvmmsg(fd, batch->messages.data(), Batch::kSlots, MSG_DONTWAIT, nullptr);
    if (received != -1 || errno != EINTR) break;
  }
  batch->first = 0;
  batch->count = received > 0 ? static_cast<unsigned int>(received) : 0;
  if (received > 0 && batch->stamps) batch->look_at_clocks();
  return received > 0;
}

bool UdpSocket::hasFetchedDatagrams() const {
  return initialized && batch->first < batch->count;
}

bool UdpSocket::hasPendingDatagrams() const {
  if (!initialized) return false;
  return fetch() || errno == EMSGSIZE;
}

std::int64_t UdpSocket::pendingDatagramSize() const {
  if (!initialized) return -1;
  if (!fetch() || batch->size() >= kSizeLimit) return -1;
  return static_cast<std::int64_t>(batch->size());
}

std::int64_t UdpSocket::readDatagram(char* data, unsigned int maxSize, HostAddress* address, int* port) {
  if (!initialize()) return 0;
  const bool received = fetch();
  const sockaddr_in sender = received ? batch->sender() : sockaddr_in{};
  if (address != nullptr) address->set_ipv4(sender.sin_addr.s_addr);
  if (port != nullptr) *port = ntohs(sender.sin_port);
  if (!received) return -1;
  const size_t size = std::min<size_t>(batch->size(), maxSize);
  if (size > 0) memcpy(data, batch->data(), size);
  ++batch->first;
  return static_cast<std::int64_t>(size);
}

bool UdpSocket::takeDatagram(Datagram& datagram) {
  if (!initialize() || !fetch()) return false;
  const sockaddr_in& sender = batch->sender();
  datagram.sender_address.set_ipv4(sender.sin_addr.s_addr);
  datagram.sender_port = ntohs(sender.sin_port);
  datagram.bytes = {batch->data(), batch->size()};
  const Ancillary ancillary = batch->ancillary();
  datagram.kernel_drops = ancillary.drops;
  const auto arrival = ancillary.stamp ? batch->arrivals.arrival(*ancillary.stamp) : std::nullopt;
  datagram.stamped = arrival.has_value();
  datagram.rx_time = arrival ? *arrival : steady_time();
  ++batch->first;
  return true;
}

std::int64_t UdpSocket::writeDatagram(const char* data, unsigned int size, const HostAddress& address,
                                      int port) {
  if (!initialize()) return -1;
  std::uint32_t destination = 0;
  if (!address.ipv4(destination)) {
    errno = EINVAL;
    return -1;
  }
  const sockaddr_in peer = socket_address(destination, port);
  return sendto(fd, data, size, 0, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
}

bool UdpSocket::sendBufferIsBelow(int percent) const {
  if (!initialized) return true;
  // Both numbers count memory, not payload: a datagram of 239 bytes takes 768 to 1280, depending on the
  // driver. The kernel compares the same two numbers when it refuses a datagram with EAGAIN.
  int used = 0;
  if (ioctl(fd, SIOCOUTQ, &used) == -1) return true;
  return used < static_cast<std::int64_t>(send_buffer_size) * percent / 100;
}

std::optional<std::uint32_t> UdpSocket::kernelDrops() const {
  std::array<std::uint32_t, SK_MEMINFO_VARS> counts{};
  socklen_t length = sizeof counts;
  if (!initialized || !counts_drops) return std::nullopt;
  if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, counts.data(), &length) == -1 || length < sizeof counts)
    return std::nullopt;
  return counts[SK_MEMINFO_DROPS];
}

int UdpSocket::select_with_tm(int timeout_ms, bool read) const {
  if (read && hasFetchedDatagrams()) return 1;
  if (fd < 0 || fd >= FD_SETSIZE) {
    errno = EBADF;
    return -1;
  }
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  timeval timeout{};
  timeout.tv_sec = timeout_ms / 1000;
  timeout.tv_usec = static_cast<suseconds_t>(timeout_ms % 1000) * 1000;
  return select(fd + 1, read ? &set : nullptr, read ? nullptr : &set, nullptr,
                timeout_ms < 0 ? nullptr : &timeout);
}

bool UdpSocket::waitForReadyRead(int timeout_ms) {
  return waitFor(timeout_ms) == Wait::Ready;
}

void UdpSocket::wake() const {
  // The call fails on a socket without a peer, but whoever waits for it wakes up; Linux does this on purpose.
  shutdown(fd, SHUT_RD);
}

UdpSocket::Wait UdpSocket::waitFor(int timeout_ms) {
  if (!initialize()) return Wait::Failed;
  const int result = select_with_tm(timeout_ms, true);
  if (result > 0) return Wait::Ready;
  if (result == 0) return Wait::TimeOut;
  return errno == EINTR ? Wait::Interrupted : Wait::Failed;
}

}  // namespace kesto::net
