#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "cue/Input.h"

namespace kadrel_cue {

/// Shows on a terminal how far the inputs of a command have been read, when that takes longer than a second.
/// What the command says meanwhile takes the place of the line.
class Progress {
public:
  /// @param out, err  streams of the command, until the end of this object
  /// @param input     must outlive it
  Progress(std::ostream& out, std::ostream& err, cue::Input& input);
  Progress(std::ostream& out, std::ostream& err, std::vector<cue::Input>& inputs);

  /// Takes the line away.
  ~Progress();

  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  Progress(Progress&&) = delete;
  Progress& operator=(Progress&&) = delete;

private:
  class Line;
  std::unique_ptr<Line> line;  // nothing when the error output is no terminal
};

/// "show.cue  45 %", or the bytes so far when the size is not known. @param columns  of the terminal
std::string reading_text(const cue::Reading& reading, std::size_t columns);

}  // namespace kadrel_cue
