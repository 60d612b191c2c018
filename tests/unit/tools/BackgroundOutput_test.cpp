#include "tools/BackgroundOutput.h"

#include <gtest/gtest.h>

#include <future>
#include <sstream>
#include <string>
#include <utility>

using kadrel_cue::BackgroundOutput;

namespace {

/// A terminal that stands still from its first text on.
class StoppedTerminal : private std::stringbuf, public std::ostream {
public:
  StoppedTerminal() : std::ostream(static_cast<std::stringbuf*>(this)) {}

  void wait_until_it_writes() { begun.get_future().wait(); }
  void go_on() { gone_on.set_value(); }
  std::string text() const { return std::stringbuf::str(); }

private:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    if (!std::exchange(stopped, true)) {
      begun.set_value();
      gone_on.get_future().wait();
    }
    return std::stringbuf::xsputn(text, size);
  }

  bool stopped = false;
  std::promise<void> begun;
  std::promise<void> gone_on;
};

TEST(BackgroundOutputTest, WritesAllThatIsSaid) {
  std::ostringstream terminal;
  {
    BackgroundOutput output(terminal);
    output << "one" << std::endl << "two" << std::endl;
    output << "three\n";
  }
  EXPECT_EQ(terminal.str(), "one\ntwo\nthree\n");
}

TEST(BackgroundOutputTest, GoesOnWhileTheTerminalStandsAndThenShowsWhatIsNew) {
  StoppedTerminal terminal;
  {
    BackgroundOutput output(terminal);
    output << "\r1" << std::flush;
    terminal.wait_until_it_writes();
    output << "\r2" << std::flush << "\r3" << std::flush << "\rfailed" << std::endl;
    output << "\r4" << std::flush << "\r5" << std::flush;
    terminal.go_on();
  }
  EXPECT_EQ(terminal.text(), "\r1\rfailed\n\r5");
}

TEST(BackgroundOutputTest, WritesNothingWhenNothingIsSaid) {
  std::ostringstream terminal;
  { BackgroundOutput output(terminal); }
  EXPECT_EQ(terminal.str(), "");
}

}  // namespace
