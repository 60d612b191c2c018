#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cue/CueError.h"
#include "cue/Frames.h"

namespace cue {

/// The user may not capture. Its text is one sentence that names the ways to get the right.
class NoCaptureRight : public CueError {
public:
  using CueError::CueError;
};

/// Looks at the Art-Net and E1.31 datagrams of an interface with libpcap. Binds no port and sends nothing.
class LiveCapture {
public:
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

  /// Hands over all datagrams that have arrived; does not wait. @throws CueError when the interface goes away
  void read(const Visit& visit);

  /// Readable (poll) when datagrams have arrived.
  int descriptor() const;

  /// Datagrams that came and were not taken in time, since the beginning.
  std::uint64_t lost() const;

private:
  class Handle;
  std::unique_ptr<Handle> handle;
};

/// Interfaces that can be looked at, without "any".
std::vector<std::string> capture_interfaces();

}  // namespace cue
