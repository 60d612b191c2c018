#include "tools/LevelWatch.h"

#include <algorithm>

#include "artnet/RecordingFormat.h"
#include "cue/DatagramWalk.h"
#include "cue/Time.h"

namespace kadrel_cue {
namespace {

// The service writes what has waited for a second; the rest is for a busy machine.
constexpr auto kLatest = std::chrono::milliseconds(1500);

}  // namespace

bool LevelWatch::add(const cue::Record& record) {
  bool changed = false;
  cue::for_each_dmx(record.data, record.size, [&](const cue::DmxPacket& packet) {
    const std::uint8_t* const slots = record.data + packet.offset + kDmxHeaderSize;
    if (take(packet.port_address, slots, packet.slots)) changed = true;
  });
  return changed;
}

bool LevelWatch::take(std::uint16_t port_address, const std::uint8_t* slots, std::size_t count) {
  std::int32_t& place = places[port_address];
  if (place == kNone) {
    place = static_cast<std::int32_t>(levels.size());
    levels.emplace_back();
    met.insert(port_address);
  }
  std::vector<std::uint8_t>& known = levels[static_cast<std::size_t>(place)];
  const std::size_t both = std::min(known.size(), count);
  const bool changed = !std::equal(slots, slots + both, known.begin());
  std::copy(slots, slots + both, known.begin());
  known.insert(known.end(), slots + both, slots + count);
  return changed;
}

void RateMeter::add(std::int64_t time) {
  // A pause of more than a second is none of a rate.
  if (time - begin >= cue::kSecond) {
    latest = time - begin < 2 * cue::kSecond ? counted : 0;
    begin = time;
    counted = 0;
  }
  ++counted;
}

bool Silence::lasts(std::int64_t limit, Clock::time_point now) const {
  if (!growth) return false;
  return so_far() >= limit || now - *growth >= std::chrono::nanoseconds(limit) + kLatest;
}

}  // namespace kadrel_cue
