#include "cue/Selection.h"

#include <numeric>
#include <utility>

#include "cue/DatagramWalk.h"
#include "cue/Time.h"

namespace cue {
namespace {

constexpr std::size_t kAddressOffset = offsetof(ArtDmx, universe);

}  // namespace

Selector::Selector(Selection wanted) : selection(std::move(wanted)) {
  if (selection.changes.empty()) return;
  new_address.resize(UniverseSet::kPortAddresses);
  std::iota(new_address.begin(), new_address.end(), std::uint16_t{0});
  for (const auto& [from, to] : selection.changes) new_address[from] = to;
}

std::optional<Bytes> Selector::pick(const Record& record) {
  if (record.time < selection.start || selection.is_past(record.time)) return std::nullopt;
  return pick_universes(record.data, record.size);
}

std::optional<Bytes> Selector::pick_universes(const std::uint8_t* data, std::size_t size) {
  std::optional<Bytes> picked = Bytes{data, size};
  if (selection.only) picked = wanted_packets(data, size);
  if (!picked || new_address.empty()) return picked;
  if (picked->data == data) {
    changed.assign(data, data + size);
    picked = Bytes{changed.data(), changed.size()};
  }
  for_each_dmx(changed.data(), changed.size(), [this](const DmxPacket& packet) {
    const std::uint16_t address = new_address[packet.port_address];
    changed[packet.offset + kAddressOffset] = static_cast<std::uint8_t>(address);
    changed[packet.offset + kAddressOffset + 1] = static_cast<std::uint8_t>(address >> 8);
  });
  return picked;
}

std::optional<Bytes> Selector::wanted_packets(const std::uint8_t* data, std::size_t size) {
  bool all = true;
  changed.clear();
  for_each_dmx(data, size, [&](const DmxPacket& packet) {
    if (selection.only->holds(packet.port_address))
      changed.insert(changed.end(), data + packet.offset, data + packet.end());
    else
      all = false;
  });
  if (changed.empty()) return std::nullopt;
  if (all) return Bytes{data, size};
  return Bytes{changed.data(), changed.size()};
}

std::string why_nothing(const Selection& selection, std::optional<std::int64_t> last, bool goes_on) {
  if (!last && !goes_on) return "it holds no datagrams";
  if (!goes_on && *last < selection.start)
    return "it ends at " + format_time(*last) + ", before " + format_time(selection.start);
  const std::string range = (selection.start > 0 ? " from " + format_time(selection.start) + " on" : "") +
                            (selection.stop ? " before " + format_time(*selection.stop) : "");
  return (selection.only ? "it holds none of the wanted universes" : "it holds no datagram") + range;
}

}  // namespace cue
