#include <filesystem>
#include <ostream>
#include <string>

#include "cue/Csv.h"
#include "cue/Pcap.h"
#include "cue/Text.h"
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/Progress.h"
#include "tools/Signals.h"

namespace kadrel_cue {
namespace {

/// The place to which @p path leads, whether a file exists there or not.
std::filesystem::path place_of(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::weakly_canonical(std::filesystem::absolute(path, ignored), ignored);
}

class Export : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command = add_command(app, "export", "Writes a recording for other programs.",
                                          "  kadrel-cue export show.cue --pcap show.pcap\n"
                                          "  kadrel-cue export show.cue --csv front.csv --universe 5");
    add_input(*command, "FILE", file, "Recording");
    pcap =
        command->add_option("--pcap", pcap_output, "A capture with nanoseconds, for Wireshark and the like")
            ->type_name("OUT");
    csv = command->add_option("--csv", csv_output, "The slots of one universe over time, comma-separated")
              ->type_name("OUT");
    add_universe(*command, csv_universe, "The universe for --csv; needed when there are several")->needs(csv);
    return command;
  }

  void check() const override {
    if (pcap->empty() && csv->empty()) throw CLI::ValidationError("--pcap or --csv is needed");
    if (!pcap->empty() && !csv->empty() && place_of(pcap_output) == place_of(csv_output))
      throw CLI::ValidationError("--pcap and --csv name the same file");
  }

  int run(std::ostream& out, std::ostream& err) override {
    clear_away_on_signals();
    const Progress progress(out, err, file);
    if (!pcap_output.empty()) {
      const std::uint64_t datagrams = cue::export_pcap(file, pcap_output).datagrams;
      out << pcap_output << ": " << cue::counted(datagrams, "datagram") << "\n";
    }
    if (!csv_output.empty()) {
      const cue::ExportedCsv table = cue::export_csv(file, csv_universe, csv_output);
      out << csv_output << ": universe " << table.port_address + 1 << ", "
          << cue::counted(table.lines, "line") << "\n";
    }
    return 0;
  }

private:
  cue::Input file;
  std::string pcap_output;
  std::string csv_output;
  std::optional<std::uint16_t> csv_universe;
  const CLI::Option* pcap = nullptr;
  CLI::Option* csv = nullptr;
};

}  // namespace

std::unique_ptr<Command> make_export() {
  return std::make_unique<Export>();
}

}  // namespace kadrel_cue
