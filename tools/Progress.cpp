#include "tools/Progress.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ostream>
#include <streambuf>

#include "tools/Terminal.h"

namespace kadrel_cue {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr auto kFirst = std::chrono::seconds(1);
constexpr auto kPeriod = std::chrono::milliseconds(200);

std::string amount_text(const cue::Reading& reading) {
  char text[32];
  if (reading.size && *reading.size > 0)
    snprintf(text, sizeof text, "%.0f %%",
             100 * std::min(1.0, static_cast<double>(reading.position) / static_cast<double>(*reading.size)));
  else
    snprintf(text, sizeof text, "%.1f MB", static_cast<double>(reading.position) / 1e6);
  return text;
}

}  // namespace

class Progress::Line {
public:
  Line(std::ostream& out, std::ostream& err) : out_text(out, *this), err_text(err, *this) {}
  ~Line() { erase(); }
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  Line(Line&&) = delete;
  Line& operator=(Line&&) = delete;

  void show(const cue::Reading& reading) {
    const auto now = SteadyClock::now();
    if (now < next) return;
    next = now + kPeriod;
    write(kClearLine + reading_text(reading, terminal_columns()));
    shown = true;
  }

private:
  /// Takes the line away before text of a stream appears.
  class Interposed : public std::streambuf {
  public:
    Interposed(std::ostream& wanted, Line& before) : stream(wanted), original(wanted.rdbuf()), line(before) {
      exchange(this);
    }
    ~Interposed() override { exchange(original); }
    Interposed(const Interposed&) = delete;
    Interposed& operator=(const Interposed&) = delete;
    Interposed(Interposed&&) = delete;
    Interposed& operator=(Interposed&&) = delete;

    std::streambuf& behind() const { return *original; }

  protected:
    int_type overflow(int_type letter) override {
      if (traits_type::eq_int_type(letter, traits_type::eof())) return traits_type::not_eof(letter);
      line.erase();
      return original->sputc(traits_type::to_char_type(letter));
    }
    std::streamsize xsputn(const char* text, std::streamsize size) override {
      line.erase();
      return original->sputn(text, size);
    }
    int sync() override { return original->pubsync(); }

  private:
    // A new buffer makes a stream forget that it has failed.
    void exchange(std::streambuf* buffer) {
      const auto state = stream.rdstate();
      stream.rdbuf(buffer);
      stream.setstate(state);
    }

    std::ostream& stream;
    std::streambuf* original;
    Line& line;
  };

  void erase() {
    if (shown) write(kClearLine);
    shown = false;
  }

  void write(const std::string& text) const {
    err_text.behind().sputn(text.data(), static_cast<std::streamsize>(text.size()));
    err_text.behind().pubsync();
  }

  bool shown = false;
  SteadyClock::time_point next = SteadyClock::now() + kFirst;
  Interposed out_text;
  Interposed err_text;
};

Progress::Progress(std::ostream& out, std::ostream& err, cue::Input& input) {
  if (isatty(STDERR_FILENO) == 0) return;
  line = std::make_unique<Line>(out, err);
  input.watch([shown = line.get()](const cue::Reading& reading) { shown->show(reading); });
}

Progress::Progress(std::ostream& out, std::ostream& err, std::vector<cue::Input>& inputs) {
  if (isatty(STDERR_FILENO) == 0) return;
  line = std::make_unique<Line>(out, err);
  for (cue::Input& input : inputs)
    input.watch([shown = line.get()](const cue::Reading& reading) { shown->show(reading); });
}

Progress::~Progress() = default;

std::string reading_text(const cue::Reading& reading, std::size_t columns) {
  const std::string amount = "  " + amount_text(reading);
  // One column stays free: a full line would go on in the next.
  const std::size_t room = columns > amount.size() + 1 ? columns - amount.size() - 1 : 0;
  std::string name = reading.name.substr(reading.name.rfind('/') + 1);
  for (char& letter : name)
    if (static_cast<unsigned char>(letter) < ' ' || letter == '\x7F') letter = '?';
  if (name.size() > room) {
    std::size_t end = room;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0U) == 0x80)
      --end;  // within a letter of UTF-8
    name.resize(end);
  }
  return name + amount;
}

}  // namespace kadrel_cue
