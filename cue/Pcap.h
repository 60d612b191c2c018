#pragma once

#include <cstdint>
#include <string>

#include "cue/AtomicFile.h"
#include "cue/GoodRecords.h"
#include "cue/Input.h"

namespace cue {

/// Writes a recording as a capture of Ethernet frames (pcap, times in ns). A recording knows no
/// addresses, so every frame goes from 2.0.0.1 to 2.255.255.255, port 6454; the first has the time 0.
/// @return number of datagrams
/// @throws CueError when the recording is damaged or longer than a capture can express, or a file cannot be
/// read or written
std::uint64_t export_pcap(const Input& file, const Output& output, const OnDamage& on_damage = {});

/// Outcome of an import.
struct Imported {
  std::uint64_t datagrams = 0;
  std::int64_t duration = 0;  // ns
  std::uint64_t refused = 0;  // datagrams that the recorder would not write
  std::uint64_t fragments = 0;
  std::uint64_t cut_off = 0;  // datagrams of which the capture has only the beginning
  std::string error;          // libpcap's words when the capture breaks off; else empty
};

/// Writes the Art-Net of a capture (pcap or pcapng) as a recording: the UDP datagrams to @p port that the
/// recorder would write. Of a capture that breaks off, the good part is written.
/// @throws CueError
Imported import_pcap(const Input& input, int port, const Output& output);

}  // namespace cue
