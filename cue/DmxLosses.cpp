#include "cue/DmxLosses.h"

#include "cue/DatagramWalk.h"
#include "cue/Text.h"

namespace cue {
namespace {

constexpr std::size_t kSequenceOffset = offsetof(ArtDmx, sequence);
constexpr std::size_t kPhysicalOffset = offsetof(ArtDmx, physical);

}  // namespace

void DmxLosses::add(const Record& record) {
  std::size_t packets = 0;
  std::size_t bytes = 0;
  for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
    ++packets;
    bytes += packet.end() - packet.offset;
    if (record.data[packet.offset + kSequenceOffset] != 0) ++numbered;
    if (record.data[packet.offset + kPhysicalOffset] != 0) ++with_port;
  });
  if (packets > 1) ++taken_apart;
  bytes_beside += record.size - bytes;
}

std::vector<std::string> DmxLosses::texts() const {
  std::vector<std::string> found;
  if (numbered > 0) found.push_back("the sequence numbers of " + std::to_string(numbered) + " ArtDmx");
  if (with_port > 0) found.push_back("the physical ports of " + std::to_string(with_port) + " ArtDmx");
  if (taken_apart > 0) found.push_back("that " + counted(taken_apart, "datagram") + " held several ArtDmx");
  if (bytes_beside > 0) found.push_back(counted(bytes_beside, "byte") + " outside of ArtDmx");
  return found;
}

}  // namespace cue
