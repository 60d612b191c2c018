#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "cue/CueError.h"
#include "cue/Time.h"
#include "kesto/delay.h"
#include "kesto/wall_clock.h"
#include "tools/Arguments.h"
#include "tools/Command.h"
#include "tools/Keyboard.h"
#include "tools/Options.h"
#include "tools/Signals.h"
#include "tools/Terminal.h"
#include "tools/TopScreen.h"
#include "tools/TopSource.h"
#include "tools/TopView.h"
#include "tools/TrafficJson.h"
#include "tools/TrafficProm.h"

namespace kadrel_cue {
namespace {

using kesto::Clock;

// Between two looks at what has come: few, so that batches are taken; the capture keeps two seconds.
constexpr int kReadMs = 100;

// Keys between two of them: what is pasted does not keep the capture waiting.
constexpr int kMostKeys = 1000;

constexpr Clock::duration kDrawPeriod = std::chrono::milliseconds(250);
constexpr Clock::duration kJsonPeriod = std::chrono::seconds(1);

constexpr std::int64_t kUsualListen = 2 * cue::kSecond;
constexpr std::int64_t kUsualEvery = 5 * cue::kSecond;

// Columns of a table that goes to no terminal.
constexpr std::size_t kTextColumns = 100;

/// Something that is due again and again; what was missed is left out.
class Periodic {
public:
  explicit Periodic(Clock::duration time) : period(time), next(Clock::now() + time) {}

  bool is_due() {
    const auto now = Clock::now();
    if (now < next) return false;
    next = now + period;
    return true;
  }

private:
  Clock::duration period;
  Clock::time_point next;
};

/// Waits for a key, or a moment without one. @return false when the terminal is gone
bool wait(bool for_keys) {
  pollfd keys{STDIN_FILENO, POLLIN, 0};
  if (poll(&keys, for_keys ? 1 : 0, kReadMs) != 1) return true;
  return (keys.revents & POLLIN) != 0 && (keys.revents & (POLLHUP | POLLERR)) == 0;
}

class Top : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command = add_command(
        app, "top", "Shows what is on the wire now: universes, senders, rates, levels. Sends nothing.",
        "  kadrel-cue top\n"
        "  kadrel-cue top eth1\n"
        "  kadrel-cue top any --once\n"
        "  kadrel-cue top /srv/cues/act-2\n"
        "  kadrel-cue top --json | jq .streams\n"
        "  kadrel-cue top --prom /var/lib/prometheus/node-exporter/kadrel.prom --every 10");
    command
        ->add_option(
            "SOURCE", name,
            "Interface, \"any\" for all of them, or a recording, also while it is written. eth0 when\n"
            "none is given, or the only interface that is up")
        ->type_name("");
    CLI::Option* const once =
        command->add_flag("--once", is_once, "Listen for a moment, write the table and end");
    add_parsed<std::int64_t>(
        *command, "--listen", parse_time, [this](std::int64_t time) { listen = time; }, kTimeWords,
        "How long to listen with --once: 2 s when not given")
        ->needs(once)
        ->type_name("TIME");
    command->add_flag("--json", is_json, "Write a JSON object each second, one on a line");
    CLI::Option* const prom =
        command
            ->add_option("--prom", prom_path,
                         "File for the node_exporter of Prometheus, written anew again and again")
            ->type_name("FILE");
    add_parsed<std::int64_t>(
        *command, "--every", parse_time, [this](std::int64_t time) { every = time; }, kTimeWords,
        "How often to write it: each 5 s when not given")
        ->needs(prom)
        ->type_name("TIME");
    return command;
  }

  void check() const override {
    if (prom_path == "-") throw CLI::ValidationError("--prom wants a file, which it replaces");
    if (every < cue::kSecond) throw CLI::ValidationError("--every is at least 1 s");
  }

  int run(std::ostream& out, std::ostream& err) override {
    const bool with_screen = !is_once && !is_json && has_screen();
    if (!is_once && !is_json && !with_screen && prom_path.empty())
      throw cue::CueError(
          "there is no terminal to show the screen on: --once, --json and --prom can do without");
    source = open_top_source(name);
    const std::atomic<bool>& stop = stop_on_signals();
    // Who no longer reads ends the program, as is usual in a pipe.
    if (is_json) signal(SIGPIPE, SIG_DFL);
    if (is_once) return run_once(stop, out);
    if (with_screen) return run_screen(stop);
    return run_outputs(stop, out, err);
  }

private:
  int run_once(const std::atomic<bool>& stop, std::ostream& out) {
    const auto end = Clock::now() + std::chrono::nanoseconds(listen);
    source->read();
    while (!stop && (source->is_live() ? Clock::now() < end : !source->is_at_end())) {
      if (source->is_at_end()) wait(false);
      source->read();
    }
    // Of a file that was not read to its end the rest may be long.
    if (source->is_at_end()) source->finish();
    const TopFigures figures = source->figures();
    if (!prom_path.empty()) write_prom(figures);
    if (is_json) {
      out << json_line(figures) << std::flush;
    } else {
      TopView view;
      view.show(figures);
      out << view.text(isatty(STDOUT_FILENO) != 0 ? terminal_columns() : kTextColumns);
    }
    return figures.traffic.streams.empty() ? 1 : 0;
  }

  int run_screen(const std::atomic<bool>& stop) {
    TopScreen screen;
    TopView view;
    Periodic draw(kDrawPeriod);
    Periodic prom{Clock::duration(every)};
    bool is_wanted = true;
    bool goes_on = true;
    while (goes_on && !stop) {
      source->read();
      for (int count = 0; count < kMostKeys; ++count) {
        const auto key = screen.next_key();
        if (!key) break;
        goes_on = goes_on && view.press(*key);
        is_wanted = true;
      }
      const bool prom_is_due = !prom_path.empty() && prom.is_due();
      if (draw.is_due() || is_wanted || prom_is_due) {
        TopFigures figures = source->figures();
        if (prom_is_due) try_prom(figures);
        if (!prom_failure.empty()) figures.notes.push_back(prom_failure);
        view.show(std::move(figures));
        screen.draw(view.lines(screen.size()));
        is_wanted = false;
      }
      goes_on = goes_on && wait(true);
    }
    return prom_failure.empty() ? 0 : 1;
  }

  /// Without a screen.
  int run_outputs(const std::atomic<bool>& stop, std::ostream& out, std::ostream& err) {
    std::optional<Keyboard> keyboard;
    if (has_screen()) keyboard.emplace(terminal_of_keys(false));
    Periodic json(kJsonPeriod);
    Periodic prom{Clock::duration(every)};
    while (!stop && out) {
      wait(false);
      source->read();
      if (keyboard && keyboard->next() == Key::Quit) break;
      if (is_json && json.is_due()) write_slowly(json_line(source->figures()), stop, out);
      if (!prom_path.empty() && prom.is_due()) {
        const std::string failure_before = prom_failure;
        try_prom(source->figures());
        if (!prom_failure.empty() && prom_failure != failure_before)
          err << "kadrel-cue: " << prom_failure << std::endl;
      }
    }
    return prom_failure.empty() ? 0 : 1;
  }

  static std::string json_line(const TopFigures& figures) {
    return traffic_json(figures.traffic, figures.source, kesto::wall_time(), figures.lost) + '\n';
  }

  /// Writes in portions that a pipe takes at once, so that a reader who is slow, or stopped, keeps neither
  /// the capture nor the end waiting.
  void write_slowly(const std::string& text, const std::atomic<bool>& stop, std::ostream& out) {
    std::size_t written = 0;
    while (written < text.size() && out) {
      pollfd output{STDOUT_FILENO, POLLOUT, 0};
      if (poll(&output, 1, kReadMs) == 1) {
        const std::size_t size = std::min<std::size_t>(PIPE_BUF, text.size() - written);
        out.write(text.data() + written, static_cast<std::streamsize>(size)).flush();
        written += size;
        // The C library can keep to itself that a terminal which is gone took nothing.
        if ((output.revents & POLLHUP) != 0) out.setstate(std::ios::badbit);
      } else if (stop) {
        return;
      } else {
        source->read();
      }
    }
  }

  /// @throws cue::CueError
  void write_prom(const TopFigures& figures) const {
    replace_text_file(prom_path,
                      traffic_prom(figures.traffic, figures.source, kesto::wall_time(), figures.lost));
  }

  /// A full disk, for example, is said, and may pass.
  void try_prom(const TopFigures& figures) {
    prom_failure.clear();
    try {
      write_prom(figures);
    } catch (const cue::CueError& error) {
      prom_failure = error.what();
    }
  }

  std::string name;
  bool is_once = false;
  bool is_json = false;
  std::string prom_path;
  std::int64_t listen = kUsualListen;  // ns
  std::int64_t every = kUsualEvery;    // ns
  std::unique_ptr<TopSource> source;
  std::string prom_failure;  // of the last attempt
};

}  // namespace

std::unique_ptr<Command> make_top() {
  return std::make_unique<Top>();
}

}  // namespace kadrel_cue
