#include "cue/CueInfo.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

#include "cue/Arguments.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"

namespace cue {
namespace {

template <typename... Values>
std::string format(const char* text, Values... values) {
  char line[160];
  snprintf(line, sizeof line, text, values...);
  return line;
}

std::string slots_text(const UniverseInfo& universe) {
  if (universe.fewest_slots == universe.most_slots) return std::to_string(universe.most_slots);
  return std::to_string(universe.fewest_slots) + "-" + std::to_string(universe.most_slots);
}

void write_json(std::ostream& out, const UniverseInfo& universe) {
  out << "{\"universe\": " << universe.port_address + 1 << ", \"port_address\": " << universe.port_address
      << ", \"datagrams\": " << universe.datagrams << format(", \"rate_hz\": %.3f", universe.rate())
      << ", \"first_ns\": " << universe.first << ", \"last_ns\": " << universe.last
      << ", \"longest_gap_ns\": " << universe.longest_gap << ", \"fewest_slots\": " << universe.fewest_slots
      << ", \"most_slots\": " << universe.most_slots << "}";
}

void write_json(std::ostream& out, const RecordingInfo& info) {
  out << "{\"file\": " << json_string(info.file) << ", \"bytes\": " << info.bytes
      << ", \"datagrams\": " << info.datagrams << ", \"duration_ns\": " << info.duration << ", \"damage\": ";
  if (info.damage)
    out << "{\"offset\": " << info.damage->offset << ", \"what\": " << json_string(info.damage->what) << "}";
  else
    out << "null";
  out << ", \"universes\": [";
  const char* separator = "\n    ";
  for (const UniverseInfo& universe : info.universes) {
    out << separator;
    write_json(out, universe);
    separator = ",\n    ";
  }
  out << "]}";
}

}  // namespace

double UniverseInfo::rate() const {
  if (last <= first) return 0;
  return static_cast<double>(datagrams - 1) * static_cast<double>(kSecond) /
         static_cast<double>(last - first);
}

InfoCounter::InfoCounter() : index(UniverseSet::kPortAddresses, -1) {}

UniverseInfo& InfoCounter::universe(std::uint16_t port_address) {
  std::int32_t& at = index[port_address];
  if (at == -1) {
    at = static_cast<std::int32_t>(info.universes.size());
    info.universes.emplace_back();
    info.universes.back().port_address = port_address;
  }
  return info.universes[static_cast<std::size_t>(at)];
}

void InfoCounter::add(const Record& record) {
  ++info.datagrams;
  info.bytes = record.end();
  info.duration = record.time;
  for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
    UniverseInfo& of = universe(packet.port_address);
    if (of.datagrams++ == 0) {
      of.first = record.time;
      of.fewest_slots = packet.slots;
    } else {
      of.longest_gap = std::max(of.longest_gap, record.time - of.last);
    }
    of.last = record.time;
    of.fewest_slots = std::min(of.fewest_slots, packet.slots);
    of.most_slots = std::max(of.most_slots, packet.slots);
  });
}

RecordingInfo InfoCounter::result(const RecordingReader& reader) const {
  RecordingInfo result = info;
  result.file = reader.name();
  result.damage = reader.damage();
  std::sort(result.universes.begin(), result.universes.end(),
            [](const UniverseInfo& a, const UniverseInfo& b) { return a.port_address < b.port_address; });
  return result;
}

RecordingInfo read_info(RecordingReader& reader) {
  InfoCounter counter;
  Record record;
  while (reader.next(record)) counter.add(record);
  return counter.result(reader);
}

void write_table(std::ostream& out, const RecordingInfo& info) {
  out << info.file << "\n"
      << "  duration   " << format_time(info.duration) << "\n"
      << "  datagrams  " << info.datagrams << "\n"
      << "  bytes      " << info.bytes << "\n"
      << "  universes  " << info.universes.size() << "\n";
  if (info.universes.empty()) return;
  out << "\n"
      << "  universe  net/sub/uni   datagrams  rate (Hz)    slots         first          last   longest "
         "gap\n";
  for (const UniverseInfo& universe : info.universes) {
    out << format("  %8d  %11s  %10llu  %9.2f  %7s  %12s  %12s  %12s\n", universe.port_address + 1,
                  port_address_text(universe.port_address).c_str(),
                  static_cast<unsigned long long>(universe.datagrams), universe.rate(),
                  slots_text(universe).c_str(), format_time(universe.first).c_str(),
                  format_time(universe.last).c_str(), format_time(universe.longest_gap).c_str());
  }
}

void write_json(std::ostream& out, const std::vector<RecordingInfo>& files) {
  out << "[";
  const char* separator = "";
  for (const RecordingInfo& info : files) {
    out << separator;
    write_json(out, info);
    separator = ",\n ";
  }
  out << "]\n";
}

std::string damage_text(const std::string& file, const Damage& damage) {
  return file + ": byte " + std::to_string(damage.offset) + ": " + damage.what;
}

int run_info(const std::vector<std::string>& files, bool json, std::ostream& out, std::ostream& err) {
  int code = 0;
  std::vector<RecordingInfo> found;
  for (const std::string& file : files) {
    try {
      RecordingReader reader(file);
      found.push_back(read_info(reader));
    } catch (const CueError& error) {
      err << "kadrel-cue: " << error.what() << "\n";
      code = 1;
      continue;
    }
    const RecordingInfo& info = found.back();
    if (!json) {
      if (found.size() > 1) out << "\n";
      write_table(out, info);
    }
    if (info.damage) {
      err << "kadrel-cue: " << damage_text(file, *info.damage) << "\n";
      code = 1;
    }
  }
  if (json) write_json(out, found);
  return code;
}

}  // namespace cue
