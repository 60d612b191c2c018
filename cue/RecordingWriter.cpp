#include "cue/RecordingWriter.h"

#include <algorithm>

#include "artnet/ArtNetPackets.h"
#include "artnet/RecordingFormat.h"

namespace cue {

void RecordingWriter::add(const std::uint8_t* datagram, std::size_t size, std::int64_t pause) {
  if (count++ > 0) {
    const ArtOemVfpsNs delay = make_delay_record(std::min(pause, kLongestPause));
    file.write(&delay, sizeof delay);
  }
  file.write(datagram, size);
}

}  // namespace cue
