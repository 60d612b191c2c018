#include "tools/Keyboard.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>

#include "cue/CueError.h"
#include "cue/Time.h"

namespace kadrel_cue {
namespace {

constexpr std::int64_t kShortJump = 5 * cue::kSecond;
constexpr std::int64_t kLongJump = 30 * cue::kSecond;

constexpr char kEscape = '\x1B';

// Longest parameters that a key sends; what is longer is no key.
constexpr std::size_t kLongestParameters = 16;

// A playback may ask before every datagram; the terminal is asked as often as a hand can tell.
constexpr kesto::Clock::duration kLookPeriod = std::chrono::milliseconds(10);

// Longest wait between two looks at the stop flag.
constexpr int kSliceMs = 20;

// For the signal handlers. They are installed while there is a keyboard, and the modes do not change then.
termios modes_before;
std::atomic<int> raw_terminal = -1;  // descriptor of the terminal without echo
std::atomic<bool> continued = false;
static_assert(std::atomic<int>::is_always_lock_free, "it is used in signal handlers");

constexpr int kFatalSignals[] = {SIGQUIT, SIGABRT};

/// To change a terminal's modes in the background would stop the program.
bool in_foreground(int terminal) {
  return tcgetpgrp(terminal) == getpgrp();
}

void install(int signal, void (*handler)(int), unsigned flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = static_cast<int>(flags);
  sigaction(signal, &action, nullptr);
}

bool is_ignored(int signal) {
  struct sigaction action {};
  sigaction(signal, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

/// The program ends by the signal.
void end_by(int signal) {
  Keyboard::restore_terminal();
  raise(signal);
}

/// The program stops here, and is continued here.
void stop_by(int signal) {
  const int error = errno;
  Keyboard::restore_terminal();
  raise(signal);
  // The thread sanitizer calls handlers with every signal blocked: what waits stops the program before this
  // handler is there again, which would raise it without end.
  sigset_t stop;
  sigset_t before;
  sigemptyset(&stop);
  sigaddset(&stop, signal);
  pthread_sigmask(SIG_UNBLOCK, &stop, &before);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  install(signal, stop_by, SA_RESETHAND | SA_NODEFER);
  errno = error;
}

void note_continuation(int /*signal*/) {
  raw_terminal = -1;  // the shell has set its own modes
  continued = true;
}

void handle_signals() {
  for (const int signal : kFatalSignals) install(signal, end_by, SA_RESETHAND | SA_NODEFER);
  if (!is_ignored(SIGTSTP)) install(SIGTSTP, stop_by, SA_RESETHAND | SA_NODEFER);
  install(SIGCONT, note_continuation, SA_RESTART);
}

void let_signals_be() {
  for (const int signal : kFatalSignals) install(signal, SIG_DFL, 0);
  if (!is_ignored(SIGTSTP)) install(SIGTSTP, SIG_DFL, 0);
  install(SIGCONT, SIG_DFL, 0);
}

}  // namespace

std::optional<cue::PlayCommand> command_of(Key key) {
  using Kind = cue::PlayCommand::Kind;
  switch (key) {
    case Key::Space:
      return cue::PlayCommand{Kind::Pause, 0};
    case Key::Left:
      return cue::PlayCommand{Kind::Seek, -kShortJump};
    case Key::Right:
      return cue::PlayCommand{Kind::Seek, kShortJump};
    case Key::Down:
      return cue::PlayCommand{Kind::Seek, -kLongJump};
    case Key::Up:
      return cue::PlayCommand{Kind::Seek, kLongJump};
    case Key::Home:
      return cue::PlayCommand{Kind::Home, 0};
    case Key::Quit:
      return cue::PlayCommand{Kind::Quit, 0};
    case Key::Enter:
      break;
  }
  return std::nullopt;
}

std::optional<Key> KeyParser::take(char byte) {
  switch (state) {
    case State::Ground:
      break;
    case State::Escape:
      parameters.clear();
      state = byte == '[' ? State::Sequence : byte == 'O' ? State::Single : State::Ground;
      if (state != State::Ground) return std::nullopt;
      break;
    case State::Single:
      return end_sequence(byte);
    case State::Sequence:
      // Parameters and intermediate bytes, up to the final byte.
      if (byte >= '@' && byte <= '~') return end_sequence(byte);
      if (byte >= ' ' && byte < '@' && parameters.size() < kLongestParameters) {
        parameters += byte;
        return std::nullopt;
      }
      state = State::Ground;
  }
  return take_ground(byte);
}

std::optional<Key> KeyParser::take_ground(char byte) {
  switch (byte) {
    case kEscape:
      state = State::Escape;
      return std::nullopt;
    case ' ':
      return Key::Space;
    case 'q':
    case 'Q':
      return Key::Quit;
    case '\r':
    case '\n':
      return Key::Enter;
    default:
      return std::nullopt;
  }
}

std::optional<Key> KeyParser::end_sequence(char last) {
  state = State::Ground;
  switch (last) {
    case 'A':
      return Key::Up;
    case 'B':
      return Key::Down;
    case 'C':
      return Key::Right;
    case 'D':
      return Key::Left;
    case 'H':
      return Key::Home;
    case '~':
      if (parameters == "1" || parameters == "7") return Key::Home;
      return std::nullopt;
    default:
      return std::nullopt;
  }
}

void Keyboard::restore_terminal() {
  const int terminal = raw_terminal.exchange(-1);
  if (terminal != -1 && in_foreground(terminal)) tcsetattr(terminal, TCSANOW, &modes_before);
}

Keyboard::Keyboard(int terminal) : fd(terminal) {
  tcgetattr(fd, &modes_before);
  continued = false;
  handle_signals();
  enter();
}

Keyboard::~Keyboard() {
  restore_terminal();
  let_signals_be();
  close(fd);
}

/// Sets the terminal to single keys, unless it is. @return false when it belongs to another program now
bool Keyboard::enter() const {
  if (!in_foreground(fd)) return false;
  if (raw_terminal != -1) return true;
  termios modes = modes_before;
  modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  modes.c_iflag &= ~static_cast<tcflag_t>(IXON);  // Ctrl-S is an ordinary key
  // Reads do not wait.
  modes.c_cc[VMIN] = 0;
  modes.c_cc[VTIME] = 0;
  raw_terminal = fd;
  return tcsetattr(fd, TCSANOW, &modes) == 0;
}

std::optional<Key> Keyboard::next() {
  for (;;) {
    while (begin < end)
      if (const auto key = parser.take(bytes[begin++])) return key;
    const auto now = kesto::Clock::now();
    if (now < next_look) return std::nullopt;
    next_look = now + kLookPeriod;
    if (!enter()) return std::nullopt;
    const ssize_t count = read(fd, bytes, sizeof bytes);
    if (count <= 0) return std::nullopt;
    begin = 0;
    end = static_cast<std::size_t>(count);
  }
}

std::optional<cue::PlayCommand> Keyboard::next_command() {
  if (continued.exchange(false)) return cue::PlayCommand{cue::PlayCommand::Kind::Seek, 0};
  while (const auto key = next())
    if (const auto command = command_of(*key)) return command;
  return std::nullopt;
}

int terminal_of_keys(bool input_is_recording) {
  if (input_is_recording) return open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  return isatty(STDIN_FILENO) != 0 ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) : -1;
}

bool wait_for_enter(Keyboard* keyboard, const std::atomic<bool>& stop) {
  while (!stop) {
    if (keyboard != nullptr) {
      while (const auto key = keyboard->next())
        if (*key == Key::Enter || *key == Key::Quit) return *key == Key::Enter;
      kesto::sleep_for(std::chrono::milliseconds(kSliceMs));
      continue;
    }
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, kSliceMs) != 1) continue;
    char byte = 0;
    const ssize_t count = read(STDIN_FILENO, &byte, 1);
    if (count == -1 && errno != EINTR && errno != EAGAIN) throw cue::file_error("standard input", errno);
    if (count == 0) throw cue::CueError("the standard input ended before Enter");
    if (count == 1 && byte == '\n') return true;
  }
  return false;
}

}  // namespace kadrel_cue
