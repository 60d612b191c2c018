#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/TopView.h"

namespace kadrel_cue {

/// Where the figures come from: the network, or a recording.
class TopSource {
public:
  TopSource() = default;
  virtual ~TopSource() = default;
  TopSource(const TopSource&) = delete;
  TopSource& operator=(const TopSource&) = delete;
  TopSource(TopSource&&) = delete;
  TopSource& operator=(TopSource&&) = delete;

  /// Takes what has come; does not wait. To be called about ten times a second.
  /// @throws cue::CueError when the interface goes away, or the file cannot be read
  virtual void read() = 0;

  /// Whether there is more to come only with time: always so of the network, and of a file that has been read
  /// up to its end.
  virtual bool is_at_end() const = 0;

  /// Whether it is the network.
  virtual bool is_live() const = 0;

  /// What is in a file by now is all that is wanted of it: its last datagram waits for no other.
  virtual void finish() = 0;

  virtual TopFigures figures() = 0;
};

/// @param name  an interface, "any" for all of them, or a file; one of the two with the name of the other
///              needs a '/'. Empty: default_interface()
/// @throws cue::CueError, cue::NoCaptureRight
std::unique_ptr<TopSource> open_top_source(const std::string& name);

/// Nanoseconds on a clock that nobody sets.
using SteadyTime = std::function<std::int64_t()>;

/// A recording that is followed; when another file gets its name, that one. @throws cue::CueError
std::unique_ptr<TopSource> follow_recording(const std::string& path, SteadyTime now);

/// eth0 when there is one, otherwise the only one that is up. @param up  interfaces
/// @throws cue::CueError with the names to choose from
std::string default_interface(bool has_eth0, const std::vector<std::string>& up);

}  // namespace kadrel_cue
