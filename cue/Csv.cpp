#include "cue/Csv.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cue/AtomicFile.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/RecordingInfo.h"
#include "cue/Selection.h"
#include "cue/Time.h"

namespace cue {
namespace {

constexpr std::size_t kPortion = std::size_t{64} * 1024;

/// A few characters that are appended often. They are copied whole, so that no length is looked at.
struct Word {
  std::array<char, 8> text{};
  std::uint8_t length = 0;

  explicit Word(const std::string& of) : length(static_cast<std::uint8_t>(of.size())) {
    of.copy(text.data(), text.size());
  }
  Word() = default;
};

/// The words @p before + number + @p after of the numbers from 0.
template <std::size_t kCount>
std::array<Word, kCount> number_words(const std::string& before, const std::string& after) {
  std::array<Word, kCount> words;
  for (std::size_t number = 0; number < kCount; ++number)
    words[number] = Word(std::string(before).append(std::to_string(number)).append(after));
  return words;
}

/// Lines on their way to a file.
class Lines {
public:
  explicit Lines(AtomicFile& to) : file(to), portion(2 * kPortion) {}

  void append(const Word& word) {
    memcpy(portion.data() + size, word.text.data(), word.text.size());
    size += word.length;
  }
  void append(const std::string& text) {
    text.copy(portion.data() + size, text.size());
    size += text.size();
  }
  void append(char character) { portion[size++] = character; }

  /// After at most kPortion - 8 characters.
  void may_write() {
    if (size >= kPortion) write();
  }
  void write() {
    file.write(portion.data(), size);
    size = 0;
  }

private:
  AtomicFile& file;
  std::vector<char> portion;
  std::size_t size = 0;
};

/// Seconds with nanoseconds.
std::string time_field(std::int64_t time) {
  std::array<char, 32> text{};
  char* at = text.data() + text.size();
  std::int64_t left = time % kSecond;
  for (int digit = 0; digit < 9; ++digit, left /= 10) *--at = static_cast<char>('0' + left % 10);
  *--at = '.';
  left = time / kSecond;
  do *--at = static_cast<char>('0' + left % 10);
  while ((left /= 10) != 0);
  return {at, static_cast<std::size_t>(text.data() + text.size() - at)};
}

/// Calls @p visit with every slot of @p before and @p now that differs, in order.
template <typename Visit>
void for_each_difference(const std::uint8_t* before, const std::uint8_t* now, std::size_t count,
                         Visit&& visit) {
  constexpr std::size_t kStep = sizeof(std::uint64_t);
  for (std::size_t from = 0; from < count; from += kStep) {
    const std::size_t to = std::min(count, from + kStep);
    if (memcmp(before + from, now + from, to - from) == 0) continue;
    for (std::size_t slot = from; slot < to; ++slot)
      if (before[slot] != now[slot]) visit(slot);
  }
}

/// What the lines written so far say of a universe.
struct WrittenLook {
  std::array<std::uint8_t, kDmxSlots> levels{};
  std::size_t slots = 0;
};

/// Writes what each ArtDmx changes.
class ChangeLines {
public:
  explicit ChangeLines(AtomicFile& file) : lines(file), looks(UniverseSet::kPortAddresses) {}

  void add(std::int64_t time, const DmxPacket& packet, const std::uint8_t* levels) {
    std::unique_ptr<WrittenLook>& written = looks[packet.port_address];
    if (!written) {
      written = std::make_unique<WrittenLook>();
      ++result.universes;
    }
    WrittenLook& look = *written;
    const std::size_t common = std::min<std::size_t>(look.slots, packet.slots);
    if (look.slots == packet.slots && memcmp(look.levels.data(), levels, common) == 0) return;
    const std::string prefix = time_field(time) + "," + std::to_string(packet.port_address + 1);
    for_each_difference(look.levels.data(), levels, common,
                        [&](std::size_t slot) { add_line(prefix, slot, level_words[levels[slot]]); });
    for (std::size_t slot = common; slot < packet.slots; ++slot)
      add_line(prefix, slot, level_words[levels[slot]]);
    for (std::size_t slot = common; slot < look.slots; ++slot) add_line(prefix, slot, no_level);
    look.slots = packet.slots;
    std::copy_n(levels, packet.slots, look.levels.begin());
    lines.may_write();
  }

  ExportedLongCsv finish() {
    lines.write();
    return result;
  }

private:
  void add_line(const std::string& prefix, std::size_t slot, const Word& level) {
    lines.append(prefix);
    lines.append(slot_words[slot + 1]);
    lines.append(level);
    ++result.lines;
  }

  Lines lines;
  std::vector<std::unique_ptr<WrittenLook>> looks;  // by port-address
  std::array<Word, kDmxSlots + 1> slot_words = number_words<kDmxSlots + 1>(",", ",");
  std::array<Word, 256> level_words = number_words<256>("", "\n");
  Word no_level = Word("\n");
  ExportedLongCsv result;
};

/// Calls @p visit with every ArtDmx of a recording and the record that holds it.
template <typename Visit>
void for_each_packet(GoodRecords& records, Visit&& visit) {
  Record record;
  while (records.next(record))
    for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) { visit(record, packet); });
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

ExportedCsv export_csv(const Input& file, std::optional<std::uint16_t> port_address, const Output& output,
                       const OnDamage& on_damage) {
  Input kept = file;
  kept.keep();
  const RecordingInfo info = read_info(kept, on_damage);
  const std::uint16_t wanted = choose_universe(info, port_address);
  std::size_t slots = 0;
  for (const UniverseInfo& universe : info.universes)
    if (universe.port_address == wanted) slots = universe.most_slots;

  AtomicFile csv(output, {kept});
  std::string line = "time_s";
  for (std::size_t slot = 1; slot <= slots; ++slot) line += ",slot" + std::to_string(slot);
  csv.write(line + "\n");
  const auto level_words = number_words<256>(",", "");
  std::uint64_t count = 0;
  Lines lines(csv);
  GoodRecords records(kept, on_damage ? [](const auto&, const auto&) {} : OnDamage());
  for_each_packet(records, [&](const Record& record, const DmxPacket& packet) {
    if (packet.port_address != wanted) return;
    lines.append(time_field(record.time));
    const std::uint8_t* const levels = record.data + packet.offset + kDmxHeaderSize;
    for (std::size_t slot = 0; slot < packet.slots; ++slot) lines.append(level_words[levels[slot]]);
    for (std::size_t slot = packet.slots; slot < slots; ++slot) lines.append(',');
    lines.append('\n');
    lines.may_write();
    ++count;
  });
  lines.write();
  csv.commit();
  return {wanted, count};
}

ExportedLongCsv export_csv_long(const Input& file, const Output& output, const OnDamage& on_damage) {
  AtomicFile csv(output, {file});
  csv.write(std::string("time_s,universe,slot,level\n"));
  GoodRecords records(file, on_damage);
  ChangeLines changes(csv);
  for_each_packet(records, [&](const Record& record, const DmxPacket& packet) {
    changes.add(record.time, packet, record.data + packet.offset + kDmxHeaderSize);
  });
  const ExportedLongCsv written = changes.finish();
  csv.commit();
  return written;
}

}  // namespace cue
