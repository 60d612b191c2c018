#include "cue/Verify.h"

#include <memory>
#include <vector>

#include "artnet/ArtNet.h"
#include "artnet/RecordingFormat.h"
#include "cue/ByteOrder.h"
#include "cue/DatagramBounds.h"
#include "cue/DatagramWalk.h"
#include "cue/RecordingInfo.h"
#include "cue/RecordingReader.h"
#include "cue/RecordingWriter.h"
#include "cue/Selection.h"
#include "cue/Text.h"
#include "cue/Time.h"

namespace cue {
namespace {

/// What is missing across damage by the sequence numbers (Art-Net 4, ArtDmx: 1..255 and then 1 again; 0: the
/// sender does not count).
class MissingAcrossDamage {
public:
  MissingAcrossDamage() : universes(UniverseSet::kPortAddresses) {}

  /// @param packet  an ArtDmx
  /// @param lost    bytes of the file that were lost up to it
  void take(const std::uint8_t* packet, std::uint64_t lost) {
    Universe& universe = universes[low_byte_first(packet + offsetof(ArtDmx, universe))];
    const int number = packet[offsetof(ArtDmx, sequence)];
    if (universe.lost != lost && universe.last != 0 && number != 0) {
      const auto jump = static_cast<std::uint64_t>((number - universe.last - 1 + kNumbers) % kNumbers);
      // What took no bytes was never in the file: another sender's numbers, or a loss on the network.
      if (jump * kDmxHeaderSize <= lost - universe.lost) universe.missing += jump;
    }
    universe.last = number;
    universe.lost = lost;
  }

  /// "3 datagrams of universe 1, 1 datagram of universe 700"; empty when nothing is missing.
  std::string text() const {
    std::string line;
    for (std::size_t port_address = 0; port_address < universes.size(); ++port_address) {
      const std::uint64_t missing = universes[port_address].missing;
      if (missing == 0) continue;
      if (!line.empty()) line += ", ";
      line += counted(missing, "datagram") + " of universe " + std::to_string(port_address + 1);
    }
    return line;
  }

private:
  static constexpr int kNumbers = 255;

  struct Universe {
    int last = 0;            // sequence number; 0: none, or not counted
    std::uint64_t lost = 0;  // up to the last datagram
    std::uint64_t missing = 0;
  };

  std::vector<Universe> universes;  // by port-address
};

class Verifier {
public:
  Verifier(const VerifyOptions& wanted, const Input& input, const VerifyReport& findings)
      : options(wanted), reader(input), report(findings) {
    if (options.repaired)
      writer = std::make_unique<RecordingWriter>(*options.repaired, std::vector<Input>{input});
  }

  Verified run() {
    read();
    while (reader.damage()) {
      tell(*reader.damage());
      ++damages;
      if (!reader.resume()) break;
      resumed = true;
      read();
    }
    const bool whole = damages == 0 && (odd == 0 || !options.strict);
    if (whole) tell_whole();
    tell_others();
    if (resumed || (writer && damages > 0 && datagrams > 0)) tell_lost();
    return {whole, writer && repair()};
  }

private:
  void read() {
    Record record;
    while (reader.next(record)) {
      ++datagrams;
      good_bytes += record.size;
      last_time = record.time;
      if (options.on_record) options.on_record(record);
      if (dmx_size(record.data, record.size) != record.size) {
        take_odd(record);
        continue;
      }
      missing.take(record.data, reader.lost_bytes());
      write({record.data, record.size}, record.time);
    }
  }

  void take_odd(const Record& record) {
    if (odd++ == 0) first_odd = record.offset;
    for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
      missing.take(record.data + packet.offset, reader.lost_bytes());
    });
    if (options.strict && odd <= kMostPlaces)
      report.damage(reader.name() + ": byte " + std::to_string(record.offset) +
                    ": the datagram is more than one ArtDmx packet");
    for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
      write({record.data + packet.offset, packet.end() - packet.offset}, record.time);
    });
  }

  void write(const Bytes& datagram, std::int64_t time) {
    if (!writer) return;
    writer->add(datagram.data, datagram.size, time - written_until);
    written_until = time;
  }

  void tell(const Damage& damage) const {
    if (options.on_damage) options.on_damage(damage);
    if (damages >= kMostPlaces) return;
    std::string line = damage_text(reader.name(), damage);
    if (damages == 0)
      line += "; good are the first " + counted(damage.good_end, "byte") + ", " +
              counted(datagrams, "datagram") + ", " + format_time(last_time);
    report.damage(line);
  }

  /// How many findings have not been told.
  void tell_others() const {
    if (damages > kMostPlaces)
      report.damage(reader.name() + ": and " + counted(damages - kMostPlaces, "damaged place") + " more");
    if (options.strict && odd > kMostPlaces)
      report.damage(reader.name() + ": and " + counted(odd - kMostPlaces, "datagram") +
                    " more with more than one ArtDmx packet");
  }

  void tell_whole() const {
    report.good(reader.name() + ": whole, " + counted(datagrams, "datagram") + ", " + format_time(last_time));
    if (odd > 0)
      report.good(reader.name() + ": " + counted(odd, "datagram") +
                  " with more than one ArtDmx packet, the first at byte " + std::to_string(first_odd));
  }

  void tell_lost() const {
    report.damage(reader.name() + ": " + counted(damages, "damaged place") +
                  ", good in all: " + counted(datagrams, "datagram"));
    const std::uint64_t lost = reader.lost_bytes();
    if (lost == 0) {
      report.damage(reader.name() + ": nothing is lost but pauses");
      return;
    }
    const std::uint64_t record = good_bytes / datagrams + kDelaySize;
    const std::uint64_t about = (lost + record / 2) / record;
    report.damage(reader.name() + ": lost: " + counted(lost, "byte") + ", " +
                  (about == 0 ? "less than a datagram" : "the size of about " + counted(about, "datagram")));
    const std::string by_number = missing.text();
    if (!by_number.empty()) report.damage(reader.name() + ": lost by sequence number: " + by_number);
  }

  /// Puts the repaired file in its place. @return false when there is nothing good to write
  bool repair() {
    if (damages > 0 && datagrams == 0) {
      report.damage(reader.name() + ": nothing good in it; " + options.repaired->name() + " is not written");
      return false;
    }
    writer->commit();
    report.good(options.repaired->name() + ": " + (damages > 0 ? "repaired, " : "") +
                counted(writer->datagrams(), "datagram") + ", " + format_time(written_until));
    return true;
  }

  const VerifyOptions& options;
  RecordingReader reader;
  const VerifyReport& report;
  std::unique_ptr<RecordingWriter> writer;
  MissingAcrossDamage missing;
  std::uint64_t datagrams = 0;
  std::uint64_t good_bytes = 0;
  std::uint64_t damages = 0;
  bool resumed = false;   // good records follow the damage
  std::uint64_t odd = 0;  // datagrams that are not a single ArtDmx
  std::uint64_t first_odd = 0;
  std::int64_t last_time = 0;
  std::int64_t written_until = 0;
};

}  // namespace

Verified verify(const Input& file, const VerifyOptions& options, const VerifyReport& report) {
  return Verifier(options, file, report).run();
}

}  // namespace cue
