#include <ostream>

#include "cue/Edit.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "tools/Command.h"
#include "tools/DamageWarning.h"
#include "tools/Options.h"
#include "tools/Progress.h"
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
    add_input(*command, "FILE", options.file, "Recording");
    add_time_range(*command, options.selection);
    add_only(*command, options.selection);
    add_edit(*command, options);
    add_strict(*command, strict);
    add_output(*command, options.output)->required();
    return command;
  }

  void check() const override { check_time_range(options.selection); }

  int run(std::ostream& out, std::ostream& err) override {
    clear_away_on_signals();
    const Progress progress(out, err, options.file);
    DamageWarning warning(err, strict);
    options.on_damage = warning.on_damage();
    const cue::Written written = cue::cut(options);
    summary_of(options.output, out, err)
        << options.output.name() << ": " << cue::counted(written.datagrams, "datagram") << ", "
        << cue::format_time(written.duration) << "\n";
    return warning.exit_code();
  }

private:
  cue::CutOptions options;
  bool strict = false;
};

}  // namespace

std::unique_ptr<Command> make_cut() {
  return std::make_unique<Cut>();
}

}  // namespace kadrel_cue
