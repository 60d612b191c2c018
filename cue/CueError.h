#pragma once

#include <stdexcept>
#include <string>

namespace cue {

/// Failure of a command, in one line with the name of the file and, if there is one, the offset.
class CueError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// "show.cue: No such file or directory". @param error  an errno
CueError file_error(const std::string& path, int error);

}  // namespace cue
