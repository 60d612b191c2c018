#include "cue/Plot.h"

#include <ostream>

#include "cue/Time.h"
#include "tools/Command.h"
#include "tools/DamageWarning.h"
#include "tools/Options.h"
#include "tools/Progress.h"
#include "tools/Signals.h"

namespace kadrel_cue {
namespace {

class Plot : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command =
        add_command(app, "plot", "Draws a recording as a picture (SVG).",
                    "  kadrel-cue plot show.cue -o show.svg\n"
                    "  kadrel-cue plot show.cue --universe 5 --start 10 --stop 20 -o front.svg");
    add_input(*command, "FILE", options.file, "Recording");
    CLI::Option* const universe =
        add_universe(*command, options.port_address, "One universe slot by slot instead of a band for each");
    add_only(*command, options.selection)->excludes(universe);
    add_time_range(*command, options.selection);
    add_strict(*command, strict);
    add_output(*command, options.output)->required();
    return command;
  }

  void check() const override { check_time_range(options.selection); }

  int run(std::ostream& out, std::ostream& err) override {
    clear_away_on_signals();
    cue::check_output(options.output, {options.file});
    const Progress progress(out, err, options.file);
    DamageWarning warning(err, strict);
    options.on_damage = warning.on_damage();
    const std::int64_t shown = cue::plot(options);
    summary_of(options.output, out, err) << options.output.name() << ": " << cue::format_time(shown) << "\n";
    return warning.exit_code();
  }

private:
  cue::PlotOptions options;
  bool strict = false;
};

}  // namespace

std::unique_ptr<Command> make_plot() {
  return std::make_unique<Plot>();
}

}  // namespace kadrel_cue
