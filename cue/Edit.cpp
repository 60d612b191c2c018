#include "cue/Edit.h"

#include "cue/CueError.h"
#include "cue/RecordingInfo.h"
#include "cue/RecordingReader.h"
#include "cue/RecordingWriter.h"
#include "cue/Time.h"
#include "kesto/delay.h"

namespace cue {
namespace {

constexpr int kFullRate = 44;  // frames per second of a full DMX universe (ANSI E1.11)

/// @throws CueError when reading ended at damage
void expect_whole(const RecordingReader& reader) {
  if (reader.damage()) throw CueError(damage_text(reader.name(), *reader.damage()));
}

}  // namespace

std::int64_t default_gap() {
  return kesto::calculate_delay(kFullRate).count();
}

Written cut(const std::string& file, const Selection& selection, const std::string& output) {
  RecordingReader reader(file);
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
  expect_whole(reader);
  writer.commit();
  return {writer.datagrams(), last - first};
}

Written join(const JoinOptions& options) {
  RecordingWriter writer(options.output, options.files);
  Selector selector(options.selection);
  std::int64_t now = 0;   // in the joined recording
  std::int64_t last = 0;  // time of its last datagram
  for (const std::string& file : options.files) {
    RecordingReader reader(file);
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
    expect_whole(reader);
  }
  writer.commit();
  return {writer.datagrams(), last};
}

}  // namespace cue
