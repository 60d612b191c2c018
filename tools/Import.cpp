#include <ostream>
#include <string>

#include "artnet/ArtNet.h"
#include "cue/Pcap.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/Progress.h"
#include "tools/Signals.h"

namespace kadrel_cue {
namespace {

std::string left_out_text(std::uint64_t count, const char* what) {
  return count == 0 ? "" : ", " + std::to_string(count) + " " + what + " left out";
}

class Import : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command = add_command(app, "import", "Makes a recording of the Art-Net in a capture.",
                                          "  kadrel-cue import show.pcapng -o show.cue");
    add_input(*command, "IN", capture, "Capture: pcap or pcapng");
    command->add_option("--port", port, "UDP port of the datagrams to take")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str()
        ->type_name("PORT");
    add_output(*command, output)->required();
    return command;
  }

  int run(std::ostream& out, std::ostream& err) override {
    clear_away_on_signals();
    const Progress progress(out, err, capture);
    const cue::Imported imported = cue::import_pcap(capture, port, output);
    out << output.name() << ": " << cue::counted(imported.datagrams, "datagram") << ", "
        << cue::format_time(imported.duration) << left_out_text(imported.refused, "without a whole ArtDmx")
        << left_out_text(imported.fragments, "fragments")
        << left_out_text(imported.cut_off, "cut off by the capture") << "\n";
    if (imported.error.empty()) return 0;
    err << "kadrel-cue: " << capture.name() << ": " << imported.error << "\n";
    return 1;
  }

private:
  cue::Input capture;
  cue::Output output;
  int port = kArtNetPort;
};

}  // namespace

std::unique_ptr<Command> make_import() {
  return std::make_unique<Import>();
}

}  // namespace kadrel_cue
