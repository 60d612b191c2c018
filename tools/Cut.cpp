#include <ostream>

#include "cue/Edit.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/Signals.h"

namespace kadrel_cue {
namespace {

class Cut : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command =
        add_command(app, "cut", "Writes a part of a recording as a recording of its own.",
                    "  kadrel-cue cut show.cue --start 10 --stop 1m30.5 -o verse.cue\n"
                    "  kadrel-cue cut show.cue --only 1,5-8 -o front.cue");
    add_input(*command, "FILE", file, "Recording");
    add_time_range(*command, selection);
    add_only(*command, selection);
    add_output(*command, output)->required();
    return command;
  }

  void check() const override { check_time_range(selection); }

  int run(std::ostream& out, std::ostream& /*err*/) override {
    clear_away_on_signals();
    const cue::Written written = cue::cut(file, selection, output);
    out << output.name() << ": " << cue::counted(written.datagrams, "datagram") << ", "
        << cue::format_time(written.duration) << "\n";
    return 0;
  }

private:
  cue::Input file;
  cue::Output output;
  cue::Selection selection;
};

}  // namespace

std::unique_ptr<Command> make_cut() {
  return std::make_unique<Cut>();
}

}  // namespace kadrel_cue
