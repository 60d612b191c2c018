#pragma once

#include <termios.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "cue/Player.h"
#include "kesto/delay.h"

namespace kadrel_cue {

enum class Key { Space, Left, Right, Up, Down, Home, Quit, Enter };

/// What a key means for a playback; nothing for Enter.
std::optional<cue::PlayCommand> command_of(Key key);

/// Finds keys in what a terminal sends, byte by byte (ECMA-48, and the sequences of xterm and rxvt).
class KeyParser {
public:
  /// @return the key that ends with this byte; nothing within a sequence and for other keys
  std::optional<Key> take(char byte);

private:
  enum class State { Ground, Escape, Single, Sequence };

  std::optional<Key> take_ground(char byte);
  std::optional<Key> end_sequence(char last);

  State state = State::Ground;
  std::string parameters;  // of the sequence
};

/// The keys of a terminal, without echo and without waiting for whole lines. The terminal becomes again what
/// it was at the end, also at the end by a signal, and while the program is stopped (Ctrl-Z). In the
/// background no key is taken. There is one at a time.
class Keyboard {
public:
  /// @param terminal  descriptor; it is closed at the end
  explicit Keyboard(int terminal);
  ~Keyboard();
  Keyboard(const Keyboard&) = delete;
  Keyboard& operator=(const Keyboard&) = delete;
  Keyboard(Keyboard&&) = delete;
  Keyboard& operator=(Keyboard&&) = delete;

  /// The next key that has been pressed, if any; does not wait.
  std::optional<Key> next();

  /// The command of the next key. After the program was stopped and goes on: to go on from here, not to catch
  /// up.
  std::optional<cue::PlayCommand> next_command();

  /// Makes the terminal what it was before; for signal handlers, too.
  static void restore_terminal();

private:
  bool enter() const;

  int fd;
  KeyParser parser;
  char bytes[64];
  std::size_t begin = 0;  // of those that are not parsed yet
  std::size_t end = 0;
  kesto::Clock::time_point next_look;
};

/// Descriptor of the terminal that keys come from: the standard input, or, when that is the recording, the
/// terminal that the program was started on. @return -1 when there is none
int terminal_of_keys(bool input_is_recording);

/// Waits for Enter at the keyboard, or for a line from the standard input when there is none (nullptr).
/// @return false when the playback is not to begin: q was pressed, or @p stop is set
/// @throws cue::CueError when the standard input ends first or cannot be read
bool wait_for_enter(Keyboard* keyboard, const std::atomic<bool>& stop);

}  // namespace kadrel_cue
