#include "cue/Capture.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string_view>

#include "artnet/RecordingFormat.h"
#include "cue/CueError.h"
#include "cue/DatagramBounds.h"
#include "cue/DatagramWalk.h"
#include "cue/Text.h"
#include "cue/Time.h"

namespace cue {
namespace {

bool begins_artnet(const Bytes& payload) {
  return payload.size >= kArtNetIdSize && memcmp(payload.data, kArtNetId, kArtNetIdSize) == 0;
}

/// Words for what there was, each with its number; what there was not is left out.
class Words {
public:
  void add(std::uint64_t number, const char* singular, const std::string& behind = "") {
    if (number > 0) words.push_back(counted(number, singular) + behind);
  }
  void add_text(const std::string& text) { words.push_back(text); }
  const std::vector<std::string>& all() const { return words; }

  std::string joined() const {
    std::string text;
    for (const std::string& each : words) text += (text.empty() ? "" : ", ") + each;
    return text;
  }

private:
  std::vector<std::string> words;
};

/// "universe 7" or "universes 1, 2 and 3 more".
std::string universes_text(const std::set<std::uint16_t>& universes) {
  constexpr std::size_t kNamed = 8;
  std::string text = universes.size() == 1 ? "universe " : "universes ";
  std::size_t named = 0;
  for (const std::uint16_t universe : universes) {
    if (named == kNamed) return text + " and " + std::to_string(universes.size() - named) + " more";
    text += (named++ == 0 ? "" : ", ") + std::to_string(universe);
  }
  return text;
}

}  // namespace

CaptureReader::CaptureReader(std::unique_ptr<FrameSource> source, std::string name, CaptureOptions options)
    : frames(std::move(source)), file(std::move(name)), wanted(std::move(options)) {
  memcpy(dmx.header.id, kArtNetId, kArtNetIdSize);
  dmx.header.opcode = OpDmx;
  dmx.prot_ver_lo = 14;
}

/// Time since the first datagram. A frame without a time, or that lies before its predecessor, counts as
/// simultaneous.
std::int64_t CaptureReader::time_of(const Frame& frame) {
  std::int64_t time = 0;
  if (frame.time && !first_time) first_time = *frame.time;
  if (!frame.time || __builtin_sub_overflow(*frame.time, *first_time, &time)) {
    ++count.without_time;
    return last_time;
  }
  if (time < last_time) ++count.backwards;
  last_time = std::max(last_time, time);
  return last_time;
}

/// Counts a datagram that came a moment before with the same bytes: it was captured at two interfaces, or
/// sent to two receivers.
void CaptureReader::note_copy(const UdpDatagram& udp) {
  constexpr std::int64_t kMoment = kSecond / 1000;
  const std::string_view bytes(reinterpret_cast<const char*>(udp.payload.data), udp.payload.size);
  const Latest one{udp.sender, std::hash<std::string_view>()(bytes), last_time};
  const bool is_copy = std::any_of(latest.begin(), latest.end(), [&one](const Latest& other) {
    return other.hash == one.hash && other.sender == one.sender && other.time >= 0 &&
           one.time - other.time <= kMoment;
  });
  if (is_copy) ++count.copies;
  latest[next_latest++ % kLatest] = one;
}

/// Whether sender and port are wanted.
bool CaptureReader::is_wanted(const UdpDatagram& udp) {
  const bool is_port =
      wanted.port ? udp.port == *wanted.port : udp.port == kArtNetPort || udp.port == kSacnPort;
  if (!is_port) {
    if (begins_artnet(udp.payload) || begins_sacn(udp.payload.data, udp.payload.size))
      ++lights_at[udp.port];
    else
      ++count.other_udp;
    return false;
  }
  if (wanted.senders.empty() ||
      std::find(wanted.senders.begin(), wanted.senders.end(), udp.sender) != wanted.senders.end())
    return true;
  ++count.other_senders;
  return false;
}

bool CaptureReader::take(const UdpDatagram& udp, ForeignDatagram& datagram) {
  if (!is_wanted(udp)) return false;
  // The content decides, so that a port of one's own will do for both.
  const bool is_sacn = begins_sacn(udp.payload.data, udp.payload.size) ||
                       (udp.port == kSacnPort && !begins_artnet(udp.payload));
  if (wanted.protocol && (*wanted.protocol == Protocol::Sacn) != is_sacn) {
    ++count.other_udp;
    return false;
  }
  if (udp.cut) {
    ++count.cut;
    return false;
  }
  return is_sacn ? take_sacn(udp.payload, datagram) : take_artnet(udp.payload, datagram);
}

bool CaptureReader::take_artnet(const Bytes& payload, ForeignDatagram& datagram) {
  if (payload.size > kLongestDatagram) {
    ++count.too_long;
    return false;
  }
  if (!shape_of(payload.data, payload.size).recordable()) {
    ++count.refused;
    return false;
  }
  ++count.artnet;
  datagram.data = payload.data;
  datagram.size = payload.size;
  if (bounds_of(payload.data, payload.size).size == payload.size) return true;
  ++count.packets_alone;
  packets.clear();
  for_each_dmx(payload.data, payload.size, [&](const DmxPacket& packet) {
    packets.insert(packets.end(), payload.data + packet.offset, payload.data + packet.end());
  });
  datagram.data = packets.data();
  datagram.size = packets.size();
  return true;
}

/// Notes universes that several sources send.
void CaptureReader::note_source(const SacnPacket& packet) {
  const std::uint16_t universe = packet.data.universe;
  const FirstSource& first =
      first_source.try_emplace(universe, FirstSource{packet.cid, packet.data.priority}).first->second;
  if (first.cid != packet.cid) of_several_sources.insert(universe);
  if (first.priority != packet.data.priority) of_several_priorities.insert(universe);
}

std::uint8_t CaptureReader::sequence_of(const SacnPacket& packet) {
  const Stream stream{packet.cid, packet.data.universe};
  const auto found = streams.find(stream);
  if (found != streams.end()) {
    found->second = pair_of_sacn(found->second, packet.data.sequence);
    return found->second.artnet;
  }
  if (streams.size() == kMostStreams) streams.clear();
  return streams.emplace(stream, pair_of_sacn({}, packet.data.sequence)).first->second.artnet;
}

bool CaptureReader::take_sacn(const Bytes& payload, ForeignDatagram& datagram) {
  const SacnPacket packet = parse_sacn(payload.data, payload.size);
  std::uint64_t* left_out = nullptr;
  switch (packet.kind) {
    case SacnKind::Sync:
      left_out = &count.syncs;
      break;
    case SacnKind::Discovery:
      left_out = &count.discoveries;
      break;
    case SacnKind::Other:
      left_out = &count.other_sacn;
      break;
    case SacnKind::Broken:
      left_out = &count.broken_sacn;
      break;
    case SacnKind::Data:
      if (packet.data.start_code != 0)
        left_out = &count.other_start_codes;
      else if (packet.data.preview)
        left_out = &count.previews;
      else if (packet.data.terminated)
        left_out = &count.ends;
      break;
  }
  if (left_out != nullptr) {
    ++*left_out;
    return false;
  }
  note_source(packet);
  ++count.sacn;
  const SacnData& data = packet.data;
  dmx.sequence = sequence_of(packet);
  dmx.universe = static_cast<std::uint16_t>(data.universe - 1);
  dmx.length = swap_word(static_cast<std::uint16_t>(data.slots.size));
  memcpy(dmx.data, data.slots.data, data.slots.size);
  datagram.data = reinterpret_cast<const std::uint8_t*>(&dmx);
  datagram.size = kDmxHeaderSize + data.slots.size;
  return true;
}

/// What the capture holds that is not taken.
std::string CaptureReader::instead() const {
  const FrameCounts& other = decoder.counts();
  if (other.frames == 0) return "no frames at all";
  Words words;
  for (const std::string& loss : losses()) words.add_text(loss);
  for (const auto& [port, number] : lights_at)
    words.add(number, "datagram", " of Art-Net or E1.31 at port " + std::to_string(port) + " (see --port)");
  words.add(other.ipv6_udp, "UDP datagram", " over IPv6");
  words.add(count.other_udp, "UDP datagram", " of something else");
  for (const auto& [type, number] : other.link_types)
    words.add(number, "frame", " of link type " + std::to_string(type) + ", which is not understood");
  words.add(other.broken, "frame", " that the capture cut off or that is broken");
  words.add(other.without_udp, "frame", " without UDP");
  return words.joined();
}

void CaptureReader::check_end() const {
  if (count.artnet > 0 && count.sacn > 0)
    throw CueError(file + ": holds both Art-Net (" + counted(count.artnet, "datagram") + ") and E1.31 (" +
                   counted(count.sacn, "packet") + "); choose one with --protocol");
  if (count.artnet > 0 || count.sacn > 0) return;
  const std::string what = !wanted.protocol                       ? "Art-Net or E1.31"
                           : *wanted.protocol == Protocol::ArtNet ? "Art-Net"
                                                                  : "E1.31";
  const std::string breaks = breaks_off().empty() ? "" : "; " + breaks_off();
  throw CueError(file + ": holds no " + what + " levels to import, but " + instead() + breaks);
}

bool CaptureReader::next(ForeignDatagram& datagram) {
  Frame frame;
  while (frames->next(frame)) {
    const std::optional<UdpDatagram> udp = decoder.decode(frame);
    if (!udp || !take(*udp, datagram)) continue;
    datagram.time = time_of(frame);
    if (frame.time) note_copy(*udp);
    return true;
  }
  check_end();
  return false;
}

std::vector<std::string> CaptureReader::losses() const {
  Words words;
  words.add(count.refused, "datagram", " without a whole ArtDmx left out");
  words.add(count.packets_alone, "datagram", " without the bytes that belong to no packet");
  words.add(count.too_long, "datagram", " longer than a recording can hold left out");
  words.add(decoder.incomplete(), "datagram", " left out of which fragments are missing");
  words.add(count.cut, "datagram", " cut off by the capture left out");
  words.add(decoder.counts().cut_fragments, "fragment", " cut off by the capture left out");
  words.add(count.other_senders, "datagram", " of other senders left out");
  words.add(count.other_start_codes, "E1.31 packet", " with another start code than 0 left out");
  words.add(count.previews, "E1.31 packet", " for previews left out");
  words.add(count.ends, "E1.31 packet", " at the end of a stream left out");
  words.add(count.syncs, "E1.31 synchronisation packet", " left out");
  words.add(count.discoveries, "E1.31 discovery packet", " left out");
  words.add(count.other_sacn, "ACN packet", " of another kind left out");
  words.add(count.broken_sacn, "broken E1.31 packet", " left out");
  words.add(count.copies, "datagram",
            " with the same bytes as one less than 1 ms before (captured at several interfaces?) taken too");
  words.add(count.without_time, "datagram",
            " without a usable time: taken as simultaneous with the one before");
  words.add(count.backwards, "datagram", " with a time before the one before: taken as simultaneous");
  std::vector<std::string> losses = words.all();
  if (!of_several_sources.empty())
    losses.push_back(universes_text(of_several_sources) +
                     ": several sources, all of them taken (see --sender)");
  if (!of_several_priorities.empty())
    losses.push_back(universes_text(of_several_priorities) +
                     ": several priorities, which a recording does not tell");
  return losses;
}

}  // namespace cue
