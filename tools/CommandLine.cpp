#include "tools/CommandLine.h"

#include <ostream>
#include <utility>
#include <vector>

#include "tools/Command.h"

namespace kadrel_cue {
namespace {

constexpr int kUsageError = 2;

/// Every command, in the order of the help.
constexpr auto kCommands = {make_info,   make_verify, make_play,   make_cut, make_join, make_export,
                            make_import, make_plot,   make_record, make_top, make_ready};

}  // namespace

int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CLI::App app(
      "Records with kadrel, shows what is on the wire, checks before the show; looks into recordings, plays "
      "them, cuts them and hands them to other tools.",
      "kadrel-cue");
  app.require_subcommand(1);
  app.set_version_flag("--version", "kadrel-cue " KADREL_VERSION);
  app.footer(
      "kadrel-cue COMMAND --help shows examples. Exit codes: 0 done, 1 a file or the network is not as it "
      "should be,\n"
      "2 the command line is not understood.");
  std::vector<std::pair<std::unique_ptr<Command>, const CLI::App*>> commands;
  for (const auto make : kCommands) {
    auto command = make();
    const CLI::App* const known = command->add_to(app);
    commands.emplace_back(std::move(command), known);
  }

  Command* chosen = nullptr;
  try {
    app.parse(argc, argv);
    for (const auto& [command, known] : commands)
      if (known->parsed()) chosen = command.get();
    chosen->check();
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error, out, err);
    err << "kadrel-cue: " << error.what() << " (kadrel-cue --help tells more)\n";
    return kUsageError;
  }
  return chosen->run(out, err);
}

}  // namespace kadrel_cue
