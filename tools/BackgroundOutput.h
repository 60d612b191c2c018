#pragma once

#include <condition_variable>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace kadrel_cue {

/// An output for which its writer never waits: a terminal may be slow, or stopped by Ctrl-S. What is flushed
/// is written by a thread of its own. Every text takes the place of an unfinished line, so a line without its
/// end that is not written yet is left out when more comes.
class BackgroundOutput : private std::stringbuf, public std::ostream {
public:
  /// @param to  used by the thread until the end of this object
  explicit BackgroundOutput(std::ostream& to);
  /// Waits until everything is written.
  ~BackgroundOutput() override;
  BackgroundOutput(const BackgroundOutput&) = delete;
  BackgroundOutput& operator=(const BackgroundOutput&) = delete;
  BackgroundOutput(BackgroundOutput&&) = delete;
  BackgroundOutput& operator=(BackgroundOutput&&) = delete;

private:
  int sync() override;
  void write();

  // Writer only.
  std::vector<std::string> held_back;  // until the lock is free

  // Guarded by lock.
  std::mutex lock;
  std::condition_variable changed;
  std::vector<std::string> waiting;
  bool ended = false;

  std::ostream& target;  // thread only
  std::thread thread;
};

}  // namespace kadrel_cue
