#include "cue/Import.h"

#include <arpa/inet.h>

#include <ostream>
#include <string>
#include <vector>

#include "cue/Text.h"
#include "cue/Time.h"
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/Progress.h"
#include "tools/Signals.h"

namespace kadrel_cue {
namespace {

/// An IPv4 address in host order; nothing for other text.
std::optional<std::uint32_t> parse_address(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

std::optional<cue::Protocol> parse_protocol(const std::string& text) {
  if (text == "artnet") return cue::Protocol::ArtNet;
  if (text == "sacn") return cue::Protocol::Sacn;
  return std::nullopt;
}

class Import : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command =
        add_command(app, "import", "Makes a recording of a file of another program.",
                    "  kadrel-cue import show.pcapng -o show.cue\n"
                    "  kadrel-cue import show.fseq -o show.cue\n"
                    "  kadrel-cue import show.pcap.gz --protocol sacn --sender 10.0.0.5 -o show.cue");
    add_input(*command, "IN", file,
              "Capture (pcap, pcapng), FSEQ sequence or show of ola_recorder; may be compressed by gzip");
    add_parsed<cue::Protocol>(
        *command, "--protocol", parse_protocol,
        [this](cue::Protocol protocol) { options.capture.protocol = protocol; }, "artnet or sacn",
        "What to take of a capture that holds both: artnet or sacn")
        ->type_name("PROTOCOL");
    command
        ->add_option("--port", options.capture.port,
                     "UDP port of the datagrams to take; without it 6454 (Art-Net) and 5568 (E1.31)")
        ->check(CLI::Range(1, 65535))
        ->type_name("PORT");
    add_parsed<std::uint32_t>(
        *command, "--sender", parse_address,
        [this](std::uint32_t address) { options.capture.senders.push_back(address); }, "an IPv4 address",
        "Take only what this IPv4 address sent; may be given again")
        ->type_name("ADDRESS")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    add_output(*command, output)->required();
    return command;
  }

  int run(std::ostream& out, std::ostream& err) override {
    clear_away_on_signals();
    const Progress progress(out, err, file);
    const cue::Imported imported = cue::import_recording(file, options, output);
    std::ostream& words = summary_of(output, out, err);
    words << output.name() << ": " << cue::counted(imported.datagrams, "datagram") << ", "
          << cue::format_time(imported.duration);
    for (const std::string& loss : imported.losses) words << ", " << loss;
    words << "\n";
    if (imported.breaks_off.empty()) return 0;
    err << "kadrel-cue: " << file.name() << ": " << imported.breaks_off << "\n";
    return 1;
  }

private:
  cue::Input file;
  cue::Output output;
  cue::ImportOptions options;
};

}  // namespace

std::unique_ptr<Command> make_import() {
  return std::make_unique<Import>();
}

}  // namespace kadrel_cue
