#include "tools/TopScreen.h"

#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <string>

#include "cue/CueError.h"
#include "cue/live/PrintableText.h"

// Its macros have names such as "lines" and "timeout".
#define NCURSES_NOMACROS
#include <curses.h>
#include <term.h>
// A name of that header for what a terminal can do.
#undef lines

namespace kadrel_cue {
namespace {

// Longest time between an escape and the rest of what a key sends, over slow connections, too.
constexpr int kEscapeMs = 100;

constexpr short kWarningPair = 1;

// For the signal handlers; constant while there is a screen.
termios modes_before;
std::array<char, 256> leaving{};  // bytes that end the full screen
std::size_t leaving_size = 0;
std::atomic<bool> is_on = false;
static_assert(std::atomic<bool>::is_always_lock_free, "it is used in signal handlers");

constexpr int kFatalSignals[] = {SIGQUIT, SIGABRT};

int keep_byte(int byte) {
  if (leaving_size < leaving.size()) leaving[leaving_size++] = static_cast<char>(byte);
  return byte;
}

/// What the terminal is sent at the end, when ncurses cannot be called.
void keep_leaving() {
  leaving_size = 0;
  for (const char* const ability : {"sgr0", "cnorm", "rmcup", "rmkx"}) {
    const char* const bytes = tigetstr(ability);
    if (bytes != nullptr) tputs(bytes, 1, keep_byte);
  }
}

/// The program ends by the signal.
void end_by(int signal) {
  TopScreen::restore_terminal();
  raise(signal);
}

void on_fatal_signals(void (*handler)(int), unsigned flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = static_cast<int>(flags);
  for (const int signal : kFatalSignals) sigaction(signal, &action, nullptr);
}

std::string terminal_name() {
  const char* const name = getenv("TERM");  // NOLINT(concurrency-mt-unsafe): nothing sets it
  return name == nullptr ? "" : cue::ascii_text(name);
}

/// @throws cue::CueError
void check_terminal() {
  const std::string instead = "; --once prints the table, and --json writes the figures";
  const std::string name = terminal_name();
  int problem = 0;
  if (name.empty()) throw cue::CueError("TERM does not say which terminal this is" + instead);
  if (setupterm(nullptr, STDOUT_FILENO, &problem) == ERR)
    throw cue::CueError("the terminal \"" + name + "\" (TERM) is not known here" + instead);
  const bool places_text = tigetstr("cup") != nullptr;
  del_curterm(cur_term);
  if (!places_text) throw cue::CueError("the terminal \"" + name + "\" cannot place text" + instead);
}

/// Ctrl-S is an ordinary key: it would stop the capture with the screen.
void let_pass_flow_control() {
  termios modes{};
  if (tcgetattr(STDIN_FILENO, &modes) == -1) return;
  modes.c_iflag &= ~static_cast<tcflag_t>(IXON);
  tcsetattr(STDIN_FILENO, TCSANOW, &modes);
  def_prog_mode();
}

bool colour_is_wanted() {
  const char* const no_color = getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): nothing sets it
  return no_color == nullptr || *no_color == '\0';
}

int key_of(int code) {
  switch (code) {
    case KEY_UP:
      return top_key::kUp;
    case KEY_DOWN:
      return top_key::kDown;
    case KEY_LEFT:
      return top_key::kLeft;
    case KEY_RIGHT:
      return top_key::kRight;
    case KEY_PPAGE:
      return top_key::kPageUp;
    case KEY_NPAGE:
      return top_key::kPageDown;
    case KEY_HOME:
      return top_key::kHome;
    case KEY_END:
      return top_key::kEnd;
    case KEY_BTAB:
      return top_key::kBackTab;
    case KEY_BACKSPACE:
    case 0x7F:
    case '\b':
      return top_key::kErase;
    case KEY_ENTER:
    case '\r':
      return top_key::kEnter;
    default:
      return code < 0x80 ? code : 0;
  }
}

}  // namespace

bool has_screen() {
  return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
}

TopScreen::TopScreen() {
  check_terminal();
  tcgetattr(STDIN_FILENO, &modes_before);
  if (newterm(nullptr, stdout, stdin) == nullptr)
    throw cue::CueError("the terminal \"" + terminal_name() + "\" cannot be used");
  keep_leaving();
  is_on = true;
  on_fatal_signals(end_by, SA_RESETHAND | SA_NODEFER);
  cbreak();
  noecho();
  intrflush(stdscr, FALSE);
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  set_escdelay(kEscapeMs);
  curs_set(0);
  let_pass_flow_control();
  in_colour = colour_is_wanted() && has_colors() && start_color() == OK && use_default_colors() == OK &&
              init_pair(kWarningPair, COLOR_YELLOW, -1) == OK;
}

TopScreen::~TopScreen() {
  // A terminal without a second screen keeps what it shows.
  werase(stdscr);
  wrefresh(stdscr);
  endwin();
  is_on = false;
  on_fatal_signals(SIG_DFL, 0);
  tcsetattr(STDIN_FILENO, TCSANOW, &modes_before);
}

void TopScreen::restore_terminal() {
  if (!is_on.exchange(false)) return;
  // To change a terminal in the background would stop the program.
  if (tcgetpgrp(STDIN_FILENO) != getpgrp()) return;
  if (write(STDOUT_FILENO, leaving.data(), leaving_size) == -1) {
    // The terminal is gone.
  }
  tcsetattr(STDIN_FILENO, TCSANOW, &modes_before);
}

TopSize TopScreen::size() const {
  return {static_cast<std::size_t>(getmaxx(stdscr)), static_cast<std::size_t>(getmaxy(stdscr))};
}

unsigned TopScreen::attributes_of(TopStyle style) const {
  switch (style) {
    case TopStyle::Title:
      return A_BOLD;
    case TopStyle::Heading:
      return A_UNDERLINE;
    case TopStyle::Chosen:
      return A_REVERSE;
    case TopStyle::Warning:
      return A_BOLD | (in_colour ? static_cast<unsigned>(COLOR_PAIR(kWarningPair)) : 0);
    case TopStyle::Plain:
      break;
  }
  return A_NORMAL;
}

void TopScreen::draw(const std::vector<TopLine>& lines) {
  werase(stdscr);
  for (std::size_t row = 0; row < lines.size(); ++row) {
    const TopLine& line = lines[row];
    const int y = static_cast<int>(row);
    wattrset(stdscr, static_cast<int>(attributes_of(line.style)));
    mvwaddnstr(stdscr, y, 0, line.text.data(), static_cast<int>(line.text.size()));
    if (line.mark_size > 0)
      mvwchgat(stdscr, y, static_cast<int>(line.mark_begin), static_cast<int>(line.mark_size), A_REVERSE, 0,
               nullptr);
  }
  wattrset(stdscr, A_NORMAL);
  wrefresh(stdscr);
}

std::optional<int> TopScreen::next_key() {
  const int code = wgetch(stdscr);
  if (code == ERR) return std::nullopt;
  return key_of(code);
}

}  // namespace kadrel_cue
