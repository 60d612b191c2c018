#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kadrel_cue {

/// The recorder on the session bus, as a client sees it. Every call waits for its answer, without an event
/// loop. One thread.
class ServiceClient {
public:
  enum class State { Off, Armed, Recording };

  /// Called about 20 times a second while an answer is waited for. @param seconds  of waiting so far
  /// It may throw: then the answer is not waited for, and what was asked is done all the same.
  using WhileWaiting = std::function<void(double seconds)>;

  /// Connects to the session bus; never starts one. @throws cue::CueError with what to do when there is none
  explicit ServiceClient(WhileWaiting while_waiting = {});
  ~ServiceClient();
  ServiceClient(const ServiceClient&) = delete;
  ServiceClient& operator=(const ServiceClient&) = delete;
  ServiceClient(ServiceClient&&) = delete;
  ServiceClient& operator=(ServiceClient&&) = delete;

  /// Process that has the name of the service now; nothing: nobody, or the bus has ended. Starts nothing.
  /// @throws cue::CueError when the bus does not answer
  std::optional<pid_t> process();

  /// Whether the bus can start the service.
  bool can_be_started();

  // The methods of the service; the bus starts it when it can. Each is waited for 30 s, as long as a bus
  // takes to give up a start, and what must be known of once it is asked for, for as long as it takes.
  // @throws cue::CueError when it does not answer

  State status();

  /// Asks for a recording, and waits without a limit: a service that hangs would begin it later, and nobody
  /// would end it. status() tells whether there is one. @param path  absolute
  void grab(const std::string& path);

  /// Ends the recording, whoever has begun it; comes back when the file is complete, however long the disk
  /// takes.
  void stop();

  /// The last recording that has ended, as the service describes it in JSON; waits for its file like stop().
  std::string latest_grab();

private:
  class Bus;
  std::unique_ptr<Bus> bus;
};

/// What to do where nobody has the name of the service, and the bus cannot start it. One line.
std::string words_about_missing_service();

}  // namespace kadrel_cue
