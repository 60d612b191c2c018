#pragma once

#include <QtGlobal>
#include <bitset>
#include <memory>
#include <optional>
#include <unordered_set>
#include <utility>

#include "src/ControlUniverse.h"
#include "src/Datagram.h"
#include "src/GrabSummary.h"
#include "src/RecordingFile.h"

/// A recording that has ended: no further datagram goes into it, but what was gathered last may not be in the
/// file yet.
struct EndedGrab {
  std::unique_ptr<RecordingFile> file;
  qint32 packet_count = 0;
  qint32 universe_ceiling = -1;
  std::unordered_set<qint32> universes;
  quint64 dropped = 0;  // datagrams since the file took the last one

  /// Brings everything into the file and closes it; what the file does not take counts as dropped. May wait
  /// for the disk: never with state_lock held.
  GrabSummary conclude();
};

/// The grabber: which datagrams are recorded, and what is known of the recording.
///
/// No lock of its own: it is reached through GuardedState. The main thread arms and stops, the receive thread
/// judges and records.
class Recorder {
public:
  enum GrabState : qint32 { Off = 0, Armed = 1, StartPending = 2, Running = 3, StopPending = 4 };

  /// What became of one datagram.
  struct Verdict {
    bool recorded = false;
    bool started = false;  // it is the first of its recording
    bool ended = false;    // the record channel ended the recording with it: finalize_grabbing() is due
    bool dropping_began = false;  // the file did not take it; it is the first
    quint64 dropped = 0;          // it is recorded again, after so many that the file did not take
  };

  bool is_off() const { return grab_state == Off; }

  /// "off", "on" or "run".
  const char* status() const;

  /// Records into @p file from now on. Only while off.
  /// @param by_record_channel  wait until the record channel is on
  void arm(std::unique_ptr<RecordingFile> file, bool by_record_channel);

  /// A new datagram: nothing of it is marked for recording yet.
  void begin_datagram() { record_current = false; }

  /// Takes in one ArtDmx of the current datagram. Only while not off. Of several the last one decides.
  void trigger_dmx_grab(const ArtDmx& dmx, ControlUniverse::RecordLevel level);

  /// The current datagram has been parsed. @param good  without an error: else it is not recorded
  Verdict end_datagram(const Datagram& datagram, bool good);

  /// Ends the recording, whatever its state. Only while not off.
  void finalize_grabbing();

  /// The recording that has ended and is not concluded yet, if there is one.
  std::optional<EndedGrab> take_ended_grab() { return std::exchange(ended_grab, std::nullopt); }

private:
  friend class DumpProbe;

  /// The current datagram goes into the file, or is dropped.
  void record(const Datagram& datagram, Verdict& verdict);

  qint32 grab_state = Off;
  std::unique_ptr<RecordingFile> file;  // while not off
  std::optional<EndedGrab> ended_grab;  // never two: the main thread takes it before it arms
  bool record_current = false;          // the current datagram is to be recorded
  qint32 current_universe = -1;         // 0-based port-address of the ArtDmx that was taken in last

  // Of the current recording; of what is in its file, not of what was dropped.
  qint64 prev_rx_time = 0;  // ns on kesto::Clock; stays from one recording to the next
  qint32 grab_packet_count = 0;
  qint32 grab_max_universe = -1;
  std::unordered_set<qint32> grab_universes;  // 0-based port-addresses
  std::bitset<65536> grab_universe_noted;     // the same set, for a quick look
  quint64 dropped = 0;                        // datagrams since the file took the last one
};
