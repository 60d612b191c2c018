#include "cue/live/Traffic.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <tuple>
#include <utility>
#include <variant>

#include "cue/ByteOrder.h"
#include "cue/DatagramWalk.h"
#include "cue/SequenceCounter.h"
#include "cue/Time.h"
#include "cue/live/Meters.h"
#include "cue/live/PrintableText.h"
#include "cue/live/Recent.h"

namespace cue {
namespace {

constexpr std::uint16_t kOpSync = 0x5200;  // Art-Net 4, ArtSync

/// Who sends what; in the order of the figures.
struct StreamKey {
  std::uint16_t universe = 0;
  Protocol protocol = Protocol::ArtNet;
  std::uint32_t sender = 0;
  SacnCid cid{};

  /// All but the CID as one number.
  std::uint64_t number() const {
    return std::uint64_t{universe} << 33 | std::uint64_t{protocol == Protocol::Sacn ? 1U : 0U} << 32 | sender;
  }
  bool operator<(const StreamKey& other) const {
    const std::uint64_t a = number();
    const std::uint64_t b = other.number();
    return a != b ? a < b : cid < other.cid;
  }
};

/// The sequence numbers of a stream.
class StreamNumbers {
public:
  explicit StreamNumbers(Protocol protocol) {
    if (protocol == Protocol::ArtNet) return;
    // E1.31, 6.7.2: from 0 to 255.
    counter.emplace<SequenceCounter>().count_zero();
  }

  void add(const NumberedPacket& packet) {
    std::visit([&packet](auto& one) { one.add(packet); }, counter);
  }

  std::uint64_t oddities() const {
    return std::visit([](const auto& one) { return one.oddities(); }, counter);
  }

  UniverseSequence result() const {
    if (const auto* const judge = std::get_if<UniverseJudge>(&counter)) return judge->result();
    const auto& one = std::get<SequenceCounter>(counter);
    UniverseSequence result;
    if (!one.started() || one.stands()) return result;
    result.counting = Counting::Own;
    result.figures = one.figures();
    return result;
  }

private:
  std::variant<UniverseJudge, SequenceCounter> counter;
};

struct Stream {
  explicit Stream(Protocol protocol) : numbers(protocol) {}

  StreamNumbers numbers;
  SharedJudge::Member member;
  RateMeter rate;
  JitterMeter jitter;
  std::uint64_t datagrams = 0;
  std::int64_t first = 0;  // ns
  std::int64_t last = 0;   // ns
  std::int64_t odd = 0;    // ns, when a number last did not fit one count
  bool unicast = false;
  bool ended = false;
  std::uint8_t priority = 0;
  std::uint16_t slots = 0;
  std::array<std::uint8_t, kSacnNameSize + 1> name{};  // of E1.31, as it was sent
  std::array<std::uint8_t, kDmxSlots> levels{};        // the first `slots` of them

  bool holds(const Bytes& packet) const {
    return slots == packet.size && std::equal(packet.data, packet.data + packet.size, levels.begin());
  }

  void take_levels(const Bytes& packet, std::int64_t time) {
    if (datagrams++ == 0)
      first = last = time;
    else if (time >= last)
      jitter.add(time - last);
    last = std::max(last, time);
    rate.add(time);
    slots = static_cast<std::uint16_t>(packet.size);
    if (packet.size > 0) memcpy(levels.data(), packet.data, packet.size);
  }

  /// @param settled  the rate is of the second before this time
  double rate_at(std::int64_t settled) const {
    if (first < (settled / kSecond - 1) * kSecond) return rate.last_second(settled);
    if (datagrams < 3 || last == first) return 0;
    return static_cast<double>(datagrams - 1) * static_cast<double>(kSecond) /
           static_cast<double>(last - first);
  }
};

/// A sender of Art-Net.
struct Sender {
  SharedJudge shared;
  std::string name;
  unsigned bind_index = 0;  // of the reply that told the name
};

/// Packets of one kind so far.
class KindMeter {
public:
  void add(std::int64_t time) {
    ++packets;
    rate.add(time);
  }
  KindFigures figures(std::int64_t settled) const {
    return {packets, static_cast<double>(rate.last_second(settled))};
  }

private:
  std::uint64_t packets = 0;
  RateMeter rate;
};

bool begins_artnet(const Bytes& payload) {
  return payload.size >= sizeof(ArtHeader) && memcmp(payload.data, kArtNetId, kArtNetIdSize) == 0;
}

/// Whether the datagram went to one receiver. Of a network whose size is not known, an address that ends in
/// 255 is taken for that of everybody.
bool is_unicast(const UdpDatagram& datagram) {
  const std::uint32_t to = datagram.receiver;
  const bool is_group = to >> 28 == 0xE;
  return to != 0 && !datagram.to_many && !is_group && (to & 0xFF) != 0xFF;
}

}  // namespace

class Traffic::Parts {
public:
  void add(const UdpDatagram& datagram, std::int64_t time);
  TrafficFigures figures(std::int64_t now);

private:
  void add_artnet(const UdpDatagram& datagram, std::int64_t time);
  void add_dmx(const UdpDatagram& datagram, const DmxPacket& packet, std::int64_t time);
  void add_other_artnet(const UdpDatagram& datagram, std::int64_t time);
  void add_sacn(const UdpDatagram& datagram, std::int64_t time);
  void add_sacn_data(const UdpDatagram& datagram, const SacnPacket& packet, std::int64_t time);
  void note_name(const UdpDatagram& datagram);
  Stream& stream(const StreamKey& key, std::int64_t time);
  Sender& sender(std::uint32_t address);
  void forget(std::int64_t now);
  std::map<std::uint32_t, std::uint32_t> sharing_universes() const;
  StreamFigures figures_of(const StreamKey& key, const Stream& of, std::int64_t now) const;
  void tell_numbers(const StreamKey& key, const Stream& of, StreamFigures& figures) const;

  LiveClock clock;
  Recent<StreamKey, Stream> streams{kMostStreams};
  Recent<std::uint32_t, Sender> senders{kMostSenders};
  std::map<std::uint32_t, std::uint32_t> sharing;  // senders: universes with one counter
  std::uint64_t not_shown = 0;
  KindMeter art_dmx;
  KindMeter art_sync;
  KindMeter art_poll;
  KindMeter art_poll_reply;
  KindMeter art_other;
  KindMeter sacn_data;
  KindMeter sacn_sync;
  KindMeter sacn_discovery;
  KindMeter sacn_other;
  KindMeter broken;
};

void Traffic::Parts::add(const UdpDatagram& datagram, std::int64_t time) {
  time = clock.at(time);
  // The content decides, as it does for captures.
  const Bytes& payload = datagram.payload;
  if (datagram.cut)
    broken.add(time);
  else if (begins_sacn(payload.data, payload.size))
    add_sacn(datagram, time);
  else
    add_artnet(datagram, time);
}

void Traffic::Parts::add_artnet(const UdpDatagram& datagram, std::int64_t time) {
  const Bytes& payload = datagram.payload;
  bool is_known = false;
  if (begins_artnet(payload) && low_byte_first(payload.data + kArtNetIdSize) != OpDmx) {
    is_known = true;
    add_other_artnet(datagram, time);
  }
  // As the recorder finds them: also behind another packet.
  for_each_dmx(payload.data, payload.size, [&](const DmxPacket& packet) {
    is_known = true;
    add_dmx(datagram, packet, time);
  });
  if (!is_known && (datagram.port == kArtNetPort || datagram.port == kSacnPort)) broken.add(time);
}

void Traffic::Parts::add_dmx(const UdpDatagram& datagram, const DmxPacket& packet, std::int64_t time) {
  art_dmx.add(time);
  const StreamKey key{packet.port_address, Protocol::ArtNet, datagram.sender, {}};
  Stream& of = stream(key, time);
  const std::uint8_t* const bytes = datagram.payload.data + packet.offset;
  const Bytes levels{bytes + kDmxHeaderSize, packet.slots};
  const NumberedPacket numbered{bytes[offsetof(ArtDmx, sequence)], time, of.holds(levels)};
  if (of.numbers.oddities() > 0) sender(datagram.sender).shared.add(of.member, packet.port_address, numbered);
  const std::uint64_t oddities = of.numbers.oddities();
  of.numbers.add(numbered);
  if (of.numbers.oddities() != oddities) of.odd = time;
  of.unicast = is_unicast(datagram);
  of.take_levels(levels, time);
}

void Traffic::Parts::add_other_artnet(const UdpDatagram& datagram, std::int64_t time) {
  switch (low_byte_first(datagram.payload.data + kArtNetIdSize)) {
    case OpPoll:
      art_poll.add(time);
      break;
    case OpPollReply:
      art_poll_reply.add(time);
      note_name(datagram);
      break;
    case kOpSync:
      art_sync.add(time);
      break;
    default:
      art_other.add(time);
  }
}

/// Of a node with several replies, the first one (bind index 0 or 1, Art-Net 4) has the name of the device.
void Traffic::Parts::note_name(const UdpDatagram& datagram) {
  constexpr std::size_t kName = offsetof(ArtPollReply, short_name);
  constexpr std::size_t kNameSize = sizeof(ArtPollReply::short_name);
  constexpr std::size_t kBindIndex = offsetof(ArtPollReply, bind_index);
  const Bytes& reply = datagram.payload;
  if (reply.size < kName + kNameSize) return;
  const std::string name = printable_text(reply.data + kName, kNameSize);
  const unsigned bind_index = reply.size > kBindIndex ? reply.data[kBindIndex] : 0;
  Sender& from = sender(datagram.sender);
  if (name.empty() || (!from.name.empty() && bind_index > from.bind_index)) return;
  from.name = name;
  from.bind_index = bind_index;
}

void Traffic::Parts::add_sacn(const UdpDatagram& datagram, std::int64_t time) {
  const SacnPacket packet = parse_sacn(datagram.payload.data, datagram.payload.size);
  switch (packet.kind) {
    case SacnKind::Data:
      sacn_data.add(time);
      add_sacn_data(datagram, packet, time);
      break;
    case SacnKind::Sync:
      sacn_sync.add(time);
      break;
    case SacnKind::Discovery:
      sacn_discovery.add(time);
      break;
    case SacnKind::Other:
      sacn_other.add(time);
      break;
    case SacnKind::Broken:
      broken.add(time);
      break;
  }
}

void Traffic::Parts::add_sacn_data(const UdpDatagram& datagram, const SacnPacket& packet, std::int64_t time) {
  const SacnData& data = packet.data;
  const StreamKey key{static_cast<std::uint16_t>(data.universe - 1), Protocol::Sacn, datagram.sender,
                      packet.cid};
  const bool has_levels = data.start_code == 0 && !data.preview && !data.terminated;
  Stream* const known = has_levels ? &stream(key, time) : streams.find(key);
  if (known == nullptr) return;
  // All data packets of a universe have one counter, whatever they carry.
  known->numbers.add({data.sequence, time, !has_levels || known->holds(data.slots)});
  if (data.terminated) known->ended = true;
  if (!has_levels) return;
  known->ended = false;
  known->priority = data.priority;
  known->unicast = is_unicast(datagram);
  known->name.fill(0);
  if (data.name.size > 0) memcpy(known->name.data(), data.name.data, data.name.size);
  known->take_levels(data.slots, time);
}

/// The stream of this key, which may be a new one.
Stream& Traffic::Parts::stream(const StreamKey& key, std::int64_t time) {
  if (Stream* const known = streams.touch(key)) return *known;
  if (streams.is_full()) {
    if (time - streams.oldest().last <= kPresent) ++not_shown;
    streams.drop_oldest();
  }
  return streams.add(key, key.protocol);
}

Sender& Traffic::Parts::sender(std::uint32_t address) {
  if (Sender* const known = senders.touch(address)) return *known;
  if (senders.is_full()) senders.drop_oldest();
  return senders.add(address);
}

void Traffic::Parts::forget(std::int64_t now) {
  while (!streams.is_empty() && now - streams.oldest().last > kForgotten) streams.drop_oldest();
}

/// Senders whose universes have one counter together, with the number of those.
std::map<std::uint32_t, std::uint32_t> Traffic::Parts::sharing_universes() const {
  std::map<std::uint32_t, std::uint32_t> found;
  for (const auto& [key, place] : streams.by_key()) {
    const Stream& of = place->second;
    if (of.member.belongs(of.numbers.oddities())) ++found[key.sender];
  }
  return found;
}

void Traffic::Parts::tell_numbers(const StreamKey& key, const Stream& of, StreamFigures& figures) const {
  UniverseSequence sequence;
  const auto shared = sharing.find(key.sender);
  const bool is_shared = key.protocol == Protocol::ArtNet && shared != sharing.end() && shared->second >= 2 &&
                         of.member.belongs(of.numbers.oddities());
  const Sender* const from = is_shared ? senders.find(key.sender) : nullptr;
  if (from != nullptr)
    sequence.figures = from->shared.figures();
  else
    sequence = of.numbers.result();
  figures.counting = from != nullptr ? Counting::Shared : sequence.counting;
  figures.counts = figures.counting != Counting::None && figures.counting != Counting::Chaos;
  figures.missing = sequence.figures.missing;
  figures.disordered = sequence.figures.repeated + sequence.figures.out_of_order;
}

StreamFigures Traffic::Parts::figures_of(const StreamKey& key, const Stream& of, std::int64_t now) const {
  StreamFigures figures;
  figures.protocol = key.protocol;
  figures.universe = key.universe;
  figures.sender = key.sender;
  figures.cid = key.cid;
  if (key.protocol == Protocol::Sacn)
    figures.name = printable_text(of.name.data(), of.name.size());
  else if (const Sender* const from = senders.find(key.sender))
    figures.name = from->name;
  figures.unicast = of.unicast;
  figures.ended = of.ended;
  figures.priority = of.priority;
  figures.datagrams = of.datagrams;
  figures.rate = of.rate_at(std::max<std::int64_t>(0, now - kSettled));
  figures.jitter = of.jitter.jitter() / 1e6;
  tell_numbers(key, of, figures);
  // Two counts are told for ever, and contested is what is so now.
  figures.contested = figures.counting == Counting::Two && now - of.odd <= kPresent;
  figures.slots = of.slots;
  figures.age = std::max<std::int64_t>(0, now - of.last);
  std::copy_n(of.levels.begin(), of.slots, figures.levels.begin());
  figures.highest = *std::max_element(figures.levels.begin(), figures.levels.end());
  return figures;
}

namespace {

bool is_present(const StreamFigures& stream) {
  return !stream.ended && stream.age <= Traffic::kPresent;
}

/// Marks the streams of one universe in one protocol that get in each other's way, beside those with two
/// counts, which are marked.
void mark_contested(std::vector<StreamFigures>::iterator begin, std::vector<StreamFigures>::iterator end) {
  std::array<std::uint32_t, 256> present{};  // by priority, which is 0 in Art-Net
  std::for_each(begin, end, [&](const StreamFigures& one) {
    if (is_present(one)) ++present[one.priority];
  });
  std::for_each(begin, end, [&](StreamFigures& one) {
    one.contested = is_present(one) && (present[one.priority] > 1 || one.contested);
  });
}

void mark_contested(std::vector<StreamFigures>& streams) {
  auto begin = streams.begin();
  while (begin != streams.end()) {
    const auto end = std::find_if(begin, streams.end(), [&](const StreamFigures& one) {
      return one.universe != begin->universe || one.protocol != begin->protocol;
    });
    mark_contested(begin, end);
    begin = end;
  }
}

}  // namespace

TrafficFigures Traffic::Parts::figures(std::int64_t now) {
  now = clock.look(now);
  forget(now);
  sharing = sharing_universes();
  TrafficFigures all;
  all.streams.reserve(streams.by_key().size());
  for (const auto& [key, place] : streams.by_key())
    all.streams.push_back(figures_of(key, place->second, now));
  mark_contested(all.streams);
  const std::int64_t settled = std::max<std::int64_t>(0, now - kSettled);
  all.art_dmx = art_dmx.figures(settled);
  all.art_sync = art_sync.figures(settled);
  all.art_poll = art_poll.figures(settled);
  all.art_poll_reply = art_poll_reply.figures(settled);
  all.art_other = art_other.figures(settled);
  all.sacn_data = sacn_data.figures(settled);
  all.sacn_sync = sacn_sync.figures(settled);
  all.sacn_discovery = sacn_discovery.figures(settled);
  all.sacn_other = sacn_other.figures(settled);
  all.broken = broken.figures(settled);
  all.streams_not_shown = not_shown;
  return all;
}

Traffic::Traffic() : parts(std::make_unique<Parts>()) {}

Traffic::~Traffic() = default;

void Traffic::add(const UdpDatagram& datagram, std::int64_t time) {
  parts->add(datagram, time);
}

TrafficFigures Traffic::figures(std::int64_t now) {
  return parts->figures(now);
}

}  // namespace cue
