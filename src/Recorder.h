#pragma once

#include <QtGlobal>
#include <bitset>
#include <cstdint>
#include <unordered_set>
#include <vector>

#include "kesto/udpsocket.h"
#include "src/ControlUniverse.h"
#include "src/GrabSummary.h"
#include "src/GrabWriter.h"

/// The grabber: decides which datagrams are recorded, and keeps the figures of the recording.
///
/// No lock of its own: GuardedState guards it. The main thread arms and stops, the receive thread judges and
/// records.
class Recorder {
public:
  enum GrabState : qint32 { Off = 0, Armed = 1, StartPending = 2, Running = 3, StopPending = 4 };

  /// Outcome of one datagram.
  struct Verdict {
    bool recorded = false;
    bool started = false;         // first datagram of its recording
    bool ended = false;           // its record channel ends the recording: finalize_grabbing() is due
    int file_error = 0;           // errno: the first that waits for a file which cannot be written
    bool dropping_began = false;  // the first for which there was no memory left
    bool file_recovered = false;  // recorded, and the first since either that the file takes
    quint64 dropped = 0;          // datagrams between, with file_recovered
  };

  /// @param files  outlives the recorder
  explicit Recorder(GrabWriter& files) : writer(files) {}

  bool is_off() const { return grab_state == Off; }

  /// "off", "on" or "run".
  const char* status() const;

  /// The recording so far.
  struct Progress {
    GrabState state = Off;
    qint64 datagrams = 0;
    std::size_t universes = 0;
    quint64 lost = 0;      // datagrams, as far as it is known
    bool refuses = false;  // the file takes no data, and the log has been told
  };
  Progress progress() const {
    return {static_cast<GrabState>(grab_state), recorded, first_records.size(), losses.kernel + losses.writer,
            outage != Outage::None};
  }

  /// Records from now on, into the file that the writer has begun. Only while off.
  /// @param by_record_channel  wait for the record channel to be on
  void arm(bool by_record_channel) { grab_state = by_record_channel ? Armed : StartPending; }

  /// A new datagram: nothing of it is marked for recording yet.
  void begin_datagram() { record_current = false; }

  /// Takes in one ArtDmx of the current datagram. Only while not off. The last of several decides.
  void trigger_dmx_grab(const ArtDmx& dmx, ControlUniverse::RecordLevel level) {
    current_universe = dmx.universe;
    if (grab_state == Armed) {
      if (level == ControlUniverse::RecordLevel::On) {
        record_current = false;
        grab_state = StartPending;
      }
      return;
    }
    record_current = level != ControlUniverse::RecordLevel::Off;
    if (!record_current) grab_state = StopPending;
  }

  /// The current datagram has been parsed. @param good  without an error; otherwise it is not recorded
  Verdict end_datagram(const kesto::net::Datagram& datagram, bool good) {
    Verdict verdict;
    if (datagram.kernel_drops != kernel_drops) note_kernel_drops(datagram.kernel_drops, datagram.rx_time);
    if (good && record_current) record(datagram, verdict);
    verdict.ended = grab_state == StopPending;
    return verdict;
  }

  /// More datagrams that the kernel dropped, besides those that a datagram has told of.
  /// @param drops  as kesto::net::Datagram counts them
  /// @param time  ns on kesto::Clock
  void note_kernel_drops(std::uint32_t drops, qint64 time);

  /// Ends the recording, whatever its state, and leaves the rest to the writer. Only while not off.
  void finalize_grabbing();

private:
  friend class DumpProbe;
  friend class RecorderProbe;

  /// What the log has been told about the file.
  enum class Outage { None, Waiting, Dropping };

  /// Hands the current datagram to the writer, or drops it.
  void record(const kesto::net::Datagram& datagram, Verdict& verdict);
  void note_outage(GrabWriter::Appended appended, Verdict& verdict);

  GrabWriter& writer;
  qint32 grab_state = Off;
  bool record_current = false;   // the current datagram is to be recorded
  qint32 current_universe = -1;  // 0-based port-address of the last ArtDmx taken in

  // About the current recording, without dropped datagrams.
  qint64 prev_rx_time = 0;       // the latest, ns on kesto::Clock; kept from one recording to the next
  qint32 grab_packet_count = 0;  // stays at its largest value
  qint64 recorded = 0;           // the same beyond it
  qint32 grab_max_universe = -1;
  std::unordered_set<qint32> grab_universes;  // 0-based port-addresses
  std::bitset<65536> grab_universe_noted;     // the same set, for a quick look
  std::vector<FirstRecord> first_records;     // one for each of them

  // What it misses.
  Outage outage = Outage::None;
  quint64 dropped = 0;  // datagrams since the file took the last one
  GrabLosses losses;
  bool begun = false;              // it has seen its first datagram
  qint64 first_rx_time = 0;        // of that, ns on kesto::Clock
  std::uint32_t kernel_drops = 0;  // as the last datagram told
};
