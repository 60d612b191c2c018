#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "artnet/ArtNet.h"
#include "cue/Arguments.h"
#include "cue/AtomicFile.h"
#include "cue/CueCsv.h"
#include "cue/CueEdit.h"
#include "cue/CueError.h"
#include "cue/CueInfo.h"
#include "cue/CuePcap.h"
#include "cue/CuePlay.h"
#include "cue/CuePlot.h"
#include "cue/CueVerify.h"
#include "cue/Selection.h"
#include "kesto/standard_descriptors.h"

// The command line of kadrel-cue. Exit codes: 0 done, 1 a file or the network is not as it should be, 2 the
// command line is not understood.

namespace {

constexpr int kUsageError = 2;

/// Set by SIGINT and SIGTERM.
std::atomic<bool> stop_requested = false;
static_assert(std::atomic<bool>::is_always_lock_free, "it is set in a signal handler");

void request_stop(int /*signal*/) {
  stop_requested = true;
}

/// A file that is half written does not stay; then the signal does what it does by itself.
void clear_away(int signal) {
  cue::AtomicFile::remove_unfinished();
  raise(signal);
}

void clear_away_on_signals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = clear_away;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(signal, &action, nullptr);
  }
}

void stop_on_signals() {
  struct sigaction action {};
  action.sa_handler = request_stop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

/// Where @p path leads, whether there is a file yet or not.
std::filesystem::path place_of(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::weakly_canonical(std::filesystem::absolute(path, ignored), ignored);
}

/// Adds an option whose word is parsed by @p parse and handed to @p take.
template <typename Value, typename Parse, typename Take>
CLI::Option* add_parsed(CLI::App& command, const std::string& name, Parse parse, Take take, const char* what,
                        const std::string& help) {
  return command.add_option(
      name,
      [parse, take, what](const CLI::results_t& words) {
        for (const std::string& word : words) {
          const std::optional<Value> value = parse(word);
          if (!value) throw CLI::ValidationError("\"" + word + "\" is not " + what);
          take(*value);
        }
        return true;
      },
      help);
}

/// A universe as its port-address.
std::optional<std::uint16_t> parse_universe(const std::string& word) {
  std::uint32_t universe = 0;
  if (!CLI::detail::lexical_cast(word, universe) || universe == 0 ||
      universe > cue::UniverseSet::kPortAddresses)
    return std::nullopt;
  return static_cast<std::uint16_t>(universe - 1);
}

constexpr const char* kTimeWords = "a time such as 90, 1.5 or 1m30.5";
constexpr const char* kUniverseWords = "a list of universes such as 1,3,5-8 (they count from 1)";

constexpr const char* kAddressWords = "an IPv4 address such as 10.0.0.255 or 10.0.0.255:6454";

// Looks per second that are repeated by --hold: as many as a console sends.
constexpr int kHoldRate = 40;

/// A number of passes; an empty one inside stands for "forever".
std::optional<std::optional<std::uint64_t>> parse_loops(const std::string& word) {
  if (word == "forever") return std::optional<std::uint64_t>();
  std::uint64_t loops = 0;
  if (!CLI::detail::lexical_cast(word, loops) || loops == 0) return std::nullopt;
  return loops;
}

void add_time_range(CLI::App& command, cue::Selection& selection) {
  add_parsed<std::int64_t>(
      command, "--start", cue::parse_time, [&selection](std::int64_t time) { selection.start = time; },
      kTimeWords, "Leave out what is before TIME (seconds, or 1m30.5)")
      ->type_name("TIME");
  add_parsed<std::int64_t>(
      command, "--stop", cue::parse_time, [&selection](std::int64_t time) { selection.stop = time; },
      kTimeWords, "Leave out what is at TIME and after it")
      ->type_name("TIME");
}

CLI::Option* add_only(CLI::App& command, cue::Selection& selection) {
  return add_parsed<cue::UniverseSet>(
             command, "--only", cue::parse_universes,
             [&selection](const cue::UniverseSet& universes) { selection.only = universes; }, kUniverseWords,
             "Only these universes, for example 1,3,5-8 (they count from 1)")
      ->type_name("UNIVERSES");
}

/// An option for one universe, counted from 1.
CLI::Option* add_universe(CLI::App& command, std::optional<std::uint16_t>& port_address,
                          const std::string& help) {
  return add_parsed<std::uint16_t>(
             command, "--universe", parse_universe,
             [&port_address](std::uint16_t universe) { port_address = universe; },
             "a universe (they count from 1)", help)
      ->type_name("N");
}

CLI::Option* add_output(CLI::App& command, std::string& output) {
  return command.add_option("-o,--output", output, "File to write; it appears when it is complete")
      ->type_name("OUT");
}

CLI::App* add_command(CLI::App& app, const std::string& name, const std::string& description,
                      const std::string& examples) {
  CLI::App* const command = app.add_subcommand(name, description);
  command->footer("Examples:\n" + examples);
  return command;
}

/// @throws std::exception when a file or the network is not as it should be
int run(int argc, char** argv) {
  CLI::App app(
      "Looks into recordings of kadrel, checks them, plays them, cuts them and hands them to other tools.",
      "kadrel-cue");
  app.require_subcommand(1);
  app.set_version_flag("--version", "kadrel-cue 1.5.2");
  app.footer(
      "kadrel-cue COMMAND --help shows examples. Exit codes: 0 done, 1 a file or the network is not as it "
      "should be,\n"
      "2 the command line is not understood.");

  std::vector<std::string> info_files;
  bool json = false;
  CLI::App* const info = add_command(app, "info", "Shows what is in recordings.",
                                     "  kadrel-cue info show.cue\n"
                                     "  kadrel-cue info --json *.cue | jq '.[] | {file, datagrams}'");
  info->add_option("FILE", info_files, "Recordings")->required()->type_name("");
  info->add_flag("--json", json, "For programs: a JSON list with an object for each file");

  cue::VerifyOptions verify_options;
  bool repair = false;
  CLI::App* const verify = add_command(app, "verify", "Checks whether recordings are whole.",
                                       "  kadrel-cue verify show.cue\n"
                                       "  kadrel-cue verify --repair -o good.cue broken.cue");
  verify->add_option("FILE", verify_options.files, "Recordings")->required()->type_name("");
  verify->add_flag("--strict", verify_options.strict,
                   "Also report datagrams that are more than one ArtDmx packet");
  CLI::Option* const repair_flag =
      verify->add_flag("--repair", repair, "Write what is good of one FILE to OUT");
  CLI::Option* const repaired = add_output(*verify, verify_options.repaired);
  repair_flag->needs(repaired);
  repaired->needs(repair_flag);

  cue::PlayCommand play_command;
  cue::PlayOptions& play_options = play_command.options;
  CLI::App* const play =
      add_command(app, "play", "Sends a recording again, datagram for datagram, with its timing.",
                  "  kadrel-cue play show.cue --to 10.0.0.255\n"
                  "  kadrel-cue play show.cue --to 10.0.0.9 --loop forever --blackout\n"
                  "  kadrel-cue play show.cue --to 10.0.0.255 --relay 6454 --universe 1=5 --only 1\n"
                  "  kadrel-cue play show.cue --to 10.0.0.255 --start 10 --stop 1m30.5 --speed 50 --hold");
  play->add_option("FILE", play_options.file, "Recording")->required()->type_name("");
  add_parsed<cue::Destination>(
      *play, "--to", [](const std::string& text) { return cue::parse_destination(text, kArtNetPort); },
      [&play_command](const cue::Destination& to) { play_command.to = to; }, kAddressWords,
      "Where to send; the port is 6454 when none is given")
      ->required()
      ->type_name("ADDR[:PORT]");
  CLI::Option* const from =
      add_parsed<cue::Destination>(
          *play, "--from", [](const std::string& text) { return cue::parse_destination(text, 0); },
          [&play_command](const cue::Destination& source) { play_command.from = source; }, kAddressWords,
          "Address of this host to send from")
          ->type_name("ADDR[:PORT]");
  play->add_option("--relay", play_command.relay_port,
                   "Send through the kadrel that runs on this port, from its Art-Net port")
      ->check(CLI::Range(1, 65535))
      ->excludes(from)
      ->type_name("PORT");
  play->add_option("--speed", play_options.speed,
                   "Per cent: 100 plays in half the time, -100 in twice the time, 50 in three quarters")
      ->check(CLI::Range(-100, 100))
      ->type_name("PERCENT");
  add_time_range(*play, play_options.selection);
  add_parsed<std::optional<std::uint64_t>>(
      *play, "--loop", parse_loops, [&play_options](const auto& loops) { play_options.loops = loops; },
      "a number of passes, or forever", "Passes through the recording, or forever")
      ->type_name("N");
  add_parsed<std::int64_t>(
      *play, "--gap", cue::parse_time, [&play_options](std::int64_t time) { play_options.gap = time; },
      kTimeWords, "Pause between two passes; without it one frame at 44 Hz")
      ->type_name("TIME");
  add_parsed<std::pair<std::uint16_t, std::uint16_t>>(
      *play, "--universe", cue::parse_universe_change,
      [&play_options](const auto& change) { play_options.selection.changes.push_back(change); },
      "two universes such as 1=5", "Send universe FROM as universe TO; may be given again for others")
      ->type_name("FROM=TO")
      ->expected(1)
      ->take_all();
  add_only(*play, play_options.selection);
  bool hold = false;
  int hold_rate = kHoldRate;
  play->add_flag("--hold", hold, "Repeat the last look at the end until stopped");
  play->add_option("--hold-rate", hold_rate, "Looks per second for --hold")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str()
      ->type_name("HZ");
  play->add_flag("--blackout", play_options.blackout,
                 "Send zeros to every universe played, at the end or when stopped");
  play->add_flag("--stats", play_command.stats, "Write how late the datagrams were, as JSON");

  std::string cut_file;
  std::string cut_output;
  cue::Selection cut_selection;
  CLI::App* const cut = add_command(app, "cut", "Writes a part of a recording as a recording of its own.",
                                    "  kadrel-cue cut show.cue --start 10 --stop 1m30.5 -o verse.cue\n"
                                    "  kadrel-cue cut show.cue --only 1,5-8 -o front.cue");
  cut->add_option("FILE", cut_file, "Recording")->required()->type_name("");
  add_time_range(*cut, cut_selection);
  add_only(*cut, cut_selection);
  add_output(*cut, cut_output)->required();

  cue::JoinOptions join_options;
  CLI::App* const join = add_command(app, "join", "Writes recordings one behind the other as one.",
                                     "  kadrel-cue join verse.cue chorus.cue -o song.cue\n"
                                     "  kadrel-cue join --gap 2 verse.cue chorus.cue -o song.cue");
  join->add_option("FILE", join_options.files, "Recordings, in order")->required()->type_name("");
  add_parsed<std::int64_t>(
      *join, "--gap", cue::parse_time, [&join_options](std::int64_t time) { join_options.gap = time; },
      kTimeWords, "Pause between two recordings; without it one frame at 44 Hz")
      ->type_name("TIME");
  add_only(*join, join_options.selection);
  add_output(*join, join_options.output)->required();

  std::string export_file;
  std::string pcap_output;
  std::string csv_output;
  std::optional<std::uint16_t> csv_universe;
  CLI::App* const export_command = add_command(app, "export", "Writes a recording for other programs.",
                                               "  kadrel-cue export show.cue --pcap show.pcap\n"
                                               "  kadrel-cue export show.cue --csv front.csv --universe 5");
  export_command->add_option("FILE", export_file, "Recording")->required()->type_name("");
  CLI::Option* const pcap =
      export_command
          ->add_option("--pcap", pcap_output, "A capture with nanoseconds, for Wireshark and the like")
          ->type_name("OUT");
  CLI::Option* const csv =
      export_command->add_option("--csv", csv_output, "The slots of one universe over time, comma-separated")
          ->type_name("OUT");
  add_universe(*export_command, csv_universe, "The universe for --csv; needed when there are several")
      ->needs(csv);

  std::string capture;
  std::string import_output;
  int import_port = kArtNetPort;
  CLI::App* const import = add_command(app, "import", "Makes a recording of the Art-Net in a capture.",
                                       "  kadrel-cue import show.pcapng -o show.cue");
  import->add_option("IN", capture, "Capture: pcap or pcapng")->required()->type_name("");
  import->add_option("--port", import_port, "UDP port of the datagrams to take")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str()
      ->type_name("PORT");
  add_output(*import, import_output)->required();

  cue::PlotOptions plot_options;
  CLI::App* const plot =
      add_command(app, "plot", "Draws a recording as a picture (SVG).",
                  "  kadrel-cue plot show.cue -o show.svg\n"
                  "  kadrel-cue plot show.cue --universe 5 --start 10 --stop 20 -o front.svg");
  plot->add_option("FILE", plot_options.file, "Recording")->required()->type_name("");
  CLI::Option* const plot_universe =
      add_universe(*plot, plot_options.port_address, "One universe slot by slot instead of a band for each");
  add_only(*plot, plot_options.selection)->excludes(plot_universe);
  add_time_range(*plot, plot_options.selection);
  add_output(*plot, plot_options.output)->required();

  try {
    app.parse(argc, argv);
    if (repair && verify_options.files.size() != 1) throw CLI::ValidationError("--repair takes one FILE");
    play_options.hold_rate = hold ? hold_rate : 0;
    for (const cue::Selection* selection :
         {&cut_selection, &play_options.selection, &plot_options.selection}) {
      if (selection->stop && *selection->stop < selection->start)
        throw CLI::ValidationError("--stop is before --start");
    }
    if (export_command->parsed() && pcap->empty() && csv->empty())
      throw CLI::ValidationError("--pcap or --csv is needed");
    if (!pcap->empty() && !csv->empty() && place_of(pcap_output) == place_of(csv_output))
      throw CLI::ValidationError("--pcap and --csv name the same file");
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::cerr << "kadrel-cue: " << error.what() << " (kadrel-cue --help tells more)\n";
    return kUsageError;
  }

  if (info->parsed()) return cue::run_info(info_files, json, std::cout, std::cerr);
  if (play->parsed()) {
    stop_on_signals();
    play_command.progress = isatty(STDERR_FILENO) != 0;
    return cue::run_play(play_command, stop_requested, std::cout, std::cerr);
  }
  clear_away_on_signals();
  if (verify->parsed()) return cue::run_verify(verify_options, std::cout, std::cerr);
  if (cut->parsed()) return cue::run_cut(cut_file, cut_selection, cut_output, std::cout);
  if (export_command->parsed()) {
    if (!pcap_output.empty()) cue::export_pcap(export_file, pcap_output, std::cout);
    if (!csv_output.empty()) cue::export_csv(export_file, csv_universe, csv_output, std::cout);
    return 0;
  }
  if (import->parsed()) return cue::run_import(capture, import_port, import_output, std::cout, std::cerr);
  if (plot->parsed()) return cue::run_plot(plot_options, std::cout);
  if (join->parsed()) return cue::run_join(join_options, std::cout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  kesto::occupy_standard_descriptors();
  int code = 1;
  try {
    code = run(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "kadrel-cue: %s\n", error.what());
  }
  // A disk that is full, say: half a report is none.
  if (!std::cout.flush()) {
    fputs("kadrel-cue: standard output cannot be written\n", stderr);
    if (code == 0) code = 1;
  }
  return code;
}
