#pragma once

#include <string>
#include <vector>

#include "cue/AtomicFile.h"
#include "cue/ForeignReader.h"
#include "unit/cue/recordings.h"

namespace unit {

/// An output that may exist.
inline cue::Output replaced(const std::string& path) {
  cue::Output output(path);
  output.replace = true;
  return output;
}

/// An ArtDmx as players number it.
inline std::string numbered_dmx(const std::string& slots, unsigned port_address, unsigned sequence) {
  std::string bytes = packets::dmx(slots, port_address);
  bytes[12] = static_cast<char>(sequence);
  bytes[13] = 0;
  return bytes;
}

/// Everything that a reader of a foreign format delivers.
struct Foreign {
  std::vector<recordings::Datagram> datagrams;  // with the pause before each; the first with its time
  std::string breaks_off;
  std::vector<std::string> losses;

  std::string recording() const { return recordings::file_of(datagrams); }
};

inline Foreign read_all(cue::ForeignReader& reader) {
  Foreign found;
  cue::ForeignDatagram datagram;
  std::int64_t before = 0;
  while (reader.next(datagram)) {
    found.datagrams.emplace_back(std::string(reinterpret_cast<const char*>(datagram.data), datagram.size),
                                 datagram.time - before);
    before = datagram.time;
  }
  found.breaks_off = reader.breaks_off();
  found.losses = reader.losses();
  return found;
}

}  // namespace unit
