#include "cue/Edit.h"

#include "cue/RecordingWriter.h"
#include "cue/Time.h"
#include "kesto/delay.h"

namespace cue {
namespace {

constexpr int kFullRate = 44;  // frames per second of a full DMX universe (ANSI E1.11)

}  // namespace

std::int64_t default_gap() {
  return kesto::calculate_delay(kFullRate).count();
}

Written cut(const Input& file, const Selection& selection, const Output& output, const OnDamage& on_damage) {
  GoodRecords reader(file, on_damage);
  RecordingWriter writer(output, {file});
  Selector selector(selection);
  Record record;
  std::int64_t first = 0;
  std::int64_t last = 0;
  while (reader.next(record) && !selection.is_past(record.time)) {
    const auto picked = selector.pick(record);
    if (!picked) continue;
    if (writer.datagrams() == 0) first = last = record.time;
    writer.add(picked->data, picked->size, record.time - last);
    last = record.time;
  }
  writer.commit();
  return {writer.datagrams(), last - first};
}

Written join(const JoinOptions& options) {
  RecordingWriter writer(options.output, options.files);
  Selector selector(options.selection);
  std::int64_t now = 0;   // in the joined recording
  std::int64_t last = 0;  // time of its last datagram
  for (const Input& file : options.files) {
    GoodRecords reader(file, options.on_damage);
    const std::int64_t began = writer.datagrams() == 0 ? 0 : add_times(last, options.gap);
    std::int64_t first = -1;
    Record record;
    while (reader.next(record)) {
      const auto picked = selector.pick_universes(record.data, record.size);
      if (!picked) continue;
      if (first == -1) first = record.time;
      now = add_times(began, record.time - first);
      writer.add(picked->data, picked->size, now - last);
      last = now;
    }
  }
  writer.commit();
  return {writer.datagrams(), last};
}

}  // namespace cue
