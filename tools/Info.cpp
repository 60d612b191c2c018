#include <array>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "cue/CueError.h"
#include "cue/RecordingInfo.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "tools/Command.h"
#include "tools/JsonText.h"
#include "tools/Options.h"
#include "tools/Progress.h"
#include "tools/SequenceReport.h"

namespace kadrel_cue {
namespace {

std::string slots_text(const cue::UniverseInfo& universe) {
  if (universe.fewest_slots == universe.most_slots) return std::to_string(universe.most_slots);
  return std::to_string(universe.fewest_slots) + "-" + std::to_string(universe.most_slots);
}

using Text = std::array<char, 24>;

/// A time in at most 7 columns, as commands take it: "12.345", "1:30.5", "2:03:04".
std::string short_time(std::int64_t nanoseconds) {
  constexpr std::int64_t kMs = cue::kSecond / 1000;
  const std::int64_t ms = nanoseconds / kMs + (nanoseconds % kMs >= kMs / 2 ? 1 : 0);
  const auto hours = static_cast<long long>(ms / 3'600'000);
  const auto minutes = static_cast<int>(ms / 60'000 % 60);
  const auto seconds = static_cast<int>(ms / 1000 % 60);
  Text text{};
  if (hours > 0)
    snprintf(text.data(), text.size(), "%lld:%02d:%02d", hours, minutes, seconds);
  else if (minutes > 0)
    snprintf(text.data(), text.size(), "%d:%02d.%d", minutes, seconds, static_cast<int>(ms / 100 % 10));
  else
    snprintf(text.data(), text.size(), "%d.%03d", seconds, static_cast<int>(ms % 1000));
  return text.data();
}

/// An interval in milliseconds in at most 4 columns, from 10 s on in seconds or hours: "22.7", "4000", "12s".
std::string short_interval(std::int64_t nanoseconds) {
  const double ms = static_cast<double>(nanoseconds) / 1e6;
  Text text{};
  if (ms < 99.95)
    snprintf(text.data(), text.size(), "%.1f", ms);
  else if (ms < 9999.5)
    snprintf(text.data(), text.size(), "%.0f", ms);
  else if (ms < 999.5e3)
    snprintf(text.data(), text.size(), "%.0fs", ms / 1e3);
  else if (ms < 99.5 * 60e3)
    snprintf(text.data(), text.size(), "%.0fm", ms / 60e3);
  else
    snprintf(text.data(), text.size(), "%.0fh", ms / 3600e3);
  return text.data();
}

/// Missing datagrams; "?" when its numbers tell nothing, "*" when others share them.
std::string missing_text(const cue::UniverseSequence& sequence) {
  if (sequence.counting == cue::Counting::None || sequence.counting == cue::Counting::Chaos) return "?";
  if (sequence.counting == cue::Counting::Shared) return "*";
  return std::to_string(sequence.figures.missing);
}

/// For people: totals, a table of the universes in 80 columns, and what the sequence numbers say.
void write_table(std::ostream& out, const cue::RecordingInfo& info) {
  out << info.file << "\n"
      << "  duration   " << cue::format_time(info.duration) << "\n"
      << "  datagrams  " << info.datagrams << "\n"
      << "  bytes      " << info.bytes << "\n"
      << "  universes  " << info.universes.size() << "\n";
  if (!info.universes.empty())
    out << "\n"
           " uni-   net/sub   data-  rate  p50  p99                         longest\n"
           "verse      /uni   grams    Hz   ms   ms   slots   first    last     gap missing\n";
  for (const cue::UniverseInfo& universe : info.universes) {
    std::array<char, 160> line{};
    snprintf(line.data(), line.size(), "%5d %9s %7llu %5.1f %4s %4s %7s %7s %7s %7s %7s\n",
             universe.port_address + 1, cue::port_address_text(universe.port_address).c_str(),
             static_cast<unsigned long long>(universe.datagrams), universe.rate(),
             short_interval(universe.median_interval).c_str(), short_interval(universe.p99_interval).c_str(),
             slots_text(universe).c_str(), short_time(universe.first).c_str(),
             short_time(universe.last).c_str(), short_time(universe.longest_gap).c_str(),
             missing_text(universe.sequence).c_str());
    out << line.data();
  }
  out << "\n";
  for (const std::string& line : sequence_report(info)) out << line << "\n";
}

void write_json(std::ostream& out, const cue::SequenceFigures& figures) {
  out << "\"missing\": " << figures.missing << ", \"at_least\": " << (figures.at_least ? "true" : "false")
      << ", \"holes\": " << figures.holes << ", \"first_hole_ns\": " << figures.first_hole_at
      << ", \"longest_hole\": " << figures.longest_hole
      << ", \"longest_hole_ns\": " << figures.longest_hole_at << ", \"repeated\": " << figures.repeated
      << ", \"repeated_same\": " << figures.repeated_same << ", \"out_of_order\": " << figures.out_of_order
      << ", \"jumps\": " << figures.jumps << ", \"first_jump_ns\": " << figures.first_jump_at;
}

void write_json(std::ostream& out, const cue::UniverseInfo& universe) {
  char rate[32];
  snprintf(rate, sizeof rate, "%.3f", universe.rate());
  out << "{\"universe\": " << universe.port_address + 1 << ", \"port_address\": " << universe.port_address
      << ", \"datagrams\": " << universe.datagrams << ", \"rate_hz\": " << rate
      << ", \"first_ns\": " << universe.first << ", \"last_ns\": " << universe.last
      << ", \"longest_gap_ns\": " << universe.longest_gap << ", \"fewest_slots\": " << universe.fewest_slots
      << ", \"most_slots\": " << universe.most_slots << ", \"interval_p50_ns\": " << universe.median_interval
      << ", \"interval_p99_ns\": " << universe.p99_interval << ", \"pauses\": " << universe.pauses
      << ", \"counting\": " << json_string(cue::counting_name(universe.sequence.counting))
      << ", \"not_numbered\": " << universe.sequence.not_numbered
      << ", \"unproved_pauses\": " << universe.sequence.unproved_pauses << ", ";
  write_json(out, universe.sequence.figures);
  out << "}";
}

void write_json(std::ostream& out, const cue::RecordingInfo& info) {
  out << "{\"file\": " << json_string(info.file) << ", \"bytes\": " << info.bytes
      << ", \"datagrams\": " << info.datagrams << ", \"duration_ns\": " << info.duration << ", \"damage\": ";
  if (info.damage)
    out << "{\"offset\": " << info.damage->offset << ", \"what\": " << json_string(info.damage->what) << "}";
  else
    out << "null";
  const cue::Completeness completeness = cue::completeness_of(info);
  out << ", \"verdict\": " << json_string(cue::completeness_text(info))
      << ", \"missing\": " << completeness.missing
      << ", \"proved\": " << (completeness.proved && !info.damage ? "true" : "false") << ", \"shared\": ";
  if (info.shared.universes > 0) {
    out << "{\"universes\": " << info.shared.universes << ", ";
    write_json(out, info.shared.figures);
    out << "}";
  } else {
    out << "null";
  }
  out << ", \"universes\": [";
  const char* separator = "\n    ";
  for (const cue::UniverseInfo& universe : info.universes) {
    out << separator;
    write_json(out, universe);
    separator = ",\n    ";
  }
  out << "]}";
}

class Info : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command = add_command(app, "info", "Shows what is in recordings.",
                                          "  kadrel-cue info show.cue\n"
                                          "  kadrel-cue info --json *.cue | jq '.[] | {file, datagrams}'");
    add_inputs(*command, files, "Recordings");
    command->add_flag("--json", json, "For programs: a JSON list with an object for each file");
    return command;
  }

  int run(std::ostream& out, std::ostream& err) override {
    const Progress progress(out, err, files);
    int code = 0;
    const char* separator = "";
    if (json) out << "[";
    for (const cue::Input& file : files) {
      try {
        cue::RecordingReader reader(file);
        const cue::RecordingInfo info = cue::read_info(reader);
        out << separator;
        separator = json ? ",\n " : "\n";
        if (json)
          write_json(out, info);
        else
          write_table(out, info);
        if (info.damage) throw cue::CueError(cue::damage_text(file.name(), *info.damage));
      } catch (const cue::CueError& error) {
        err << "kadrel-cue: " << error.what() << "\n";
        code = 1;
      }
    }
    if (json) out << "]\n";
    return code;
  }

private:
  std::vector<cue::Input> files;
  bool json = false;
};

}  // namespace

std::unique_ptr<Command> make_info() {
  return std::make_unique<Info>();
}

}  // namespace kadrel_cue
