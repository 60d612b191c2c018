#include "tools/RecordDisplay.h"

#include "tools/Terminal.h"

namespace kadrel_cue {
namespace {

constexpr double kQuiet = 3;  // s

}  // namespace

void RecordDisplay::say(const std::string& words) {
  err << (line_shown ? kClearLine : "") << "kadrel-cue: " << words << std::endl;
  line_shown = false;
}

void RecordDisplay::write_line(const std::string& text) {
  err << kClearLine << text << std::flush;
  line_shown = true;
}

void RecordDisplay::show(const RecordLine& line) {
  waited = 0;
  // One column stays free: a full line would go on in the next.
  if (live) write_line(line_text(line, terminal_columns() - 1));
}

void RecordDisplay::show_waiting(double seconds) {
  if (seconds < kQuiet) {
    waited = 0;
    return;
  }
  const int whole = static_cast<int>(seconds);
  if (whole == waited) return;
  const bool first = waited == 0;
  waited = whole;
  const std::string words =
      "kadrel does not answer for " + std::to_string(whole) + " s (its disk may stand still)";
  if (live)
    write_line(words.substr(0, terminal_columns() - 1));
  else if (first)
    say(words + "; still waiting");
}

void RecordDisplay::finish() {
  if (line_shown) err << std::endl;
  line_shown = false;
}

}  // namespace kadrel_cue
