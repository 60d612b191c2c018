#include "cue/Verify.h"

#include <ostream>
#include <string>
#include <vector>

#include "cue/CueError.h"
#include "cue/RecordingInfo.h"
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/Progress.h"
#include "tools/SequenceReport.h"
#include "tools/Signals.h"

namespace kadrel_cue {
namespace {

class Verify : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command = add_command(app, "verify", "Checks whether recordings are whole and complete.",
                                          "  kadrel-cue verify show.cue\n"
                                          "  kadrel-cue verify --complete *.cue && echo nothing missing\n"
                                          "  kadrel-cue verify --repair -o good.cue broken.cue");
    add_inputs(*command, files, "Recordings");
    command->add_flag("--strict", options.strict,
                      "Also report datagrams that are more than one ArtDmx packet");
    command->add_flag("--complete", complete,
                      "Datagrams that are missing by their numbers count as a failure");
    CLI::Option* const repair_flag =
        command->add_flag("--repair", repair, "Write what is good of one FILE to OUT");
    CLI::Option* const repaired = add_output(*command, repaired_file);
    repair_flag->needs(repaired);
    repaired->needs(repair_flag);
    return command;
  }

  void check() const override {
    if (repair && files.size() != 1) throw CLI::ValidationError("--repair takes one FILE");
  }

  int run(std::ostream& out, std::ostream& err) override {
    clear_away_on_signals();
    const Progress progress(out, err, files);
    if (repair) options.repaired = repaired_file;
    // What is said goes beside the repaired recording, not into it.
    std::ostream& words = repair ? summary_of(repaired_file, out, err) : out;
    const cue::VerifyReport report{
        [&words](const std::string& line) { words << line << "\n"; },
        [&err](const std::string& line) { err << "kadrel-cue: " << line << "\n"; }};
    int code = 0;
    for (const cue::Input& file : files) {
      try {
        cue::InfoCounter counter;
        std::optional<cue::Damage> first;
        options.on_record = [&counter](const cue::Record& record) { counter.add(record); };
        options.on_damage = [&first](const cue::Damage& damage) {
          if (!first) first = damage;
        };
        const cue::Verified verified = cue::verify(file, options, report);
        if (repair ? !verified.repaired : !verified.whole) code = 1;
        cue::RecordingInfo info = counter.result();
        info.damage = first;
        if (!tell_completeness(words, file, info)) code = 1;
      } catch (const cue::CueError& error) {
        report.damage(error.what());
        code = 1;
      }
    }
    return code;
  }

private:
  /// @return whether that is good enough
  bool tell_completeness(std::ostream& out, const cue::Input& file, const cue::RecordingInfo& info) const {
    for (const std::string& line : sequence_report(info)) out << file.name() << ": " << line << "\n";
    return !complete || cue::completeness_of(info).missing == 0;
  }

  std::vector<cue::Input> files;
  bool complete = false;
  bool repair = false;
  cue::Output repaired_file;
  cue::VerifyOptions options;
};

}  // namespace

std::unique_ptr<Command> make_verify() {
  return std::make_unique<Verify>();
}

}  // namespace kadrel_cue
