#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace cue {

struct VerifyOptions {
  std::vector<std::string> files;
  bool strict = false;   // datagrams that hold more than ArtDmx packets count as damaged
  std::string repaired;  // file that receives what is good of the one file; empty: none
};

/// The command: a line for each whole file on @p out, a line for each damage on @p err.
/// @return exit code: 1 when a file is damaged or cannot be read
/// @throws CueError when the repaired file cannot be written
int run_verify(const VerifyOptions& options, std::ostream& out, std::ostream& err);

}  // namespace cue
