#include "cue/Verify.h"

#include <memory>

#include "cue/DatagramWalk.h"
#include "cue/RecordingInfo.h"
#include "cue/RecordingReader.h"
#include "cue/RecordingWriter.h"
#include "cue/Selection.h"
#include "cue/Text.h"
#include "cue/Time.h"

namespace cue {
namespace {

/// The good part of a datagram that holds a delay record because of damage: the bytes before the delay record
/// or, if those are no datagram, the bytes after it.
Bytes good_part(const Record& record, std::size_t delay_at) {
  if (shape_of(record.data, delay_at).recordable()) return {record.data, delay_at};
  const std::size_t after = delay_at + kDelaySize;
  if (shape_of(record.data + after, record.size - after).recordable())
    return {record.data + after, record.size - after};
  return {record.data, record.size};
}

class Verifier {
public:
  Verifier(const VerifyOptions& wanted, const Input& input, const VerifyReport& findings)
      : options(wanted), reader(input), report(findings) {
    if (options.repaired)
      writer = std::make_unique<RecordingWriter>(*options.repaired, std::vector<Input>{input});
  }

  /// @return whether the file is whole
  bool run() {
    read();
    bool whole = !damaged;
    while (reader.damage()) {
      tell(*reader.damage());
      whole = false;
      if (!reader.resume()) break;
      resumed = true;
      read();
    }
    whole = whole && !damaged;
    if (whole) tell_whole();
    if (resumed) report.damage(reader.name() + ": " + counted(datagrams, "datagram") + " in all are good");
    if (writer) {
      writer->commit();
      report.good(options.repaired->name() + ": " + counted(writer->datagrams(), "datagram") + ", " +
                  format_time(written_until));
    }
    return whole;
  }

private:
  void read() {
    Record record;
    while (reader.next(record)) {
      ++datagrams;
      last_time = record.time;
      if (options.on_record) options.on_record(record);
      Bytes good{record.data, record.size};
      if (const auto delay = reader.delay_within()) {
        damaged = true;
        good = good_part(record, static_cast<std::size_t>(*delay - record.offset));
        report.damage(at_byte(*delay) +
                      "a delay record without a datagram of its own; the file is damaged here, or the bytes "
                      "were sent like this");
      } else {
        look_at(record);
      }
      write(good, record.time);
    }
  }

  void look_at(const Record& record) {
    const DatagramShape shape = shape_of(record.data, record.size);
    if (shape.dmx_count == 1 && shape.dmx_bytes == record.size) return;
    if (odd++ == 0) first_odd = record.offset;
    if (options.strict) {
      damaged = true;
      report.damage(at_byte(record.offset) + "the datagram is more than one ArtDmx packet");
    }
  }

  void write(const Bytes& datagram, std::int64_t time) {
    if (!writer) return;
    writer->add(datagram.data, datagram.size, time - written_until);
    written_until = time;
  }

  void tell(const Damage& damage) const {
    std::string line = damage_text(reader.name(), damage);
    if (!resumed)
      line += "; good are the first " + counted(damage.good_end, "byte") + ", " +
              counted(datagrams, "datagram") + ", " + format_time(last_time);
    report.damage(line);
  }

  void tell_whole() const {
    report.good(reader.name() + ": whole, " + counted(datagrams, "datagram") + ", " + format_time(last_time));
    if (odd > 0)
      report.good(reader.name() + ": " + counted(odd, "datagram") +
                  " with more than one ArtDmx packet, the first at byte " + std::to_string(first_odd));
  }

  std::string at_byte(std::uint64_t offset) const {
    return reader.name() + ": byte " + std::to_string(offset) + ": ";
  }

  const VerifyOptions& options;
  RecordingReader reader;
  const VerifyReport& report;
  std::unique_ptr<RecordingWriter> writer;
  std::uint64_t datagrams = 0;
  std::uint64_t odd = 0;  // datagrams that are not a single ArtDmx
  std::uint64_t first_odd = 0;
  std::int64_t last_time = 0;
  std::int64_t written_until = 0;
  bool damaged = false;
  bool resumed = false;
};

}  // namespace

bool verify(const Input& file, const VerifyOptions& options, const VerifyReport& report) {
  return Verifier(options, file, report).run();
}

}  // namespace cue
