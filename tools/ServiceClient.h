#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

namespace kadrel_cue {

/// The recorder on the session bus, as a client sees it. Every call waits for its answer.
class ServiceClient {
public:
  enum class State { Off, Armed, Recording };

  /// Connects to the session bus. @throws cue::CueError with what to do when there is none
  ServiceClient();
  ~ServiceClient();
  ServiceClient(const ServiceClient&) = delete;
  ServiceClient& operator=(const ServiceClient&) = delete;
  ServiceClient(ServiceClient&&) = delete;
  ServiceClient& operator=(ServiceClient&&) = delete;

  /// Process that has the name of the service now; nothing: nobody. Starts nothing.
  std::optional<pid_t> process();

  /// Whether the bus can start the service.
  bool can_be_started();

  // The methods of the service; the bus starts it when it can. @throws cue::CueError when it does not answer

  State status();

  /// Asks for a recording; status() tells whether it has begun. @param path  absolute
  void grab(const std::string& path);

  /// Ends the recording; comes back when the file is complete.
  void stop();

private:
  class Bus;
  std::unique_ptr<Bus> bus;
};

}  // namespace kadrel_cue
