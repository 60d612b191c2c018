#pragma once

#include <optional>
#include <vector>

#include "tools/TopView.h"

namespace kadrel_cue {

/// Whether there is a terminal for a TopScreen: the standard input and the standard output.
bool has_screen();

/// The terminal as a screen of lines, by ncurses. It becomes again what it was at the end, also at the end by
/// a signal, and while the program is stopped (Ctrl-Z). There is one at a time.
class TopScreen {
public:
  /// @throws cue::CueError when the terminal is not known, or cannot place text
  TopScreen();
  ~TopScreen();
  TopScreen(const TopScreen&) = delete;
  TopScreen& operator=(const TopScreen&) = delete;
  TopScreen(TopScreen&&) = delete;
  TopScreen& operator=(TopScreen&&) = delete;

  /// Asked each time: a window changes its size.
  TopSize size() const;

  void draw(const std::vector<TopLine>& lines);

  /// The next key as TopView takes it; 0 for one that it does not know, and for a new size of the window.
  /// @return nothing when no key waits
  std::optional<int> next_key();

  /// Makes the terminal what it was before; for signal handlers, too.
  static void restore_terminal();

private:
  unsigned attributes_of(TopStyle style) const;

  bool in_colour = false;
};

}  // namespace kadrel_cue
