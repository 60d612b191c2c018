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

class Join : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command = add_command(app, "join", "Writes recordings one after the other as one.",
                                          "  kadrel-cue join verse.cue chorus.cue -o song.cue\n"
                                          "  kadrel-cue join --gap 2 verse.cue chorus.cue -o song.cue");
    add_inputs(*command, options.files, "Recordings, in order");
    add_gap(*command, options.gap, "recordings");
    add_only(*command, options.selection);
    add_edit(*command, options);
    add_strict(*command, strict);
    add_output(*command, options.output)->required();
    return command;
  }

  int run(std::ostream& out, std::ostream& err) override {
    clear_away_on_signals();
    const Progress progress(out, err, options.files);
    DamageWarning warning(err, strict);
    options.on_damage = warning.on_damage();
    const cue::Written written = cue::join(options);
    summary_of(options.output, out, err)
        << options.output.name() << ": " << cue::counted(written.datagrams, "datagram") << ", "
        << cue::format_time(written.duration) << "\n";
    return warning.exit_code();
  }

private:
  cue::JoinOptions options;
  bool strict = false;
};

}  // namespace

std::unique_ptr<Command> make_join() {
  return std::make_unique<Join>();
}

}  // namespace kadrel_cue
