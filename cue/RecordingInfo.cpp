#include "cue/RecordingInfo.h"

#include <algorithm>

#include "cue/DatagramWalk.h"
#include "cue/Selection.h"
#include "cue/Time.h"

namespace cue {

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

RecordingInfo read_info(const Input& input, const OnDamage& on_damage) {
  GoodRecords records(input, on_damage);
  InfoCounter counter;
  Record record;
  while (records.next(record)) counter.add(record);
  return counter.result(records.reader());
}

RecordingInfo read_info(RecordingReader& reader) {
  InfoCounter counter;
  Record record;
  while (reader.next(record)) counter.add(record);
  return counter.result(reader);
}

std::string damage_text(const std::string& file, const Damage& damage) {
  return file + ": byte " + std::to_string(damage.offset) + ": " + damage.what;
}

}  // namespace cue
