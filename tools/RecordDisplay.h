#pragma once

#include <ostream>
#include <string>

#include "tools/BackgroundOutput.h"
#include "tools/RecordWords.h"

namespace kadrel_cue {

/// What the operator of a recording sees: lines with words, and on a terminal the live line below them. Never
/// waits for the terminal.
class RecordDisplay {
public:
  /// @param on_terminal  show the live line
  RecordDisplay(std::ostream& errors, bool on_terminal) : err(errors), live(on_terminal) {}
  ~RecordDisplay() { finish(); }
  RecordDisplay(const RecordDisplay&) = delete;
  RecordDisplay& operator=(const RecordDisplay&) = delete;
  RecordDisplay(RecordDisplay&&) = delete;
  RecordDisplay& operator=(RecordDisplay&&) = delete;

  /// A line of its own, above the live line.
  void say(const std::string& words);

  void show(const RecordLine& line);

  /// A call waits for the service: shown every second, or said once, when that takes long.
  /// @param seconds  so far
  void show_waiting(double seconds);

  /// Leaves the live line as it stands.
  void finish();

private:
  void write_line(const std::string& text);

  BackgroundOutput err;
  bool live;
  bool line_shown = false;
  int waited = 0;  // seconds that were shown; 0: none
};

}  // namespace kadrel_cue
