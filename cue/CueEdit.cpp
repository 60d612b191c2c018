#include "cue/CueEdit.h"

#include <ostream>

#include "cue/CueError.h"
#include "cue/CueInfo.h"
#include "cue/RecordingReader.h"
#include "cue/RecordingWriter.h"
#include "kesto/delay.h"

namespace cue {
namespace {

constexpr int kFullRate = 44;  // frames per second of a full DMX universe (ANSI E1.11)

/// Throws when reading ended at a damage.
void expect_whole(const RecordingReader& reader) {
  if (reader.damage()) throw CueError(damage_text(reader.name(), *reader.damage()));
}

void report(std::ostream& out, const std::string& output, const RecordingWriter& writer,
            std::int64_t duration) {
  out << output << ": " << writer.datagrams() << (writer.datagrams() == 1 ? " datagram, " : " datagrams, ")
      << format_time(duration) << "\n";
}

}  // namespace

std::int64_t default_gap() {
  return kesto::calculate_delay(kFullRate).count();
}

int run_cut(const std::string& file, const Selection& selection, const std::string& output,
            std::ostream& out) {
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
  report(out, output, writer, last - first);
  return 0;
}

int run_join(const JoinOptions& options, std::ostream& out) {
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
  report(out, options.output, writer, last);
  return 0;
}

}  // namespace cue
