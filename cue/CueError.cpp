#include "cue/CueError.h"

#include <system_error>

namespace cue {

CueError file_error(const std::string& path, int error) {
  return CueError{path + ": " + std::generic_category().message(error)};
}

}  // namespace cue
