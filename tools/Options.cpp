#include "tools/Options.h"

#include <algorithm>
#include <ostream>

#include "tools/Arguments.h"

namespace kadrel_cue {
namespace {

constexpr const char* kUniverseWords = "a list of universes such as 1,3,5-8 (they count from 1)";

/// Port-address of a universe counted from 1.
std::optional<std::uint16_t> parse_universe(const std::string& word) {
  std::uint32_t universe = 0;
  if (!CLI::detail::lexical_cast(word, universe) || universe == 0 ||
      universe > cue::UniverseSet::kPortAddresses)
    return std::nullopt;
  return static_cast<std::uint16_t>(universe - 1);
}

template <typename Gap>
void add_gap_to(CLI::App& command, Gap& gap, const std::string& between) {
  add_parsed<std::int64_t>(
      command, "--gap", parse_time, [&gap](std::int64_t time) { gap = time; }, kTimeWords,
      "Pause between two " + between + "; without it one frame at 44 Hz")
      ->type_name("TIME");
}

}  // namespace

CLI::App* add_command(CLI::App& app, const std::string& name, const std::string& description,
                      const std::string& examples) {
  CLI::App* const command = app.add_subcommand(name, description);
  command->footer("Examples:\n" + examples);
  return command;
}

void add_time_range(CLI::App& command, cue::Selection& selection) {
  add_parsed<std::int64_t>(
      command, "--start", parse_time, [&selection](std::int64_t time) { selection.start = time; }, kTimeWords,
      "Leave out what is before TIME (seconds, 1m30.5 or 1:30.5)")
      ->type_name("TIME");
  add_parsed<std::int64_t>(
      command, "--stop", parse_time, [&selection](std::int64_t time) { selection.stop = time; }, kTimeWords,
      "Leave out what is at TIME and after it")
      ->type_name("TIME");
}

void check_time_range(const cue::Selection& selection) {
  if (selection.stop && *selection.stop < selection.start)
    throw CLI::ValidationError("--stop is before --start");
}

CLI::Option* add_only(CLI::App& command, cue::Selection& selection) {
  return add_parsed<cue::UniverseSet>(
             command, "--only", parse_universes,
             [&selection](const cue::UniverseSet& universes) { selection.only = universes; }, kUniverseWords,
             "Only these universes, for example 1,3,5-8 (they count from 1)")
      ->type_name("UNIVERSES");
}

CLI::Option* add_universe(CLI::App& command, std::optional<std::uint16_t>& port_address,
                          const std::string& help) {
  return add_parsed<std::uint16_t>(
             command, "--universe", parse_universe,
             [&port_address](std::uint16_t universe) { port_address = universe; },
             "a universe (they count from 1)", help)
      ->type_name("N");
}

void add_gap(CLI::App& command, std::int64_t& gap, const std::string& between) {
  add_gap_to(command, gap, between);
}

void add_gap(CLI::App& command, std::optional<std::int64_t>& gap, const std::string& between) {
  add_gap_to(command, gap, between);
}

CLI::Option* add_input(CLI::App& command, const std::string& name, cue::Input& input,
                       const std::string& what) {
  return command
      .add_option_function<std::string>(
          name, [&input](const std::string& path) { input = path; }, what)
      ->required()
      ->type_name("");
}

CLI::Option* add_inputs(CLI::App& command, std::vector<cue::Input>& inputs, const std::string& what) {
  return command
      .add_option_function<std::vector<std::string>>(
          "FILE",
          [&inputs](const std::vector<std::string>& paths) {
            if (std::count(paths.begin(), paths.end(), "-") > 1)
              throw CLI::ValidationError("- (the standard input) can be read once");
            inputs.assign(paths.begin(), paths.end());
          },
          what)
      ->required()
      ->type_name("");
}

CLI::Option* add_output(CLI::App& command, cue::Output& output) {
  CLI::Option* const option =
      command.add_option("-o,--output", output.path, "File to write, or -; it appears when it is complete")
          ->type_name("OUT");
  add_force(command, output.replace);
  return option;
}

CLI::Option* add_force(CLI::App& command, bool& replace) {
  return command.add_flag("--force", replace, "Replace an existing file");
}

CLI::Option* add_strict(CLI::App& command, bool& strict) {
  return command.add_flag("--strict", strict, "Stop at damage instead of going on behind it");
}

void add_edit(CLI::App& command, cue::EditOptions& options) {
  command.add_flag_callback(
      "--no-look", [&options] { options.look = false; },
      "Nothing but what was recorded: no look at the beginning");
  command.add_flag("--renumber", options.renumber,
                   "Let the sequence numbers of each universe go on without a jump");
}

std::ostream& summary_of(const cue::Output& written, std::ostream& out, std::ostream& err) {
  return written.is_standard_output() ? err : out;
}

}  // namespace kadrel_cue
