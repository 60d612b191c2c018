#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "tools/ReservedFile.h"
#include "tools/ServiceClient.h"

namespace kadrel_cue {

/// One recording of the service that this program has begun. Nobody else's is ever stopped.
class ServiceGrab {
public:
  enum class Standing {
    Ours,
    Ended,    // by the record channel, or by somebody else
    Died,     // the service has ended
    Unknown,  // it does not answer
  };

  /// @throws cue::CueError when the service does not answer or is busy; nothing is touched then
  static void check_idle(ServiceClient& client);

  /// Begins. @param asked, file  outlive it
  /// @throws cue::CueError when the service is busy or cannot write the file; nothing is recorded then
  ServiceGrab(ServiceClient& asked, const ReservedFile& file);

  /// Asks how it is.
  Standing look();

  /// At the last look.
  ServiceClient::State state() const { return latest_state; }

  /// Whether the recording that the service makes now can only be this one: none has ended since it began.
  bool is_latest();

  /// Ends it if it is still going on; comes back when its file is complete.
  /// @return Ours: stopped; or how it had ended before
  Standing stop();

  /// Datagrams that the service's socket has dropped, see note_drops(); nothing where the kernel does not
  /// tell.
  std::optional<std::uint64_t> drops() const;

  /// What had been dropped at the call before does not count.
  void note_drops() { drops_before = std::exchange(drops_noted, socket_drops()); }

private:
  std::optional<std::uint64_t> socket_drops() const;
  /// Ours: the service that has begun it is still there.
  Standing look_for_process();
  [[noreturn]] void refuse(const ReservedFile& file) const;

  ServiceClient& client;
  std::optional<pid_t> service;
  int port = 0;
  std::string ended_before;  // the latest recording that had ended
  ServiceClient::State latest_state = ServiceClient::State::Off;
  std::optional<std::uint64_t> drops_before;
  std::optional<std::uint64_t> drops_noted;
};

}  // namespace kadrel_cue
