#include <ostream>
#include <string>

#include "tools/Arguments.h"
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/RecordRun.h"

namespace kadrel_cue {
namespace {

constexpr unsigned kMostWaitSize = 1U << 20U;  // MiB

/// A time above zero; nothing for other text.
std::optional<std::int64_t> parse_length(const std::string& text) {
  const auto time = parse_time(text);
  return time && *time > 0 ? time : std::nullopt;
}

/// A pattern of names; nothing for one that gives none.
std::optional<std::string> parse_name(const std::string& text) {
  std::tm any{};
  any.tm_mday = 1;
  any.tm_year = 126;
  return name_by_time(text, any) ? std::optional(text) : std::nullopt;
}

class Record : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command =
        add_command(app, "record", "Has kadrel record, shows how it goes, and checks what came.",
                    "  kadrel-cue record act-2.cue\n"
                    "  kadrel-cue record /srv/cues --for 10m\n"
                    "  kadrel-cue record /srv/cues --on-change --until-silent 30s --universes 1-16\n"
                    "  kadrel-cue record /srv/cues --name 'matinee %A %H.%M.cue'");
    command->add_option("PATH", options.path, "A new file, or a folder for one named by date and time")
        ->type_name("FILE|FOLDER")
        ->required();
    add_parsed<std::string>(
        *command, "--name", parse_name, [this](const std::string& name) { options.name = name; },
        "a name for a file in a folder",
        std::string("Name in a FOLDER, with conversions of strftime(3); \"") + kDefaultName +
            "\" when none is given")
        ->type_name("NAME");
    add_length(*command, "--for", options.length, "Ends so long after the first datagram");
    add_length(*command, "--until-silent", options.silence, "Ends when no level has changed for so long");
    command->add_flag("--on-change", options.on_change, "Begins with the first level that changes");
    add_parsed<cue::UniverseSet>(
        *command, "--universes", parse_universes,
        [this](const cue::UniverseSet& universes) { options.universes = universes; },
        "a list of universes such as 1,3,5-8", "Says which of these do not come")
        ->type_name("UNIVERSES");
    command
        ->add_option("--wait-size", wait_size,
                     "With --on-change: MiB after which the file of the waiting is begun anew")
        ->check(CLI::Range(1U, kMostWaitSize))
        ->capture_default_str()
        ->type_name("MIB");
    return command;
  }

  int run(std::ostream& out, std::ostream& err) override {
    options.wait_size = std::uint64_t{wait_size} << 20U;
    return record(options, out, err);
  }

private:
  static void add_length(CLI::App& command, const std::string& name, std::optional<std::int64_t>& length,
                         const std::string& help) {
    add_parsed<std::int64_t>(
        command, name, parse_length, [&length](std::int64_t parsed) { length = parsed; }, kTimeWords, help)
        ->type_name("TIME");
  }

  RecordOptions options;
  unsigned wait_size = RecordOptions::kWaitSize;
};

}  // namespace

std::unique_ptr<Command> make_record() {
  return std::make_unique<Record>();
}

}  // namespace kadrel_cue
