#pragma once

#include <QString>
#include <algorithm>
#include <string>
#include <unordered_set>
#include <vector>

/// Summary of a finished recording.
struct GrabSummary {
  QString file_name;
  bool empty = true;                     // the file had size 0
  qint32 universe_ceiling = -1;          // highest port-address recorded, -1: none
  std::unordered_set<qint32> universes;  // 0-based port-addresses
};

/// JSON text of a summary; the file name (local 8-bit encoding) is not escaped.
std::string grab_report(const GrabSummary& summary);

/// What a recording misses.
struct GrabLosses {
  quint64 kernel = 0;  // datagrams of any kind that the kernel dropped: the receive buffer was full
  quint64 writer = 0;  // datagrams that the file did not take
  qint64 began = 0;    // ns from the first datagram to the first loss

  bool any() const { return kernel > 0 || writer > 0; }
  /// @param when  ns from the first datagram; negative, as 0: the stamps are not in order
  void note(quint64 from_kernel, quint64 from_writer, qint64 when) {
    if (!any() || when < began) began = std::max<qint64>(when, 0);
    kernel += from_kernel;
    writer += from_writer;
  }
};

/// A universe, and how many records were kept when its first one was, itself included.
struct FirstRecord {
  qint32 universe;
  qint64 number;
};

/// The figures of a recording, without dropped datagrams.
struct GrabFigures {
  qint64 packet_count = 0;
  qint32 universe_ceiling = -1;
  std::unordered_set<qint32> universes;
  std::vector<FirstRecord> first_records;  // one for each of them
  qint64 length = 0;                       // ns from the first datagram to the last one kept
  quint64 dropped = 0;                     // datagrams since the file took the last one
  bool waits = false;                      // the log has told that the file takes no data, and nothing since
  GrabLosses losses;
};

/// What a file held when it was closed.
struct ClosedFile {
  QString name;
  bool empty = true;
  quint64 given_up = 0;        // records of the recording's end that it did not take
  qint64 given_up_pauses = 0;  // ns, before all of them but the first
};

/// A recording that is complete in its file.
struct ConcludedGrab {
  GrabSummary summary;
  qint64 datagrams = 0;
  qint64 length = 0;              // ns from the first of them to the last
  quint64 dropped_at_end = 0;     // datagrams
  bool recovered_at_end = false;  // the file took all that had waited
  GrabLosses losses;
};

/// Sums a recording up: counts only what is in the file.
ConcludedGrab conclude(GrabFigures figures, const ClosedFile& file);
