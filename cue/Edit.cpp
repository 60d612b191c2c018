#include "cue/Edit.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/Looks.h"
#include "cue/RecordingWriter.h"
#include "cue/Time.h"
#include "kesto/delay.h"

namespace cue {
namespace {

constexpr int kFullRate = 44;  // frames per second of a full DMX universe (ANSI E1.11)

/// Looks that are due one after the other.
class DueLooks {
public:
  /// @param begin, span  ns: they are due from the one on, all within the other
  DueLooks(const Looks& looks, std::int64_t begin, std::int64_t span) {
    const auto count = static_cast<std::int64_t>(looks.all().size());
    std::int64_t at = 0;
    for (const auto& [port_address, packet] : looks.all())
      due.push_back({port_address, add_times(begin, span * at++ / count), packet});
  }

  /// Hands over the looks that are due until @p time, as write(bytes, time).
  template <typename Write>
  void write_until(std::int64_t time, Write&& write) {
    for (; next < due.size() && due[next].time <= time; ++next) {
      const Due& look = due[next];
      if (!look.late) write(Bytes{look.packet.data(), look.packet.size()}, look.time);
    }
  }

  /// Leaves out the looks of the universes of a datagram.
  void leave_out(const Bytes& datagram) {
    if (next == due.size()) return;
    for_each_dmx(datagram.data, datagram.size, [this](const DmxPacket& packet) {
      const auto found =
          std::lower_bound(due.begin(), due.end(), packet.port_address,
                           [](const Due& look, std::uint16_t wanted) { return look.port_address < wanted; });
      if (found != due.end() && found->port_address == packet.port_address) found->late = true;
    });
  }

private:
  struct Due {
    std::uint16_t port_address = 0;
    std::int64_t time = 0;  // ns
    std::vector<std::uint8_t> packet;
    bool late = false;  // its universe has come again
  };
  std::vector<Due> due;  // by port-address, and so by time
  std::size_t next = 0;
};

/// Writes datagrams and the looks due between them, all with their times.
class Timeline {
public:
  explicit Timeline(const EditOptions& wanted, const std::vector<Input>& inputs)
      : writer(wanted.output, inputs), renumber(wanted.renumber) {}

  /// From now on the looks are due among the datagrams.
  void begin_with(const Looks& looks, std::int64_t begin, std::int64_t span) {
    due.emplace(looks, begin, span);
  }

  void add(const Bytes& datagram, std::int64_t time) {
    if (due) {
      write_looks_until(time - 1);
      due->leave_out(datagram);
      write_looks_until(time);
    }
    write(datagram, time);
  }

  /// Writes the looks that are still due.
  void finish_looks() {
    if (due) write_looks_until(std::numeric_limits<std::int64_t>::max());
    due.reset();
  }

  Written commit() {
    writer.commit();
    return {writer.datagrams(), last - first};
  }

  bool empty() const { return writer.datagrams() == 0; }

  /// Time of the last datagram.
  std::int64_t end() const { return last; }

private:
  void write_looks_until(std::int64_t time) {
    due->write_until(time, [this](const Bytes& look, std::int64_t at) { write(look, at); });
  }

  void write(Bytes datagram, std::int64_t time) {
    if (empty()) first = last = time;
    if (renumber) {
      renumbered.assign(datagram.data, datagram.data + datagram.size);
      numbers.number(renumbered.data(), renumbered.size());
      datagram.data = renumbered.data();
    }
    writer.add(datagram.data, datagram.size, time - last);
    last = time;
  }

  RecordingWriter writer;
  bool renumber;
  SequenceNumbers numbers;
  std::vector<std::uint8_t> renumbered;
  std::optional<DueLooks> due;
  std::int64_t first = 0;
  std::int64_t last = 0;
};

}  // namespace

std::int64_t default_gap() {
  return kesto::calculate_delay(kFullRate).count();
}

Written cut(const CutOptions& options) {
  const Selection& selection = options.selection;
  Timeline timeline(options, {options.file});
  GoodRecords reader(options.file, options.on_damage);
  Selector selector(selection);
  const std::int64_t span =
      selection.stop ? std::min(*selection.stop - selection.start, default_gap()) : default_gap();
  Looks looks;
  bool begun = false;
  std::optional<std::int64_t> last;
  bool past = false;
  Record record;
  while (reader.next(record)) {
    const bool before = record.time < selection.start;
    past = selection.is_past(record.time);
    if (!past) last = record.time;
    if (before && !options.look) continue;
    if (!before && !std::exchange(begun, true) && span > 0) timeline.begin_with(looks, selection.start, span);
    if (past) break;
    const auto picked = selector.pick_universes(record.data, record.size);
    if (!picked) continue;
    if (before)
      looks.take(*picked);
    else
      timeline.add(*picked, record.time);
  }
  timeline.finish_looks();
  if (timeline.empty())
    throw CueError(options.file.name() + ": nothing to cut: " + why_nothing(selection, last, past));
  return timeline.commit();
}

Written join(const JoinOptions& options) {
  Timeline timeline(options, options.files);
  Selector selector(options.selection);
  Looks looks;
  for (const Input& file : options.files) {
    const bool has_successor = &file != &options.files.back();
    GoodRecords reader(file, options.on_damage);
    const std::int64_t began = timeline.empty() ? 0 : add_times(timeline.end(), options.gap);
    std::int64_t first = -1;
    Record record;
    while (reader.next(record)) {
      const auto picked = selector.pick_universes(record.data, record.size);
      if (!picked) continue;
      if (first == -1) {
        first = record.time;
        timeline.begin_with(looks, began, default_gap());
      }
      timeline.add(*picked, add_times(began, record.time - first));
      if (options.look && has_successor) looks.take(*picked);
    }
    timeline.finish_looks();
  }
  if (timeline.empty())
    throw CueError(std::string("nothing to join: none of the recordings holds a ") +
                   (options.selection.only ? "wanted universe" : "datagram"));
  return timeline.commit();
}

}  // namespace cue
