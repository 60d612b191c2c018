#include "cue/live/LiveCapture.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstring>
#include <exception>
#include <optional>

#include "artnet/ArtNet.h"
#include "cue/ByteOrder.h"
#include "cue/Libpcap.h"
#include "cue/Sacn.h"
#include "cue/live/Copies.h"
#include "cue/live/Meters.h"
#include "cue/live/PrintableText.h"

namespace cue {
namespace {

// The longest IPv4 packet behind Ethernet with two VLAN tags, or the header of "any".
constexpr int kSnapLength = 65535 + 32;

// Two seconds of 512 universes at 44 Hz: 22,528 datagrams a second, 656 bytes each with what the kernel puts
// before them (29.6 MB).
constexpr int kBufferSize = 32 * 1024 * 1024;

// Frames after which a reader gets back to its other work, also one that is slower than what comes. Without
// a number libpcap goes on for as long as there are any. Ten reads a second take 160,000 frames.
constexpr int kFramesInATurn = 1000;
constexpr int kMostTurns = 16;

constexpr int kLinuxSll2 = 276;  // pcap-linktype(7)
constexpr std::size_t kSll2Interface = 4;

/// What the kernel hands over. The part after "or" is for frames with VLAN tags that the kernel did not take
/// off; each "vlan" moves all that follows it.
std::string filter(bool with_tags) {
  std::string wanted = "(ip and udp and (udp port 6454 or udp port 5568 or ip[6:2] & 0x3fff != 0))";
  if (!with_tags) return wanted;
  return wanted + " or (vlan and " + wanted + ") or (vlan and " + wanted + ")";
}

/// What ioctl() tells of an interface; nothing when there is none.
std::optional<unsigned> flags_of(const std::string& interface) {
  if (interface.size() >= IFNAMSIZ) return std::nullopt;
  const int any_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  interface.copy(request.ifr_name, interface.size());
  const bool known = any_socket != -1 && ioctl(any_socket, SIOCGIFFLAGS, &request) == 0;
  if (any_socket != -1) close(any_socket);
  if (!known) return std::nullopt;
  return static_cast<unsigned short>(request.ifr_flags);
}

std::string program_path() {
  std::array<char, PATH_MAX> path{};
  const ssize_t size = readlink("/proc/self/exe", path.data(), path.size());
  return size > 0 ? std::string(path.data(), static_cast<std::size_t>(size)) : "/usr/bin/kadrel-cue";
}

/// Changing the group of a file takes its capabilities away, so setcap comes last. It replaces the
/// capabilities that were there, so it names the one that playbacks want, too.
NoCaptureRight no_right(const std::string& interface) {
  const std::string program = program_path();
  const std::string setcap = "sudo setcap " + std::string(kCapabilities) + ' ' + program;
  const std::string group = "sudo groupadd -f kadrel && sudo usermod -aG kadrel $USER && sudo chgrp kadrel " +
                            program + " && sudo chmod 750 " + program + " && " + setcap;
  return NoCaptureRight{interface + ": you have no right to capture; give it to all users with \"" + setcap +
                        "\", or to the members of one group alone with \"" + group + "\" and a new login"};
}

}  // namespace

class LiveCapture::Handle {
public:
  explicit Handle(const std::string& interface);

  void read(const Visit& visit);
  int descriptor() const { return pcap_get_selectable_fd(pcap.get()); }
  std::uint64_t lost();

private:
  struct Closer {
    void operator()(pcap_t* capture) const { pcap_close(capture); }
  };

  CueError error(const std::string& what) const { return CueError{shown + ": " + what}; }
  void open();
  void set_filter();
  void check_interface() const;
  static void take(std::uint8_t* self, const pcap_pkthdr* header, const std::uint8_t* bytes);
  void take(const pcap_pkthdr& header, const std::uint8_t* bytes);

  std::string name;
  std::string shown;  // the name, fit for a terminal
  std::unique_ptr<pcap_t, Closer> pcap;
  int link_type = 0;
  FrameDecoder decoder;
  std::unique_ptr<Copies> copies;  // at "any"
  const Visit* visitor = nullptr;  // during read()
  std::exception_ptr failure;      // of the visitor
  DropCounter drops;               // of the kernel
  DropCounter interface_drops;
  std::uint64_t all_drops = 0;
};

LiveCapture::Handle::Handle(const std::string& interface) : name(interface), shown(ascii_text(interface)) {
  if (name == kAnyInterface)
    copies = std::make_unique<Copies>();
  else
    check_interface();
  std::array<char, PCAP_ERRBUF_SIZE> text{};
  pcap.reset(pcap_create(name.c_str(), text.data()));
  if (!pcap) throw error(text.data());
  open();
  set_filter();
  if (pcap_setnonblock(pcap.get(), 1, text.data()) == PCAP_ERROR) throw error(text.data());
  link_type = pcap_datalink(pcap.get());
}

void LiveCapture::Handle::open() {
  pcap_t* const capture = pcap.get();
  pcap_set_snaplen(capture, kSnapLength);
  pcap_set_promisc(capture, 1);
  pcap_set_timeout(capture, kBatch);
  pcap_set_buffer_size(capture, kBufferSize);
  pcap_set_tstamp_precision(capture, PCAP_TSTAMP_PRECISION_NANO);
  const int result = pcap_activate(capture);
  if (result == PCAP_ERROR_PERM_DENIED || result == PCAP_ERROR_PROMISC_PERM_DENIED) throw no_right(shown);
  // Above 0: it works, but not in every way that was asked for; "any" is never promiscuous.
  if (result < 0) throw error(result == PCAP_ERROR ? pcap_geterr(capture) : pcap_statustostr(result));
  if (name == kAnyInterface) pcap_set_datalink(capture, kLinuxSll2);
}

void LiveCapture::Handle::set_filter() {
  bpf_program program{};
  // Not every kind of interface can have tags.
  const auto compiles = [&](bool with_tags) {
    return pcap_compile(pcap.get(), &program, filter(with_tags).c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
  };
  if (!compiles(true) && !compiles(false)) throw error(pcap_geterr(pcap.get()));
  const int result = pcap_setfilter(pcap.get(), &program);
  pcap_freecode(&program);
  if (result != 0) throw error(pcap_geterr(pcap.get()));
}

void LiveCapture::Handle::check_interface() const {
  if (name == kAnyInterface) return;
  const std::optional<unsigned> flags = flags_of(name);
  if (!flags) throw error("there is no such interface");
  if ((*flags & IFF_UP) == 0) throw error("the interface is down");
}

void LiveCapture::Handle::read(const Visit& visit) {
  visitor = &visit;
  int taken = 0;
  int turns = 0;
  do taken = pcap_dispatch(pcap.get(), kFramesInATurn, take, reinterpret_cast<std::uint8_t*>(this));
  while (taken > 0 && ++turns < kMostTurns);
  visitor = nullptr;
  if (failure) std::rethrow_exception(std::exchange(failure, nullptr));
  // What libpcap says of an interface that has gone depends on its version.
  if (turns == 0) check_interface();
  if (taken == PCAP_ERROR) throw error(pcap_geterr(pcap.get()));
}

/// For libpcap. An exception cannot pass through it, and is kept.
void LiveCapture::Handle::take(std::uint8_t* self, const pcap_pkthdr* header, const std::uint8_t* bytes) {
  auto* const handle = reinterpret_cast<Handle*>(self);
  try {
    handle->take(*header, bytes);
  } catch (...) {
    handle->failure = std::current_exception();
    pcap_breakloop(handle->pcap.get());
  }
}

void LiveCapture::Handle::take(const pcap_pkthdr& header, const std::uint8_t* bytes) {
  Frame frame;
  frame.link_type = link_type;
  frame.bytes = {bytes, header.caplen};
  const std::int64_t time = packet_time(header.ts);
  frame.time = time;
  if (link_type == kLinuxSll2 && header.caplen >= kSll2Interface + 4)
    frame.interface = high_byte_first_long(bytes + kSll2Interface);
  const std::uint64_t fragments = decoder.counts().fragments;
  const std::optional<UdpDatagram> datagram = decoder.decode(frame);
  if (!datagram) return;
  // The kernel cannot know the ports of fragments, and hands over those of all datagrams.
  if (decoder.counts().fragments != fragments && datagram->port != kArtNetPort && datagram->port != kSacnPort)
    return;
  if (copies && copies->is_copy(*datagram, frame.interface, time)) return;
  (*visitor)(*datagram, time);
}

std::uint64_t LiveCapture::Handle::lost() {
  pcap_stat figures{};
  if (pcap_stats(pcap.get(), &figures) == 0)
    all_drops = drops.add(figures.ps_drop) + interface_drops.add(figures.ps_ifdrop);
  return all_drops;
}

LiveCapture::LiveCapture(const std::string& interface) : handle(std::make_unique<Handle>(interface)) {}

LiveCapture::~LiveCapture() = default;

void LiveCapture::read(const Visit& visit) {
  handle->read(visit);
}

int LiveCapture::descriptor() const {
  return handle->descriptor();
}

std::uint64_t LiveCapture::lost() const {
  return handle->lost();
}

std::vector<std::string> capture_interfaces() {
  std::vector<std::string> names;
  struct if_nameindex* const all = if_nameindex();
  for (struct if_nameindex* one = all; one != nullptr && one->if_index != 0; ++one)
    if ((flags_of(one->if_name).value_or(0) & IFF_UP) != 0) names.emplace_back(one->if_name);
  if (all != nullptr) if_freenameindex(all);
  return names;
}

}  // namespace cue
