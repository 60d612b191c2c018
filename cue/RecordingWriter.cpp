#include "cue/RecordingWriter.h"

#include "artnet/ArtNetPackets.h"

namespace cue {

void RecordingWriter::add(const std::uint8_t* datagram, std::size_t size, std::int64_t pause) {
  if (count++ > 0) {
    const ArtOemVfpsNs delay = make_delay_record(pause);
    file.write(&delay, sizeof delay);
  }
  file.write(datagram, size);
}

}  // namespace cue
