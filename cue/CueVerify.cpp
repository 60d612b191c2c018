#include "cue/CueVerify.h"

#include <memory>
#include <ostream>

#include "cue/Arguments.h"
#include "cue/CueError.h"
#include "cue/CueInfo.h"
#include "cue/DatagramWalk.h"
#include "cue/RecordingReader.h"
#include "cue/RecordingWriter.h"
#include "cue/Selection.h"

namespace cue {
namespace {

std::string counted(std::uint64_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/// What is left of a datagram with a delay record in it, when that is the trace of a damage: the bytes before
/// the record, or, where they are no datagram, those behind it.
Bytes good_part(const Record& record, std::size_t delay_at) {
  if (shape_of(record.data, delay_at).recordable()) return {record.data, delay_at};
  const std::size_t behind = delay_at + kDelaySize;
  if (shape_of(record.data + behind, record.size - behind).recordable())
    return {record.data + behind, record.size - behind};
  return {record.data, record.size};
}

class Verifier {
public:
  Verifier(const VerifyOptions& wanted, const std::string& path, std::ostream& out_stream,
           std::ostream& err_stream)
      : options(wanted), reader(path), out(out_stream), err(err_stream) {
    if (!options.repaired.empty())
      writer = std::make_unique<RecordingWriter>(options.repaired, std::vector<std::string>{path});
  }

  /// @return whether the file is whole
  bool run() {
    read();
    bool whole = !damaged;
    while (reader.damage()) {
      report(*reader.damage());
      whole = false;
      if (!reader.resume()) break;
      resumed = true;
      read();
    }
    whole = whole && !damaged;
    if (whole) report_whole();
    if (resumed)
      err << "kadrel-cue: " << reader.name() << ": " << counted(datagrams, "datagram")
          << " in all are good\n";
    if (writer) {
      writer->commit();
      out << options.repaired << ": " << counted(writer->datagrams(), "datagram") << ", "
          << format_time(written_until) << "\n";
    }
    return whole;
  }

private:
  void read() {
    Record record;
    while (reader.next(record)) {
      ++datagrams;
      last_time = record.time;
      Bytes good{record.data, record.size};
      if (const auto delay = reader.delay_within()) {
        damaged = true;
        good = good_part(record, static_cast<std::size_t>(*delay - record.offset));
        err << "kadrel-cue: " << reader.name() << ": byte " << *delay
            << ": a delay record without a datagram of its own; the file is damaged here, or the bytes were "
               "sent "
               "like this\n";
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
      err << "kadrel-cue: " << reader.name() << ": byte " << record.offset
          << ": the datagram is more than one ArtDmx packet\n";
    }
  }

  void write(const Bytes& datagram, std::int64_t time) {
    if (!writer) return;
    writer->add(datagram.data, datagram.size, time - written_until);
    written_until = time;
  }

  void report(const Damage& damage) {
    err << "kadrel-cue: " << damage_text(reader.name(), damage);
    if (!resumed)
      err << "; good are the first " << counted(damage.good_end, "byte") << ", "
          << counted(datagrams, "datagram") << ", " << format_time(last_time);
    err << "\n";
  }

  void report_whole() {
    out << reader.name() << ": whole, " << counted(datagrams, "datagram") << ", " << format_time(last_time)
        << "\n";
    if (odd > 0)
      out << reader.name() << ": " << counted(odd, "datagram")
          << " with more than one ArtDmx packet, the first at byte " << first_odd << "\n";
  }

  const VerifyOptions& options;
  RecordingReader reader;
  std::ostream& out;
  std::ostream& err;
  std::unique_ptr<RecordingWriter> writer;
  std::uint64_t datagrams = 0;
  std::uint64_t odd = 0;  // datagrams that are not one ArtDmx alone
  std::uint64_t first_odd = 0;
  std::int64_t last_time = 0;
  std::int64_t written_until = 0;
  bool damaged = false;
  bool resumed = false;
};

}  // namespace

int run_verify(const VerifyOptions& options, std::ostream& out, std::ostream& err) {
  int code = 0;
  for (const std::string& file : options.files) {
    try {
      if (!Verifier(options, file, out, err).run()) code = 1;
    } catch (const CueError& error) {
      err << "kadrel-cue: " << error.what() << "\n";
      code = 1;
    }
  }
  return code;
}

}  // namespace cue
