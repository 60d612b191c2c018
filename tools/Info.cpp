#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "cue/CueError.h"
#include "cue/RecordingInfo.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/Progress.h"

namespace kadrel_cue {
namespace {

std::string slots_text(const cue::UniverseInfo& universe) {
  if (universe.fewest_slots == universe.most_slots) return std::to_string(universe.most_slots);
  return std::to_string(universe.fewest_slots) + "-" + std::to_string(universe.most_slots);
}

/// For people: totals, and a table of the universes.
void write_table(std::ostream& out, const cue::RecordingInfo& info) {
  out << info.file << "\n"
      << "  duration   " << cue::format_time(info.duration) << "\n"
      << "  datagrams  " << info.datagrams << "\n"
      << "  bytes      " << info.bytes << "\n"
      << "  universes  " << info.universes.size() << "\n";
  if (info.universes.empty()) return;
  out << "\n"
      << "  universe  net/sub/uni   datagrams  rate (Hz)    slots         first          last   longest "
         "gap\n";
  for (const cue::UniverseInfo& universe : info.universes) {
    char line[160];
    snprintf(line, sizeof line, "  %8d  %11s  %10llu  %9.2f  %7s  %12s  %12s  %12s\n",
             universe.port_address + 1, cue::port_address_text(universe.port_address).c_str(),
             static_cast<unsigned long long>(universe.datagrams), universe.rate(),
             slots_text(universe).c_str(), cue::format_time(universe.first).c_str(),
             cue::format_time(universe.last).c_str(), cue::format_time(universe.longest_gap).c_str());
    out << line;
  }
}

// Only the strings are written by Qt: its JSON numbers are doubles, too short for times of 64 bits.

/// @p text as a JSON string, quotes included. Bytes that are no UTF-8 become U+FFFD.
std::string json_string(const std::string& text) {
  // The blank keeps Qt from removing a byte order mark at the front.
  const QString decoded = QString::fromStdString(" " + text).mid(1);
  const QByteArray list = QJsonDocument(QJsonArray{decoded}).toJson(QJsonDocument::Compact);
  return list.mid(1, list.size() - 2).toStdString();
}

void write_json(std::ostream& out, const cue::UniverseInfo& universe) {
  char rate[32];
  snprintf(rate, sizeof rate, "%.3f", universe.rate());
  out << "{\"universe\": " << universe.port_address + 1 << ", \"port_address\": " << universe.port_address
      << ", \"datagrams\": " << universe.datagrams << ", \"rate_hz\": " << rate
      << ", \"first_ns\": " << universe.first << ", \"last_ns\": " << universe.last
      << ", \"longest_gap_ns\": " << universe.longest_gap << ", \"fewest_slots\": " << universe.fewest_slots
      << ", \"most_slots\": " << universe.most_slots << "}";
}

void write_json(std::ostream& out, const cue::RecordingInfo& info) {
  out << "{\"file\": " << json_string(info.file) << ", \"bytes\": " << info.bytes
      << ", \"datagrams\": " << info.datagrams << ", \"duration_ns\": " << info.duration << ", \"damage\": ";
  if (info.damage)
    out << "{\"offset\": " << info.damage->offset << ", \"what\": " << json_string(info.damage->what) << "}";
  else
    out << "null";
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
