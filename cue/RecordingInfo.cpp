#include "cue/RecordingInfo.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "cue/DatagramWalk.h"
#include "cue/Selection.h"
#include "cue/Time.h"

namespace cue {
namespace {

// Art-Net 4, ArtDmx: a sender repeats unchanged levels after 4 s at the latest.
constexpr std::int64_t kUnchanged = 4 * kSecond;
constexpr std::int64_t kWholeCount = 255;
constexpr std::int64_t kFastest = kSecond / 1000;
constexpr std::int64_t kLongest = std::int64_t{24} * 3600 * kSecond;

constexpr std::size_t kSequenceOffset = offsetof(ArtDmx, sequence);

/// Tells levels apart, in four lanes that do not wait for each other.
std::uint64_t hash_of(const std::uint8_t* bytes, std::size_t size) {
  constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;  // 2^64 by the golden ratio
  std::array<std::uint64_t, 4> lanes{size, 1, 2, 3};
  while (size >= sizeof lanes) {
    std::array<std::uint64_t, lanes.size()> words{};
    memcpy(words.data(), bytes, sizeof words);
    for (std::size_t lane = 0; lane < lanes.size(); ++lane)
      lanes[lane] = (lanes[lane] ^ words[lane]) * kFactor;
    bytes += sizeof words;
    size -= sizeof words;
  }
  std::uint64_t hash = 0;
  for (const std::uint64_t lane : lanes) hash = (hash ^ lane ^ (lane >> 32)) * kFactor;
  for (; size > 0; --size) hash = (hash ^ *bytes++) * kFactor;
  return hash;
}

}  // namespace

double UniverseInfo::rate() const {
  if (last <= first) return 0;
  return static_cast<double>(datagrams - 1) * static_cast<double>(kSecond) /
         static_cast<double>(last - first);
}

InfoCounter::InfoCounter() : index(UniverseSet::kPortAddresses, -1) {}

InfoCounter::Universe& InfoCounter::universe(std::uint16_t port_address) {
  std::int32_t& at = index[port_address];
  if (at == -1) {
    at = static_cast<std::int32_t>(universes.size());
    universes.emplace_back();
    universes.back().info.port_address = port_address;
  }
  return universes[static_cast<std::size_t>(at)];
}

void InfoCounter::add(const Record& record) {
  ++info.datagrams;
  info.bytes = record.end();
  info.duration = record.time;
  for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) { add(record, packet); });
}

void InfoCounter::add(const Record& record, const DmxPacket& packet) {
  Universe& one = universe(packet.port_address);
  UniverseInfo& of = one.info;
  if (of.datagrams++ == 0) {
    of.first = record.time;
    of.fewest_slots = packet.slots;
  } else {
    const std::int64_t interval = record.time - of.last;
    of.longest_gap = std::max(of.longest_gap, interval);
    if (interval > kUnchanged) ++of.pauses;
    one.intervals.add(interval);
  }
  of.last = record.time;
  of.fewest_slots = std::min(of.fewest_slots, packet.slots);
  of.most_slots = std::max(of.most_slots, packet.slots);
  judge(one, record, packet);
}

void InfoCounter::judge(Universe& of, const Record& record, const DmxPacket& packet) {
  const std::uint8_t* const bytes = record.data + packet.offset;
  const std::uint64_t levels = hash_of(bytes + kDmxHeaderSize, packet.slots);
  const NumberedPacket numbered{bytes[kSequenceOffset], record.time, levels == of.levels};
  of.levels = levels;
  if (of.judge.oddities() > 0) shared.add(of.member, packet.port_address, numbered);
  of.judge.add(numbered);
}

bool InfoCounter::belongs(const Universe& one) const {
  return one.member.belongs(one.judge.oddities());
}

/// @param shared_by  universes that share a counter
UniverseInfo InfoCounter::result(const Universe& one, std::uint64_t shared_by) const {
  UniverseInfo of = one.info;
  of.median_interval = one.intervals.percentile(0.5);
  of.p99_interval = one.intervals.percentile(0.99);
  const bool is_shared = shared_by > 0 && belongs(one);
  if (is_shared)
    of.sequence.counting = Counting::Shared;
  else
    of.sequence = one.judge.result();
  const std::int64_t frames = kWholeCount / (is_shared ? static_cast<std::int64_t>(shared_by) : 1);
  // A 32nd less, as exactly as the median is known.
  const std::int64_t whole_count =
      (std::max<std::int64_t>(1, frames) + 1) * std::clamp(of.median_interval, kFastest, kLongest) / 32 * 31;
  const bool counts = of.sequence.counting != Counting::None && of.sequence.counting != Counting::Chaos;
  if (counts && of.longest_gap >= whole_count)
    of.sequence.unproved_pauses = one.intervals.at_least(whole_count);
  return of;
}

RecordingInfo InfoCounter::result() const {
  RecordingInfo result = info;
  auto shared_by = static_cast<std::uint64_t>(std::count_if(
      universes.begin(), universes.end(), [this](const Universe& one) { return belongs(one); }));
  if (shared_by < 2) shared_by = 0;
  if (shared_by > 0) result.shared = {shared_by, shared.figures()};
  for (const Universe& one : universes) result.universes.push_back(this->result(one, shared_by));
  std::sort(result.universes.begin(), result.universes.end(),
            [](const UniverseInfo& a, const UniverseInfo& b) { return a.port_address < b.port_address; });
  return result;
}

RecordingInfo read_info(const Input& input, const OnDamage& on_damage) {
  GoodRecords records(input, on_damage);
  InfoCounter counter;
  Record record;
  while (records.next(record)) counter.add(record);
  RecordingInfo result = counter.result();
  result.file = input.name();
  return result;
}

RecordingInfo read_info(RecordingReader& reader) {
  std::optional<Damage> first;
  InfoCounter counter;
  Record record;
  do {
    while (reader.next(record)) counter.add(record);
    if (!first) first = reader.damage();
  } while (reader.damage() && reader.resume());
  RecordingInfo result = counter.result();
  result.file = reader.name();
  result.damage = first;
  return result;
}

std::string damage_text(const std::string& file, const Damage& damage) {
  return file + ": byte " + std::to_string(damage.offset) + ": " + damage.what;
}

}  // namespace cue
