#include "cue/Csv.h"

#include <algorithm>
#include <cstdio>

#include "cue/AtomicFile.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/RecordingInfo.h"
#include "cue/Time.h"

namespace cue {
namespace {

std::string seconds_text(std::int64_t time) {
  char text[32];
  snprintf(text, sizeof text, "%lld.%09lld", static_cast<long long>(time / kSecond),
           static_cast<long long>(time % kSecond));
  return text;
}

}  // namespace

std::uint16_t choose_universe(const RecordingInfo& info, std::optional<std::uint16_t> port_address) {
  const auto is_wanted = [&](const UniverseInfo& universe) { return universe.port_address == *port_address; };
  if (port_address) {
    if (std::none_of(info.universes.begin(), info.universes.end(), is_wanted))
      throw CueError(info.file + ": holds no universe " + std::to_string(*port_address + 1));
    return *port_address;
  }
  if (info.universes.empty()) throw CueError(info.file + ": holds no universe");
  if (info.universes.size() > 1)
    throw CueError(info.file + ": holds " + std::to_string(info.universes.size()) +
                   " universes; choose one with --universe");
  return info.universes.front().port_address;
}

ExportedCsv export_csv(const Input& input, std::optional<std::uint16_t> port_address, const Output& output,
                       const OnDamage& on_damage) {
  Input file = input;
  file.keep();
  const RecordingInfo info = read_info(file, on_damage);
  const std::uint16_t wanted = choose_universe(info, port_address);
  std::size_t slots = 0;
  for (const UniverseInfo& universe : info.universes)
    if (universe.port_address == wanted) slots = universe.most_slots;

  AtomicFile csv(output, {file});
  std::string line = "time_s";
  for (std::size_t slot = 1; slot <= slots; ++slot) line += ",slot" + std::to_string(slot);
  csv.write(line + "\n");
  std::uint64_t lines = 0;
  GoodRecords reader(file, on_damage ? [](const auto&, const auto&) {} : OnDamage());
  Record record;
  while (reader.next(record)) {
    for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
      if (packet.port_address != wanted) return;
      line = seconds_text(record.time);
      for (std::size_t slot = 0; slot < slots; ++slot) {
        line += ',';
        if (slot < packet.slots) line += std::to_string(record.data[packet.offset + kDmxHeaderSize + slot]);
      }
      csv.write(line + "\n");
      ++lines;
    });
  }
  csv.commit();
  return {wanted, lines};
}

}  // namespace cue
