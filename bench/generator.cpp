// Sends Art-Net DMX at a given pace and says honestly how well it kept it.
#include <arpa/inet.h>
#include <getopt.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <vector>

#include "bench/traffic.h"

namespace {

constexpr std::size_t kLargestBatch = 64;
constexpr std::int64_t kSecond = 1'000'000'000;

// The last stretch before a group is due is waited out awake: a timer alone comes 5 to 60 microseconds late.
constexpr std::int64_t kAwake = 30'000;

void usage() {
  fputs(
      "Usage: generator --to ADDRESS --count N [options]\n"
      "  --port P          UDP port, 6454\n"
      "  --count N         datagrams to send\n"
      "  --universes U     the stream goes through port-addresses 0..U-1 in turn, 1\n"
      "  --slots S         slots of each ArtDmx, 24 to 512, 512\n"
      "  --group G         datagrams that leave back to back, 1\n"
      "  --interval NS     from the start of one group to the start of the next; 0 as fast as it goes, 0\n"
      "  --first S         number of the first datagram in the stream, 0\n"
      "  --segmented       hands up to 64 datagrams to the kernel as one, which it takes apart at the "
      "receiver's\n"
      "                    socket (UDP_SEGMENT): cheaper for the sender, other memory for the receiver\n"
      "  --one-by-one      one call for each datagram, which tells its own time; else up to 64 leave "
      "together\n"
      "                    and tell the same\n"
      "  --replies R       sends ArtPollReplies of R nodes in turn instead of ArtDmx\n"
      "  --polls           sends ArtPolls instead\n"
      "  --garbage         sends what is no Art-Net, or broken Art-Net, and never an ArtDmx\n"
      "  --late NS         a group that starts later than this is counted as late, 1000000\n"
      "Prints one JSON object.\n",
      stderr);
}

struct Options {
  sockaddr_in to{};
  std::int64_t count = 0;
  std::int64_t universes = 1;
  std::int64_t slots = 512;
  std::int64_t group = 1;
  std::int64_t interval = 0;
  std::int64_t first = 0;
  std::int64_t late = 1'000'000;
  std::int64_t replies = 0;
  bool segmented = false;
  bool one_by_one = false;
  bool polls = false;
  bool garbage = false;
};

/// The setting behind an option without a value, or null.
bool* flag_of(int option, Options& options) {
  switch (option) {
    case 'S':
      return &options.segmented;
    case 'O':
      return &options.one_by_one;
    case 'P':
      return &options.polls;
    case 'G':
      return &options.garbage;
    default:
      return nullptr;
  }
}

bool read_options(int argc, char** argv, Options& options) {
  static const std::array<option, 15> known{{{"to", required_argument, nullptr, 't'},
                                             {"port", required_argument, nullptr, 'p'},
                                             {"count", required_argument, nullptr, 'c'},
                                             {"universes", required_argument, nullptr, 'u'},
                                             {"slots", required_argument, nullptr, 's'},
                                             {"group", required_argument, nullptr, 'g'},
                                             {"interval", required_argument, nullptr, 'i'},
                                             {"first", required_argument, nullptr, 'f'},
                                             {"late", required_argument, nullptr, 'l'},
                                             {"replies", required_argument, nullptr, 'r'},
                                             {"segmented", no_argument, nullptr, 'S'},
                                             {"one-by-one", no_argument, nullptr, 'O'},
                                             {"polls", no_argument, nullptr, 'P'},
                                             {"garbage", no_argument, nullptr, 'G'},
                                             {nullptr, 0, nullptr, 0}}};
  options.to.sin_family = AF_INET;
  options.to.sin_port = htons(kArtNetPort);
  for (int found = 0; (found = getopt_long(argc, argv, "", known.data(), nullptr)) != -1;) {
    if (found == '?') return false;
    if (found == 't') {
      if (inet_pton(AF_INET, optarg, &options.to.sin_addr) != 1) return false;
      continue;
    }
    if (bool* const flag = flag_of(found, options)) {
      *flag = true;
      continue;
    }
    char* end = nullptr;
    const std::int64_t value = std::strtoll(optarg, &end, 10);
    if (*end != '\0' || value < 0) return false;
    switch (found) {
      case 'p':
        options.to.sin_port = htons(static_cast<std::uint16_t>(value));
        break;
      case 'c':
        options.count = value;
        break;
      case 'u':
        options.universes = value;
        break;
      case 's':
        options.slots = value;
        break;
      case 'g':
        options.group = value;
        break;
      case 'i':
        options.interval = value;
        break;
      case 'f':
        options.first = value;
        break;
      case 'r':
        options.replies = value;
        break;
      default:
        options.late = value;
        break;
    }
  }
  return options.to.sin_addr.s_addr != 0 && options.count > 0 && options.group > 0 &&
         options.universes >= 1 && options.universes <= kUniverseLimit && options.slots >= kSmallestTraffic &&
         options.slots <= static_cast<std::int64_t>(kDmxSlots);
}

std::int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * kSecond + time.tv_nsec;
}

void wait_until(std::int64_t when) {
  const std::int64_t wake = when - kAwake;
  if (wake > now()) {
    const timespec time{wake / kSecond, wake % kSecond};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
    }
  }
  while (now() < when) {
  }
}

/// Sends a datagram at a time, without any count in it.
int send_one(const Options& options, int fd, std::int64_t due, const void* packet, std::size_t size) {
  if (options.interval > 0) wait_until(due);
  const auto* const to = reinterpret_cast<const sockaddr*>(&options.to);
  if (sendto(fd, packet, size, 0, to, sizeof options.to) != -1) return 0;
  perror("generator: sendto");
  return 1;
}

int send_polls(const Options& options, int fd) {
  ArtPoll poll{};
  std::memcpy(poll.header.id, kArtNetId, kArtNetIdSize);
  poll.header.opcode = OpPoll;
  poll.prot_ver_lo = 14;
  const std::int64_t began = now();
  for (std::int64_t i = 0; i < options.count; ++i) {
    if (send_one(options, fd, began + i * options.interval, &poll, sizeof poll) != 0) return 1;
  }
  return 0;
}

int send_replies(const Options& options, int fd) {
  ArtPollReply reply{};
  std::memcpy(reply.header.id, kArtNetId, kArtNetIdSize);
  reply.header.opcode = OpPollReply;
  reply.port = kArtNetPort;
  reply.oem = 0x1234;       // neither the appliance's
  reply.esta_man = 0x4242;  // nor its maker
  reply.num_ports = swap_word(1);
  reply.port_types[0] = 0x80;
  const std::int64_t began = now();
  for (std::int64_t i = 0; i < options.count; ++i) {
    const std::int64_t node = i % options.replies;
    reply.ip[0] = 10;
    reply.ip[1] = 78;
    reply.ip[2] = static_cast<std::uint8_t>(node / 256);
    reply.ip[3] = static_cast<std::uint8_t>(node % 256);
    reply.sw_out[0] = static_cast<std::uint8_t>(node % 16);
    snprintf(reply.short_name, sizeof reply.short_name, "node %u", static_cast<unsigned>(node));
    snprintf(reply.long_name, sizeof reply.long_name, "node %u of the bench", static_cast<unsigned>(node));
    if (send_one(options, fd, began + i * options.interval, &reply, sizeof reply) != 0) return 1;
  }
  return 0;
}

/// Sends noise: nothing at all, random bytes, the identifier with an operation code that nobody knows, node
/// replies that are cut off, and now and then a datagram that is too long.
int send_garbage(const Options& options, int fd) {
  constexpr std::size_t kUsual = 1400;
  constexpr std::size_t kTooLong = 9000;
  constexpr std::int64_t kTooLongOnceIn = 128;
  constexpr std::uint16_t kUnknown = 0x7700;
  std::minstd_rand random(1);
  std::array<char, kTooLong> bytes{};
  const std::int64_t began = now();
  for (std::int64_t i = 0; i < options.count; ++i) {
    std::size_t size = i % kTooLongOnceIn == 0 ? kTooLong : random() % kUsual;
    for (std::size_t at = 0; at < size; ++at) bytes[at] = static_cast<char>(random() >> 8U);
    if (i % 4 >= 2 && size >= sizeof(ArtHeader)) {
      const std::uint16_t opcode = i % 4 == 2 ? kUnknown : static_cast<std::uint16_t>(OpPollReply);
      std::memcpy(bytes.data(), kArtNetId, kArtNetIdSize);
      std::memcpy(bytes.data() + kArtNetIdSize, &opcode, sizeof opcode);
      if (opcode == OpPollReply) size = std::min(size, sizeof(ArtPollReply) / 2);
    }
    if (i % options.group == 0 && options.interval > 0)
      wait_until(began + i / options.group * options.interval);
    const auto* const to = reinterpret_cast<const sockaddr*>(&options.to);
    while (sendto(fd, bytes.data(), size, 0, to, sizeof options.to) == -1) {
      if (errno == EINTR || errno == ENOBUFS || errno == ECONNREFUSED) continue;
      perror("generator: sendto");
      return 1;
    }
  }
  printf("{\"sent\": %" PRId64 ", \"ns\": %" PRId64 "}\n", options.count, now() - began);
  return 0;
}

/// A batch of datagrams that the kernel takes in one call.
class Batch {
public:
  Batch(const Options& options)
      : slots(static_cast<std::size_t>(options.slots)),
        universes(options.universes),
        segmented(options.segmented) {
    for (std::size_t i = 0; i < kLargestBatch; ++i) {
      ArtDmx& packet = packets[i];
      std::memcpy(packet.header.id, kArtNetId, kArtNetIdSize);
      packet.header.opcode = OpDmx;
      packet.prot_ver_hi = 0;
      packet.prot_ver_lo = 14;
      packet.physical = 0;
      packet.length = swap_word(static_cast<std::uint16_t>(slots));
      parts[i] = {&packet, kDmxHeader + slots};
      messages[i].msg_hdr = {};
      messages[i].msg_hdr.msg_name = &to;
      messages[i].msg_hdr.msg_namelen = sizeof to;
      messages[i].msg_hdr.msg_iov = &parts[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    to = options.to;
  }

  void fill(std::size_t index, std::int64_t sequence) {
    ArtDmx& packet = packets[index];
    packet.universe = static_cast<std::uint16_t>(sequence % universes);
    const auto in_universe = static_cast<std::uint32_t>(sequence / universes);
    packet.sequence = static_cast<std::uint8_t>(in_universe % 255 + 1);
    TrafficMark mark{static_cast<std::uint32_t>(sequence), in_universe, 0, {}};
    std::memcpy(mark.name, kTrafficName, sizeof mark.name);
    std::memcpy(packet.data, &mark, sizeof mark);
    std::memset(packet.data + sizeof mark, traffic_fill(mark.sequence), slots - sizeof mark);
  }

  /// Sends the first @p count datagrams. @return datagrams sent, or -1
  int send(int fd, std::size_t count) {
    const std::int64_t time = now();
    for (std::size_t i = 0; i < count; ++i) {
      std::memcpy(packets[i].data + offsetof(TrafficMark, sent_ns), &time, sizeof time);
    }
    if (segmented) return send_as_one(fd, count);
    std::size_t sent = 0;
    while (sent < count) {
      const int result = sendmmsg(fd, &messages[sent], static_cast<unsigned int>(count - sent), 0);
      if (result < 0) {
        if (errno == EINTR) continue;
        if (errno != ENOBUFS && errno != ECONNREFUSED) return -1;
        ++refused;
        continue;
      }
      sent += static_cast<std::size_t>(result);
    }
    return static_cast<int>(sent);
  }

  /// The same with one call for one large datagram, which the kernel takes apart.
  int send_as_one(int fd, std::size_t count) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(std::uint16_t))> control{};
    msghdr message{};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = parts.data();
    message.msg_iovlen = count;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const option = CMSG_FIRSTHDR(&message);
    option->cmsg_level = IPPROTO_UDP;
    option->cmsg_type = UDP_SEGMENT;
    option->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
    const auto size = static_cast<std::uint16_t>(kDmxHeader + slots);
    std::memcpy(CMSG_DATA(option), &size, sizeof size);
    while (sendmsg(fd, &message, 0) == -1) {
      if (errno != EINTR && errno != ENOBUFS && errno != ECONNREFUSED) return -1;
      if (errno == ENOBUFS) ++refused;
    }
    return static_cast<int>(count);
  }

  std::int64_t refused = 0;  // calls that the system turned down for want of memory

private:
  std::size_t slots;
  std::int64_t universes;
  bool segmented;
  sockaddr_in to{};
  std::array<ArtDmx, kLargestBatch> packets{};
  std::array<iovec, kLargestBatch> parts{};
  std::array<mmsghdr, kLargestBatch> messages{};
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!read_options(argc, argv, options)) {
    usage();
    return 2;
  }
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd == -1) {
    perror("generator: socket");
    return 1;
  }
  // What is on its way to a receiver on another processor counts against this buffer.
  const int send_buffer = 32 << 20;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &send_buffer, sizeof send_buffer) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
  }
  prctl(PR_SET_TIMERSLACK, 1UL);
  if (options.replies > 0 || options.polls || options.garbage) {
    const auto send = options.garbage ? send_garbage : options.polls ? send_polls : send_replies;
    const int result = send(options, fd);
    close(fd);
    return result;
  }

  const auto largest = options.one_by_one ? std::int64_t{1} : static_cast<std::int64_t>(kLargestBatch);
  Batch batch(options);
  std::int64_t sent = 0;
  std::int64_t late_groups = 0;
  std::int64_t worst_late = 0;
  std::int64_t groups = 0;
  const std::int64_t began = now();
  while (sent < options.count) {
    if (options.interval > 0) {
      const std::int64_t due = began + groups * options.interval;
      wait_until(due);
      const std::int64_t late = now() - due;
      worst_late = std::max(worst_late, late);
      if (late > options.late) ++late_groups;
    }
    ++groups;
    std::int64_t left = std::min(options.group, options.count - sent);
    while (left > 0) {
      const auto size = static_cast<std::size_t>(std::min(left, largest));
      for (std::size_t i = 0; i < size; ++i) {
        batch.fill(i, options.first + sent + static_cast<std::int64_t>(i));
      }
      if (batch.send(fd, size) == -1) {
        perror("generator: sendmmsg");
        return 1;
      }
      sent += static_cast<std::int64_t>(size);
      left -= static_cast<std::int64_t>(size);
    }
  }
  const std::int64_t lasted = now() - began;

  rusage usage_of_self{};
  getrusage(RUSAGE_SELF, &usage_of_self);
  printf("{\"began_ns\": %" PRId64 ", \"sent\": %" PRId64 ", \"ns\": %" PRId64 ", \"groups\": %" PRId64
         ", \"late_groups\": %" PRId64 ", \"worst_late_ns\": %" PRId64 ", \"refused\": %" PRId64
         ", \"preempted\": %ld}\n",
         began, sent, lasted, groups, late_groups, worst_late, batch.refused, usage_of_self.ru_nivcsw);
  close(fd);
  return 0;
}
