#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "artnet/ArtNet.h"
#include "tools/Arguments.h"
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/Playback.h"
#include "tools/Signals.h"

namespace kadrel_cue {
namespace {

constexpr const char* kAddressWords = "an IPv4 address such as 10.0.0.255 or 10.0.0.255:6454";

// Repeats per second with --hold: as many as a console sends.
constexpr int kHoldRate = 40;

/// A number of passes, with an empty inner value for "forever"; nothing for other text.
std::optional<std::optional<std::uint64_t>> parse_loops(const std::string& word) {
  if (word == "forever") return std::optional<std::uint64_t>();
  std::uint64_t loops = 0;
  if (!CLI::detail::lexical_cast(word, loops) || loops == 0) return std::nullopt;
  return loops;
}

class Play : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command =
        add_command(app, "play", "Sends a recording again, datagram for datagram, with its timing.",
                    "  kadrel-cue play show.cue --to 10.0.0.255\n"
                    "  kadrel-cue play show.cue --to 10.0.0.9 --loop forever --blackout\n"
                    "  kadrel-cue play show.cue --to 10.0.0.255 --relay 6454 --universe 1=5 --only 1\n"
                    "  kadrel-cue play show.cue --to 10.0.0.255 --start 10 --stop 1m30.5 --speed 50 --hold");
    add_input(*command, "FILE", options.file, "Recording");
    add_addresses(*command);
    add_timing(*command);
    add_parsed<std::pair<std::uint16_t, std::uint16_t>>(
        *command, "--universe", parse_universe_change,
        [this](const auto& change) { options.selection.changes.push_back(change); },
        "two universes such as 1=5", "Send universe FROM as universe TO; may be given again for others")
        ->type_name("FROM=TO")
        ->expected(1)
        ->take_all();
    add_only(*command, options.selection);
    add_end(*command);
    command->add_flag("--stats", playback.stats, "Write how late the datagrams were, as JSON");
    return command;
  }

  void check() const override { check_time_range(options.selection); }

  int run(std::ostream& out, std::ostream& err) override {
    options.hold_rate = hold ? hold_rate : 0;
    playback.progress = isatty(STDERR_FILENO) != 0;
    return play(playback, stop_on_signals(), out, err);
  }

private:
  void add_addresses(CLI::App& command) {
    add_parsed<cue::Destination>(
        command, "--to", [](const std::string& text) { return parse_destination(text, kArtNetPort); },
        [this](const cue::Destination& to) { playback.to = to; }, kAddressWords,
        "Where to send; the port is 6454 when none is given")
        ->required()
        ->type_name("ADDR[:PORT]");
    CLI::Option* const from =
        add_parsed<cue::Destination>(
            command, "--from", [](const std::string& text) { return parse_destination(text, 0); },
            [this](const cue::Destination& source) { playback.from = source; }, kAddressWords,
            "Address of this host to send from")
            ->type_name("ADDR[:PORT]");
    command
        .add_option("--relay", playback.relay_port,
                    "Send through the kadrel that runs on this port, from its Art-Net port")
        ->check(CLI::Range(1, 65535))
        ->excludes(from)
        ->type_name("PORT");
  }

  void add_timing(CLI::App& command) {
    command
        .add_option("--speed", options.speed,
                    "Per cent: 100 plays in half the time, -100 in twice the time, 50 in three quarters")
        ->check(CLI::Range(-100, 100))
        ->type_name("PERCENT");
    add_time_range(command, options.selection);
    add_parsed<std::optional<std::uint64_t>>(
        command, "--loop", parse_loops, [this](const auto& loops) { options.loops = loops; },
        "a number of passes, or forever", "Passes through the recording, or forever")
        ->type_name("N");
    add_gap(command, options.gap, "passes");
  }

  void add_end(CLI::App& command) {
    command.add_flag("--hold", hold, "Repeat the last look at the end until stopped");
    command.add_option("--hold-rate", hold_rate, "Looks per second for --hold")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str()
        ->type_name("HZ");
    command.add_flag("--blackout", options.blackout,
                     "Send zeros to every universe played, at the end or when stopped");
  }

  Playback playback;
  cue::PlayOptions& options = playback.options;
  bool hold = false;
  int hold_rate = kHoldRate;
};

}  // namespace

std::unique_ptr<Command> make_play() {
  return std::make_unique<Play>();
}

}  // namespace kadrel_cue
