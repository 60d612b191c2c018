#pragma once

#include <string>
#include <vector>

#include "cue/ForeignReader.h"
#include "unit/cue/recordings.h"

namespace unit {

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
