#include "cue/OlaShowWriter.h"

#include <array>
#include <cstdlib>
#include <limits>
#include <utility>

#include "artnet/RecordingFormat.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/DmxLosses.h"
#include "cue/Text.h"
#include "cue/Time.h"

namespace cue {
namespace {

constexpr std::int64_t kPerSecond = 1000;
constexpr std::int64_t kMillisecond = kSecond / kPerSecond;
constexpr std::size_t kLevels = 256;

/// Each level as text with the comma before it.
std::array<std::string, kLevels> level_texts() {
  std::array<std::string, kLevels> texts;
  for (std::size_t level = 0; level < kLevels; ++level) texts[level] = "," + std::to_string(level);
  return texts;
}

/// @return ms, rounded; half a millisecond goes up
std::int64_t rounded(std::int64_t time) {
  return time / kMillisecond + (time % kMillisecond >= kMillisecond / 2 ? 1 : 0);
}

class Writer {
public:
  Writer(const Output& output, const Input& input, OlaShowVersion wanted)
      : show(output, {input}), version(wanted) {
    show.write(version == OlaShowVersion::One ? "OLA Show\n" : "OLA Show V2\n");
  }

  /// @throws CueError
  void add(const Record& record, const std::string& file) {
    fields.add(record);
    const std::int64_t time = rounded(record.time);
    if (record.time % kMillisecond != 0) ++rounded_times;
    for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
      if (packet.slots == 0) {
        ++without_slots;
        return;
      }
      line.clear();
      if (frames > 0) add_time(record, time, file);
      line += std::to_string(packet.port_address + 1);
      const std::size_t levels = line.size();
      const std::uint8_t* const slots = record.data + packet.offset + kDmxHeaderSize;
      for (std::size_t slot = 0; slot < packet.slots; ++slot) line += texts[slots[slot]];
      line[levels] = ' ';
      line += '\n';
      show.write(line);
      if (frames == 0) first_time = time;
      last_time = time;
      ++frames;
    });
  }

  /// @throws CueError
  ExportedOlaShow finish(const std::string& file) {
    if (frames == 0) throw CueError(file + ": holds no levels");
    show.commit();
    std::vector<std::string> losses;
    if (rounded_times > 0)
      losses.push_back("the times of " + counted(rounded_times, "datagram") + " below 1 ms");
    if (without_slots > 0) losses.push_back(std::to_string(without_slots) + " ArtDmx without slots");
    for (std::string& text : fields.texts()) losses.push_back(std::move(text));
    return {frames, losses};
  }

private:
  void add_time(const Record& record, std::int64_t time, const std::string& file) {
    const bool one = version == OlaShowVersion::One;
    const std::int64_t number = one ? time - last_time : (time - first_time) / kPerSecond;
    if (number > std::numeric_limits<std::uint32_t>::max())
      throw CueError(file + ": byte " + std::to_string(record.offset) + ": after a " +
                     (one ? "pause" : "time") + " longer than an OLA show can tell");
    line += std::to_string(number);
    if (!one) line += ' ' + std::to_string((time - first_time) % kPerSecond);
    line += '\n';
  }

  AtomicFile show;
  const std::array<std::string, kLevels> texts = level_texts();
  DmxLosses fields;
  std::string line;
  OlaShowVersion version;
  std::int64_t first_time = 0;  // ms, of the first frame
  std::int64_t last_time = 0;   // ms
  std::uint64_t frames = 0;
  std::uint64_t rounded_times = 0;
  std::uint64_t without_slots = 0;
};

}  // namespace

ExportedOlaShow export_ola_show(const Input& input, const Output& output, OlaShowVersion version,
                                const OnDamage& on_damage) {
  GoodRecords reader(input, on_damage);
  Writer writer(output, input, version);
  Record record;
  while (reader.next(record)) writer.add(record, input.name());
  return writer.finish(input.name());
}

}  // namespace cue
