#include "cue/FseqWriter.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "artnet/ArtNet.h"
#include "artnet/RecordingFormat.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/DmxLosses.h"
#include "cue/FseqHeader.h"
#include "cue/RecordingInfo.h"
#include "cue/Selection.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "kesto/wall_clock.h"

namespace cue {
namespace {

constexpr std::int64_t kMillisecond = kSecond / 1000;

std::uint32_t first_channel(std::uint16_t port_address) {
  return std::uint32_t{port_address} * kDmxSlots;
}

/// The channels of all universes in @p version, as few ranges as there can be.
std::vector<ChannelRange> ranges_of(const std::vector<UniverseInfo>& universes, int version) {
  std::vector<ChannelRange> ranges;
  for (const UniverseInfo& universe : universes) {
    const std::uint32_t first = first_channel(universe.port_address);
    if (universe.most_slots == 0 || (version == 2 && first >= kFseqRangeLimit)) continue;
    if (!ranges.empty() && ranges.back().end() == first)
      ranges.back().count += universe.most_slots;
    else
      ranges.push_back({first, universe.most_slots});
  }
  return ranges;
}

/// Closes the smallest gaps until no more than @p most ranges are left.
void merge_ranges(std::vector<ChannelRange>& ranges, std::size_t most) {
  if (ranges.size() <= most) return;
  std::vector<std::pair<std::uint64_t, std::size_t>> gaps;  // size, index of the range before
  for (std::size_t i = 0; i + 1 < ranges.size(); ++i)
    gaps.emplace_back(ranges[i + 1].first - ranges[i].end(), i);
  const auto closed = static_cast<std::ptrdiff_t>(ranges.size() - most);
  std::nth_element(gaps.begin(), gaps.begin() + (closed - 1), gaps.end());
  std::vector<bool> is_closed(ranges.size(), false);  // behind this range
  std::for_each(gaps.begin(), gaps.begin() + closed, [&](const auto& gap) { is_closed[gap.second] = true; });
  std::vector<ChannelRange> merged = {ranges.front()};
  for (std::size_t i = 1; i < ranges.size(); ++i) {
    if (is_closed[i - 1])
      merged.back().count = static_cast<std::uint32_t>(ranges[i].end() - merged.back().first);
    else
      merged.push_back(ranges[i]);
  }
  ranges = std::move(merged);
}

std::uint64_t sum_of(const std::vector<ChannelRange>& ranges) {
  std::uint64_t sum = 0;
  for (const ChannelRange& range : ranges) sum += range.count;
  return sum;
}

/// A frame, and where each universe is in it.
class Frame {
public:
  Frame(const std::vector<UniverseInfo>& universes, const std::vector<ChannelRange>& ranges)
      : levels(static_cast<std::size_t>(sum_of(ranges)), 0), places(UniverseSet::kPortAddresses) {
    std::size_t range = 0;
    std::size_t before = 0;  // channels of the ranges before
    for (const UniverseInfo& universe : universes) {
      const std::uint32_t first = first_channel(universe.port_address);
      while (range < ranges.size() && first >= ranges[range].end()) before += ranges[range++].count;
      if (range == ranges.size() || first < ranges[range].first) continue;
      places[universe.port_address] = {before + first - ranges[range].first, universe.most_slots};
    }
  }

  /// The look of a universe becomes this ArtDmx. @return false when the universe is not in the frame
  bool take(const std::uint8_t* datagram, const DmxPacket& packet) {
    const Place& place = places[packet.port_address];
    const std::size_t slots = std::min(packet.slots, place.slots);
    std::uint8_t* const at = levels.data() + place.at;
    if (slots > 0) memcpy(at, datagram + packet.offset + kDmxHeaderSize, slots);
    std::fill(at + slots, at + place.slots, std::uint8_t{0});
    return place.slots > 0;
  }

  const std::vector<std::uint8_t>& bytes() const { return levels; }

private:
  struct Place {
    std::size_t at = 0;
    std::uint16_t slots = 0;
  };
  std::vector<std::uint8_t> levels;
  std::vector<Place> places;  // by port-address
};

/// What does not get into the frames.
class FseqLosses {
public:
  FseqLosses() : frame_of(UniverseSet::kPortAddresses, kNever) {}

  /// @param frame  in which the datagram is seen first. @param late  ns from the datagram to that frame
  void add(const Record& record, std::uint64_t frame, std::int64_t late) {
    fields.add(record);
    if (late > 0) ++moved;
    longest_move = std::max(longest_move, late);
    for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
      std::uint64_t& before = frame_of[packet.port_address];
      if (before == kNever && frame > 0) ++late_universes;
      if (before == frame) ++unseen;
      before = frame;
    });
  }

  /// An ArtDmx of a universe that is not in the frames.
  void add_missing(const DmxPacket& packet) { ++(packet.slots > 0 ? out_of_reach : without_slots); }

  std::vector<std::string> texts(const std::vector<UniverseInfo>& universes, std::uint64_t filled) const {
    std::vector<std::string> found;
    const auto add = [&found](std::uint64_t count, const std::string& text) {
      if (count > 0) found.push_back(std::to_string(count) + " " + text);
    };
    add(unseen, "ArtDmx that were replaced before the next step");
    if (moved > 0)
      found.push_back("the times of " + counted(moved, "datagram") + " to up to " +
                      milliseconds(longest_move));
    add(out_of_reach, "ArtDmx of universes above " + std::to_string(kFseqRangeLimit / kDmxSlots));
    add(without_slots, "ArtDmx without slots");
    const auto shorter = std::count_if(universes.begin(), universes.end(), [](const UniverseInfo& universe) {
      return universe.fewest_slots < universe.most_slots;
    });
    if (shorter > 0)
      found.push_back("changing numbers of slots in " +
                      counted(static_cast<std::uint64_t>(shorter), "universe") + " (filled with 0)");
    if (late_universes > 0)
      found.push_back("the later begin of " + counted(late_universes, "universe") + " (filled with 0)");
    if (filled > 0)
      found.push_back("that " + counted(filled, "channel") + " of a frame were not sent (filled with 0)");
    for (std::string& text : fields.texts()) found.push_back(std::move(text));
    return found;
  }

private:
  static constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

  static std::string milliseconds(std::int64_t time) {
    const std::int64_t tenths = (time + kMillisecond / 10 - 1) / (kMillisecond / 10);
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " ms";
  }

  DmxLosses fields;
  std::vector<std::uint64_t> frame_of;  // of the last ArtDmx, by port-address
  std::uint64_t unseen = 0;
  std::uint64_t moved = 0;
  std::uint64_t late_universes = 0;
  std::uint64_t out_of_reach = 0;
  std::uint64_t without_slots = 0;
  std::int64_t longest_move = 0;  // ns
};

/// What to do about a recording that lasts too long, mostly for a pause that is damaged.
CueError too_long(const RecordingInfo& info, const std::string& why) {
  return CueError{info.file + ": lasts " + format_time(info.duration) + ", " + why +
                  "; kadrel-cue info shows its pauses, and kadrel-cue cut takes a part"};
}

FseqHeader header_of(const RecordingInfo& info, const FseqOptions& options) {
  const std::int64_t step = options.step * kMillisecond;
  const std::int64_t frames = info.duration / step + (info.duration % step > 0 ? 1 : 0) + 1;
  if (frames > std::numeric_limits<std::uint32_t>::max())
    throw too_long(info,
                   "longer than an FSEQ file with a step of " + std::to_string(options.step) + " ms can be");
  FseqHeader header;
  header.version = options.version;
  header.step = static_cast<std::uint8_t>(options.step);
  header.frames = static_cast<std::uint32_t>(frames);
  header.ranges = ranges_of(info.universes, options.version);
  if (header.ranges.empty()) throw CueError(info.file + ": holds no universe that an FSEQ file can hold");
  merge_ranges(header.ranges, options.version == 1 ? 1 : kFseqMostRanges);
  // A frame of version 1 begins with channel 0.
  if (options.version == 1) header.ranges = {{0, static_cast<std::uint32_t>(header.ranges.front().end())}};
  header.channels = static_cast<std::uint32_t>(sum_of(header.ranges));
  header.identifier = static_cast<std::uint64_t>(kesto::wall_time() / 1000);  // us
  return header;
}

/// A file that cannot get onto the disk is not begun: a single pause of years would fill it. @throws CueError
void check_room(const AtomicFile& file, const FseqHeader& header, const RecordingInfo& info) {
  constexpr std::uint64_t kMegabyte = 1'000'000;
  const std::uint64_t size = std::uint64_t{header.frames} * header.channels;
  const std::optional<std::uint64_t> room = file.room();
  if (room && size > *room)
    throw too_long(info, "which makes an FSEQ file of " + std::to_string(size / kMegabyte) + " MB, and " +
                             std::to_string(*room / kMegabyte) + " MB are free");
}

std::uint64_t channels_with_levels(const RecordingInfo& info, int version) {
  return sum_of(ranges_of(info.universes, version));
}

}  // namespace

ExportedFseq export_fseq(const Input& input, const Output& output, const FseqOptions& options,
                         const OnDamage& on_damage) {
  Input file = input;
  file.keep();
  const RecordingInfo info = read_info(file, on_damage);
  FseqHeader header = header_of(info, options);
  Frame frame(info.universes, header.ranges);
  // One range from channel 0 on needs no table.
  if (header.ranges.size() == 1 && header.ranges.front().first == 0) header.ranges.clear();

  AtomicFile sequence(output, {file});
  check_room(sequence, header, info);
  const std::vector<std::uint8_t> head = encode_fseq_header(header);
  sequence.write(head.data(), head.size());
  FseqLosses losses;
  std::uint64_t written = 0;
  const auto write_frame = [&] {
    if (written == header.frames) throw CueError(info.file + ": was changed while it was read");
    sequence.write(frame.bytes().data(), frame.bytes().size());
    ++written;
  };
  // The first pass has told of the damage.
  GoodRecords reader(file, on_damage ? [](const auto&, const auto&) {} : OnDamage());
  Record record;
  while (reader.next(record)) {
    std::int64_t shown = static_cast<std::int64_t>(written) * options.step * kMillisecond;
    for (; shown < record.time; shown += options.step * kMillisecond) write_frame();
    losses.add(record, written, shown - record.time);
    for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
      if (!frame.take(record.data, packet)) losses.add_missing(packet);
    });
  }
  write_frame();
  if (written != header.frames) throw CueError(info.file + ": was changed while it was read");
  sequence.commit();
  const std::uint64_t filled = header.channels - channels_with_levels(info, options.version);
  return {header.frames, header.channels, losses.texts(info.universes, filled)};
}

}  // namespace cue
