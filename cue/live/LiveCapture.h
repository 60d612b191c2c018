#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cue/CueError.h"
#include "cue/Frames.h"

namespace cue {

/// All interfaces.
constexpr const char* kAnyInterface = "any";

/// What setcap(8) is to give the program: the right to capture, and real time for playbacks. It takes away
/// what it does not name.
constexpr const char* kCapabilities = "cap_net_raw,cap_sys_nice+ep";

/// The user may not capture. Its text is one sentence that names the ways to get the right.
class NoCaptureRight : public CueError {
public:
  using CueError::CueError;
};

/// Looks at the Art-Net and E1.31 datagrams over IPv4 of an interface with libpcap: at those to or from the
/// ports of the two, of those in fragments only at those to them. Binds no port and sends nothing.
///
/// The interface takes frames to others, too, as a mirror port delivers them (promiscuous). At "any", which
/// cannot do so, a datagram that passes several interfaces is handed over once.
///
/// The kernel keeps what 512 universes send at 44 Hz for two seconds, and hands it over in batches, each at
/// most kBatch after its first frame. A reader that comes back every 50 to 100 ms is woken up least.
class LiveCapture {
public:
  static constexpr int kBatch = 50;  // ms

  /// @param interface  its name; "any" for all of them
  /// @throws NoCaptureRight, CueError when there is no such interface or it is down
  explicit LiveCapture(const std::string& interface);
  ~LiveCapture();
  LiveCapture(const LiveCapture&) = delete;
  LiveCapture& operator=(const LiveCapture&) = delete;
  LiveCapture(LiveCapture&&) = delete;
  LiveCapture& operator=(LiveCapture&&) = delete;

  /// The datagram is valid during the call. @param time  of arrival, ns since 1970
  using Visit = std::function<void(const UdpDatagram& datagram, std::int64_t time)>;

  /// Hands over all datagrams that have arrived, about two seconds of them at most; does not wait.
  /// @throws CueError when the interface goes away or down
  void read(const Visit& visit);

  /// Readable (poll) when datagrams have arrived. Nothing tells that the interface goes away but read().
  int descriptor() const;

  /// Datagrams that came and were not taken in time, since the beginning.
  std::uint64_t lost() const;

private:
  class Handle;
  std::unique_ptr<Handle> handle;
};

/// Interfaces that are up, without "any"; in the order of the kernel.
std::vector<std::string> capture_interfaces();

}  // namespace cue
