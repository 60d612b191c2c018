#pragma once

#include <QString>
#include <QtGlobal>
#include <cstddef>
#include <optional>
#include <string>

#include "kesto/delay.h"

/// How the service is, in figures.
struct ServiceStatus {
  enum class Grabber { Off, WaitsForChannel, WaitsForFrame, Records };

  Grabber grabber = Grabber::Off;
  bool has_port = true;             // false: the UDP port could not be bound
  QString file;                     // of the recording, as the client named it
  std::size_t universes = 0;        // in it
  std::optional<qint64> rate;       // datagrams recorded in a second, once known
  bool refuses = false;             // the file takes no data
  quint64 lost = 0;                 // datagrams that the recording misses
  std::optional<std::size_t> late;  // bytes that wait for a disk which takes nothing, of all recordings
};

/// One line of UTF-8 for a person, without control characters whatever the name of the file holds; a long
/// name loses its beginning.
std::string status_text(const ServiceStatus& status);

/// What a person is told while the service ends. @param late  bytes that wait for the disk, 0: none
std::string ending_text(std::size_t late);

/// Datagrams in a second, from the counts of one look and the next.
class RateMeter {
public:
  /// @param recording  its number: another one has a rate of its own
  /// @param datagrams  in it so far
  /// @return nothing at the first look at a recording
  std::optional<qint64> rate(quint64 recording, qint64 datagrams, kesto::Clock::time_point now);

private:
  struct Look {
    quint64 recording;
    qint64 datagrams;
    kesto::Clock::time_point time;
  };
  std::optional<Look> last;
};
