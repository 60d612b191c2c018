#pragma once

#include <QtGlobal>
#include <bitset>
#include <memory>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "src/ControlUniverse.h"
#include "src/Datagram.h"
#include "src/GrabSummary.h"
#include "src/RecordingFile.h"

/// A universe, and how many records were kept when its first one was, itself included.
struct FirstRecord {
  qint32 universe;
  qint32 number;
};

/// A recording that has ended. It takes no more datagrams, but the last ones may not be in the file yet.
struct EndedGrab {
  std::unique_ptr<RecordingFile> file;
  qint32 packet_count = 0;
  qint32 universe_ceiling = -1;
  std::unordered_set<qint32> universes;
  std::vector<FirstRecord> first_records;  // one for each of them
  quint64 dropped = 0;                     // datagrams since the file took the last one

  /// Writes the rest into the file and closes it; datagrams that the file does not take count as dropped. May
  /// wait for the disk: never call it with state_lock held.
  GrabSummary conclude();

private:
  /// The file holds only the first @p count records.
  void forget_records_after(qint64 count);
};

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
    bool dropping_began = false;  // the first that the file did not take
    quint64 dropped = 0;          // recorded, after so many that the file did not take
  };

  bool is_off() const { return grab_state == Off; }

  /// "off", "on" or "run".
  const char* status() const;

  /// Records into @p opened from now on. Only while off.
  /// @param by_record_channel  wait for the record channel to be on
  void arm(std::unique_ptr<RecordingFile> opened, bool by_record_channel);

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
  Verdict end_datagram(const Datagram& datagram, bool good) {
    Verdict verdict;
    if (good && record_current) record(datagram, verdict);
    verdict.ended = grab_state == StopPending;
    return verdict;
  }

  /// Ends the recording, whatever its state. Only while not off.
  void finalize_grabbing();

  /// Hands out the recording that has ended and is not concluded yet, if there is one.
  std::optional<EndedGrab> take_ended_grab() { return std::exchange(ended_grab, std::nullopt); }

private:
  friend class DumpProbe;
  friend class RecorderProbe;

  /// Writes the current datagram into the file, or drops it.
  void record(const Datagram& datagram, Verdict& verdict);

  qint32 grab_state = Off;
  std::unique_ptr<RecordingFile> file;  // while not off
  std::optional<EndedGrab> ended_grab;  // never two: the main thread takes it before it arms
  bool record_current = false;          // the current datagram is to be recorded
  qint32 current_universe = -1;         // 0-based port-address of the last ArtDmx taken in

  // About the current recording, without dropped datagrams.
  qint64 prev_rx_time = 0;  // ns on kesto::Clock; kept from one recording to the next
  qint32 grab_packet_count = 0;
  qint32 grab_max_universe = -1;
  std::unordered_set<qint32> grab_universes;  // 0-based port-addresses
  std::bitset<65536> grab_universe_noted;     // the same set, for a quick look
  std::vector<FirstRecord> first_records;     // one for each of them
  quint64 dropped = 0;                        // datagrams since the file took the last one
};
