#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "cue/Csv.h"
#include "cue/FseqWriter.h"
#include "cue/OlaShowWriter.h"
#include "cue/Pcap.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "tools/Arguments.h"
#include "tools/Command.h"
#include "tools/DamageWarning.h"
#include "tools/Options.h"
#include "tools/Progress.h"
#include "tools/Signals.h"

namespace kadrel_cue {
namespace {

constexpr std::int64_t kLongestStep = 255;  // ms; the file has a byte for it

/// What was written, and what the format could not hold.
struct Outcome {
  std::string contents;
  std::vector<std::string> losses;
};

Outcome write_pcap(const cue::Input& file, const cue::Output& output, const cue::OnDamage& on_damage) {
  const cue::Exported capture = cue::export_pcap(file, output, on_damage);
  return {cue::counted(capture.datagrams, "datagram"), capture.losses};
}

Outcome write_pcap_sacn(const cue::Input& file, const cue::Output& output, const cue::OnDamage& on_damage) {
  const cue::Exported capture = cue::export_pcap_sacn(file, output, on_damage);
  return {cue::counted(capture.datagrams, "packet"), capture.losses};
}

Outcome write_ola_show(const cue::Input& file, const cue::Output& output, cue::OlaShowVersion version,
                       const cue::OnDamage& on_damage) {
  const cue::ExportedOlaShow show = cue::export_ola_show(file, output, version, on_damage);
  return {cue::counted(show.frames, "frame"), show.losses};
}

Outcome write_long_csv(const cue::Input& file, const cue::Output& output, const cue::OnDamage& on_damage) {
  const cue::ExportedLongCsv table = cue::export_csv_long(file, output, on_damage);
  return {cue::counted(table.universes, "universe") + ", " + cue::counted(table.lines, "line"),
          {"levels that are sent again unchanged", "the bounds of datagrams"}};
}

Outcome write_fseq(const cue::Input& file, const cue::Output& output, const cue::FseqOptions& options,
                   const cue::OnDamage& on_damage) {
  const cue::ExportedFseq sequence = cue::export_fseq(file, output, options, on_damage);
  return {cue::counted(sequence.frames, "frame") + " of " + cue::counted(sequence.channels, "channel") +
              ", one each " + std::to_string(options.step) + " ms",
          sequence.losses};
}

/// A time of whole milliseconds as their number; nothing for other text.
std::optional<int> parse_step(const std::string& text) {
  constexpr std::int64_t kUnit = cue::kSecond / 1000;
  const auto time = parse_time(text);
  if (!time || *time <= 0 || *time % kUnit != 0 || *time / kUnit > kLongestStep) return std::nullopt;
  return static_cast<int>(*time / kUnit);
}

/// The place to which @p path leads, whether a file exists there or not.
std::filesystem::path place_of(const std::string& path) {
  if (cue::Output(path).is_standard_output()) return "-";
  std::error_code ignored;
  return std::filesystem::weakly_canonical(std::filesystem::absolute(path, ignored), ignored);
}

class Export : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command = add_command(app, "export", "Writes a recording for other programs.",
                                          "  kadrel-cue export show.cue --format fseq -o show.fseq\n"
                                          "  kadrel-cue export show.cue --format ola -o show.ola\n"
                                          "  kadrel-cue export show.cue --pcap show.pcap\n"
                                          "  kadrel-cue export show.cue --csv front.csv --universe 5");
    add_input(*command, "FILE", file, "Recording");
    add_format(*command);
    add_tables(*command);
    add_strict(*command, strict);
    return command;
  }

  void check() const override {
    if (output_option->empty() != format_option->empty())
      throw CLI::ValidationError("--format and --output need each other");
    std::vector<std::string> paths;
    for (const std::string& path : {output.path, pcap_path, csv_path})
      if (!path.empty()) paths.push_back(path);
    if (paths.empty()) throw CLI::ValidationError("--format, --pcap or --csv is needed");
    for (std::size_t i = 0; i < paths.size(); ++i)
      for (std::size_t j = 0; j < i; ++j)
        if (place_of(paths[i]) == place_of(paths[j]))
          throw CLI::ValidationError("two outputs name the same file");
    if (!step_option->empty() && format != "fseq" && format != "fseq1")
      throw CLI::ValidationError("--step belongs to --format fseq and fseq1");
  }

  int run(std::ostream& out, std::ostream& err) override {
    clear_away_on_signals();
    const Progress progress(out, err, file);
    DamageWarning warning(err, strict);
    // Each output reads the input from its front.
    file.keep();
    if (!format.empty()) say(output, write_format(warning), out, err);
    if (!pcap_path.empty()) {
      const cue::Output to = path_output(pcap_path);
      say(to, write_pcap(file, to, warning.on_damage()), out, err);
    }
    if (!csv_path.empty()) {
      const cue::Output to = path_output(csv_path);
      const cue::ExportedCsv table = cue::export_csv(file, csv_universe, to, warning.on_damage());
      const std::string universe = std::to_string(table.port_address + 1);
      say(to, {"universe " + universe + ", " + cue::counted(table.lines, "line"), {}}, out, err);
    }
    return warning.exit_code();
  }

private:
  void add_format(CLI::App& command) {
    format_option = command
                        .add_option("--format", format,
                                    "pcap, pcap-sacn (E1.31), fseq (version 2), fseq1 (version 1), ola (a "
                                    "show of ola_recorder),\n"
                                    "ola2 (the same in version 2) or csv (the changes of all universes)")
                        ->check(CLI::IsMember({"pcap", "pcap-sacn", "fseq", "fseq1", "ola", "ola2", "csv"}))
                        ->type_name("FORMAT");
    output_option = add_output(command, output);
    step_option =
        add_parsed<int>(
            command, "--step", parse_step, [this](int milliseconds) { step = milliseconds; },
            "a time of whole milliseconds up to 0.255 s, such as 0.05 or 50ms",
            "From one frame of an FSEQ file to the next, up to 0.255 s in whole ms; without it 0.025")
            ->type_name("TIME");
  }

  void add_tables(CLI::App& command) {
    command.add_option("--pcap", pcap_path, "A capture with nanoseconds, for Wireshark and the like")
        ->type_name("OUT");
    CLI::Option* const csv =
        command.add_option("--csv", csv_path, "The slots of one universe over time, comma-separated")
            ->type_name("OUT");
    add_universe(command, csv_universe, "The universe for --csv; needed when there are several")->needs(csv);
  }

  Outcome write_format(DamageWarning& warning) {
    if (format == "pcap") return write_pcap(file, output, warning.on_damage());
    if (format == "pcap-sacn") return write_pcap_sacn(file, output, warning.on_damage());
    if (format == "ola") return write_ola_show(file, output, cue::OlaShowVersion::One, warning.on_damage());
    if (format == "ola2") return write_ola_show(file, output, cue::OlaShowVersion::Two, warning.on_damage());
    if (format == "csv") return write_long_csv(file, output, warning.on_damage());
    return write_fseq(file, output, {format == "fseq1" ? 1 : 2, step}, warning.on_damage());
  }

  cue::Output path_output(const std::string& path) const {
    cue::Output named(path);
    named.replace = output.replace;
    return named;
  }

  /// One line of what was written, one of what was not.
  static void say(const cue::Output& output, const Outcome& outcome, std::ostream& out, std::ostream& err) {
    std::ostream& words = summary_of(output, out, err);
    words << output.name() << ": " << outcome.contents << "\n";
    const char* before = "  not in it: ";
    for (const std::string& loss : outcome.losses) {
      words << before << loss;
      before = ", ";
    }
    if (!outcome.losses.empty()) words << "\n";
  }

  cue::Input file;
  std::string format;
  cue::Output output;
  int step = cue::FseqOptions().step;
  std::string pcap_path;
  std::string csv_path;
  std::optional<std::uint16_t> csv_universe;
  bool strict = false;
  const CLI::Option* format_option = nullptr;
  const CLI::Option* output_option = nullptr;
  const CLI::Option* step_option = nullptr;
};

}  // namespace

std::unique_ptr<Command> make_export() {
  return std::make_unique<Export>();
}

}  // namespace kadrel_cue
