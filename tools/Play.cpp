#include <unistd.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "artnet/ArtNet.h"
#include "cue/CueError.h"
#include "cue/SacnSender.h"
#include "tools/Arguments.h"
#include "tools/BackgroundOutput.h"
#include "tools/Command.h"
#include "tools/DamageWarning.h"
#include "tools/Keyboard.h"
#include "tools/Options.h"
#include "tools/PlayWords.h"
#include "tools/Playback.h"
#include "tools/Signals.h"

namespace kadrel_cue {
namespace {

constexpr const char* kAddressWords = "an IPv4 address such as 10.0.0.255 or 10.0.0.255:6454";
constexpr const char* kFadeWords = "a time such as 2, 0.5 or 1m30";

// Repeats per second with --hold: as many as a console sends.
constexpr int kHoldRate = 40;

constexpr int kHighestPriority = 200;

std::string default_source_name() {
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  return std::string("kadrel-cue on ") + host;
}

class Play : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command = add_command(
        app, "play", "Sends a recording again, datagram for datagram, with its timing.",
        "  kadrel-cue play show.cue --to 10.0.0.255\n"
        "  kadrel-cue play show.cue --to 10.0.0.9 --loop forever --blackout\n"
        "  kadrel-cue play show.cue --to 1-4=10.0.0.5 --to 10.0.0.6 --fade-in 2 --wait\n"
        "  kadrel-cue play show.cue --to 10.0.0.255 --relay 6454 --universe 1=5 --only 1\n"
        "  kadrel-cue play show.cue --to 10.0.0.255 --start 10 --stop 1m30.5 --speed 1.5x --hold\n"
        "  kadrel-cue play show.cue --sacn --priority 120");
    add_input(*command, "FILE", options.file, "Recording");
    add_addresses(*command);
    add_sacn(*command);
    add_timing(*command);
    add_parsed<std::pair<std::uint16_t, std::uint16_t>>(
        *command, "--universe", parse_universe_change,
        [this](const auto& change) { options.selection.changes.push_back(change); },
        "two universes such as 1=5", "Send universe FROM as universe TO; may be given again for others")
        ->type_name("FROM=TO")
        ->expected(1)
        ->take_all();
    add_only(*command, options.selection);
    add_ends(*command);
    command->add_flag("--wait", wait, "Start when Enter is pressed");
    add_strict(*command, strict);
    command->add_flag("--stats", playback.stats, "Write how late the datagrams were, as JSON");
    return command;
  }

  void check() const override {
    check_time_range(options.selection);
    if (playback.targets.empty() && !sacn)
      throw CLI::ValidationError("--to is required, or --sacn, which can do without");
    if (sacn && options.sync) throw CLI::ValidationError("--sync is of Art-Net and not for --sacn");
  }

  int run(std::ostream& out, std::ostream& err) override {
    options.hold_rate = hold ? hold_rate : 0;
    playback.progress = isatty(STDERR_FILENO) != 0;
    if (sacn)
      playback.sacn =
          cue::SacnSource{cue::cid_of_this_host(), source_name, static_cast<std::uint8_t>(priority)};

    const int terminal = terminal_of_keys(options.file.path() == "-");
    // The file is read again for each pass and each jump, and before a fade-out. What cannot be read again is
    // copied first, while a signal still ends the program.
    if (terminal != -1 || options.loops != 1 || options.fade_out > 0) options.file.keep();
    const std::atomic<bool>& stop = stop_on_signals();
    std::optional<Keyboard> keyboard;
    if (terminal != -1) playback.keyboard = &keyboard.emplace(terminal);
    if (wait && terminal == -1 && options.file.path() == "-")
      throw cue::CueError("--wait needs a terminal when the recording is the standard input");

    BackgroundOutput words(err);
    if (wait)
      playback.wait_for_start = [&] {
        words << "Enter starts " << options.file.name() << (keyboard ? ", q does not" : "") << std::endl;
        return wait_for_enter(playback.keyboard, stop);
      };
    DamageWarning warning(words, strict);
    options.on_damage = warning.on_damage();
    const int code = play(playback, stop, out, words);
    return code != 0 ? code : warning.exit_code();
  }

private:
  void add_addresses(CLI::App& command) {
    add_parsed<cue::Target>(
        command, "--to", parse_target, [this](const cue::Target& to) { playback.targets.push_back(to); },
        "an IPv4 address such as 10.0.0.255 or 10.0.0.255:6454, or universes for one such as 1-4=10.0.0.5",
        "Where to send (port 6454, with --sacn 5568, when none is given); may be given again for others.\n"
        "With universes, as they are sent, only those, and no other target gets them that names none")
        ->type_name("[UNIVERSES=]ADDR[:PORT]")
        ->expected(1)
        ->take_all();
    CLI::Option* const from =
        add_parsed<cue::Destination>(
            command, "--from", [](const std::string& text) { return parse_destination(text, 0); },
            [this](const cue::Destination& source) { playback.from = source; }, kAddressWords,
            "Address of this host to send from")
            ->type_name("ADDR[:PORT]");
    relay = command
                .add_option("--relay", playback.relay_port,
                            "Send through the kadrel that runs on this port, from its Art-Net port")
                ->check(CLI::Range(1, 65535))
                ->excludes(from)
                ->type_name("PORT");
  }

  void add_sacn(CLI::App& command) {
    CLI::Option* const chosen =
        command
            .add_flag("--sacn", sacn,
                      "Send E1.31 (streaming ACN) instead of Art-Net; without --to to the multicast groups")
            ->excludes(relay);
    command.add_option("--priority", priority, "Priority of the source with --sacn")
        ->check(CLI::Range(0, kHighestPriority))
        ->capture_default_str()
        ->needs(chosen)
        ->type_name("0..200");
    add_parsed<std::string>(
        command, "--source-name", parse_source_name, [this](const std::string& name) { source_name = name; },
        "a name of at most 63 bytes in UTF-8",
        "Name of the source with --sacn; \"kadrel-cue on HOST\" when none is given")
        ->needs(chosen)
        ->type_name("NAME");
    command.add_flag("--sync", options.sync,
                     "Send an ArtSync after each burst of datagrams; not with --sacn");
  }

  void add_timing(CLI::App& command) {
    add_parsed<Speed>(
        command, "--speed", parse_speed,
        [this](const Speed& speed) {
          options.speed = speed.percent;
          options.factor = speed.factor;
        },
        "a factor from 0.01x to 100x, or per cent from -100 to 100",
        "How fast: a factor such as 1.5x, or per cent of shorter pauses: 100 plays in half the time,\n"
        "-100 in twice the time, 50 in three quarters")
        ->type_name("FACTORx|PERCENT");
    add_time_range(command, options.selection);
    command.add_flag_callback(
        "--no-look", [this] { options.look = false; },
        "Begin with the recorded datagrams alone, without the look of each universe at that moment");
    add_parsed<Passes>(
        command, "--loop", parse_passes, [this](const Passes& passes) { options.loops = passes.count; },
        "a number of passes (from 1 to 2^63), or forever", "Passes through the recording")
        ->type_name("N|forever");
    add_gap(command, options.gap, "passes");
  }

  void add_ends(CLI::App& command) {
    add_fade(command, "--fade-in", options.fade_in, "Fade up from zero in TIME");
    add_fade(command, "--fade-out", options.fade_out, "Fade to zero in the last TIME of the last pass");
    command.add_flag("--hold", hold, "Repeat the last look at the end until stopped");
    command.add_option("--hold-rate", hold_rate, "Looks per second for --hold")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str()
        ->type_name("HZ");
    command.add_flag("--blackout", options.blackout,
                     "Send zeros to every universe played, at the end or when stopped");
  }

  static void add_fade(CLI::App& command, const std::string& name, std::int64_t& time,
                       const std::string& help) {
    add_parsed<std::int64_t>(
        command, name, parse_time, [&time](std::int64_t parsed) { time = parsed; }, kFadeWords, help)
        ->type_name("TIME");
  }

  Playback playback;
  cue::PlayOptions& options = playback.options;
  CLI::Option* relay = nullptr;
  bool hold = false;
  int hold_rate = kHoldRate;
  bool wait = false;
  bool strict = false;
  bool sacn = false;
  int priority = cue::SacnSource().priority;
  std::string source_name = default_source_name();
};

}  // namespace

std::unique_ptr<Command> make_play() {
  return std::make_unique<Play>();
}

}  // namespace kadrel_cue
