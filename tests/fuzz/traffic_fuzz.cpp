#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "artnet/ArtNet.h"
#include "cue/CueError.h"
#include "cue/DmxDatagram.h"
#include "cue/Sacn.h"
#include "cue/live/PrintableText.h"
#include "cue/live/Traffic.h"
#include "tests/fuzz/script.h"

// Traffic that is followed: datagrams of any content, made-up senders, times that jump. Input: steps, each a
// kind, a pause and what it is of. Whatever comes, there are not more streams than are followed, in their
// order, each figure within its bounds, names that can be shown, and every datagram is counted as something.

namespace {

using Stream = cue::StreamFigures;

class Run {
public:
  Run(const std::uint8_t* data, std::size_t size) : script(data, size) {}

  void steps() {
    for (int step = 0; step < kMostSteps && !script.at_end(); ++step) take_step();
    check();
  }

private:
  static constexpr int kMostSteps = 2000;
  // The table can be filled, but not by one step that chance finds: inputs are to take milliseconds.
  static constexpr unsigned kMostMadeUp = 4500;
  static constexpr unsigned kMadeUpAtOnce = 512;
  static constexpr int kMostLooks = 4;

  void take_step() {
    const unsigned kind = script.byte();
    pass_time();
    switch (kind % 6) {
      case 0:
        raw();
        break;
      case 1:
        dmx();
        break;
      case 2:
        sacn();
        break;
      case 3:
        reply();
        break;
      case 4:
        flood();
        break;
      default:
        if (++looks < kMostLooks) check();
    }
  }

  void pass_time() {
    const unsigned choice = script.byte();
    if (choice < 128) {
      now += choice * std::int64_t{1'000'000};
      return;
    }
    const std::int64_t jump = script.number() * std::int64_t{1'000'000'000};
    if (choice < 240) now = jump;
    if (choice >= 240) traffic.figures(choice < 248 ? kLatest : kEarliest);
  }

  void add(const std::uint8_t* bytes, std::size_t size) {
    // A copy of its own, so that a look behind its end is found.
    const std::vector<std::uint8_t> copy(bytes, bytes + size);
    cue::UdpDatagram datagram;
    const unsigned from = script.byte();
    datagram.sender = from % 4;
    datagram.receiver = from < 128 ? 0xFFFFFFFF : 0x0A000002;
    datagram.port = from % 8 == 7 ? cue::kSacnPort : kArtNetPort;
    datagram.to_many = from % 16 == 15;
    datagram.cut = from == 255;
    datagram.payload = {copy.data(), copy.size()};
    traffic.add(datagram, now);
    ++added;
  }

  void raw() {
    const std::vector<char> bytes = script.bytes(script.word() % 1500);
    add(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }

  void dmx() {
    const std::uint16_t universe = script.byte() % 8;
    const std::uint8_t sequence = script.byte();
    std::vector<std::uint8_t> packet = cue::make_dmx_datagram(universe, sequence, script.word() % 513);
    const std::vector<char> levels = script.bytes(script.byte() % 16);
    const std::size_t taken = std::min(levels.size(), packet.size() - kDmxHeaderBytes);
    if (taken > 0) memcpy(packet.data() + kDmxHeaderBytes, levels.data(), taken);
    add(packet.data(), packet.size());
  }

  void sacn() {
    cue::SacnSource source;
    source.cid[0] = script.byte() % 4;
    const std::vector<char> name = script.bytes(script.byte() % 64);
    source.name.assign(name.begin(), name.end());
    source.priority = script.byte();
    cue::SacnBuilder builder(source);
    cue::SacnData data;
    data.universe = static_cast<std::uint16_t>(1 + script.byte() % 8);
    data.sequence = script.byte();
    const unsigned options = script.byte();
    data.preview = options % 8 == 7;
    data.terminated = options % 16 == 6;
    data.start_code = options > 200 ? 0xDD : 0;
    const std::vector<std::uint8_t> levels(1 + script.word() % 512, script.byte());
    data.slots = {levels.data(), levels.size()};
    const cue::Bytes packet = builder.packet(data);
    add(packet.data, packet.size);
  }

  void reply() {
    ArtPollReply packet{};
    memcpy(packet.header.id, kArtNetId, kArtNetIdSize);
    packet.header.opcode = OpPollReply;
    packet.bind_index = script.byte();
    const std::vector<char> name = script.bytes(sizeof packet.short_name);
    std::copy(name.begin(), name.end(), packet.short_name);
    const std::size_t size = script.byte() < 200 ? sizeof packet : script.byte();
    add(reinterpret_cast<const std::uint8_t*>(&packet), std::min(size, sizeof packet));
  }

  /// Senders and universes that are made up.
  void flood() {
    const unsigned count = std::min<unsigned>(script.word() % (kMadeUpAtOnce + 1), kMostMadeUp - made_up);
    const unsigned first = script.word();
    for (unsigned i = 0; i < count; ++i) {
      const std::vector<std::uint8_t> packet =
          cue::make_dmx_datagram(static_cast<std::uint16_t>(first + i), 0, 1);
      cue::UdpDatagram datagram;
      datagram.sender = first + i;
      datagram.payload = {packet.data(), packet.size()};
      traffic.add(datagram, now);
      ++added;
    }
    made_up += count;
  }

  static auto place(const Stream& one) { return std::tuple(one.universe, one.protocol, one.sender, one.cid); }

  void check() {
    const cue::TrafficFigures figures = traffic.figures(now);
    REQUIRE(figures.streams.size() <= cue::Traffic::kMostStreams);
    std::uint64_t packets = 0;
    for (const cue::TrafficKind& kind : cue::kTrafficKinds) packets += (figures.*kind.figures).packets;
    REQUIRE(packets >= added);
    std::uint64_t datagrams = 0;
    for (std::size_t at = 0; at < figures.streams.size(); ++at) {
      const Stream& one = figures.streams[at];
      if (at > 0) REQUIRE(place(figures.streams[at - 1]) < place(one));
      check(one);
      datagrams += one.datagrams;
    }
    REQUIRE(datagrams <= figures.art_dmx.packets + figures.sacn_data.packets);
    REQUIRE(figures.streams_not_shown <= figures.art_dmx.packets + figures.sacn_data.packets);
  }

  static void check(const Stream& one) {
    REQUIRE(one.datagrams > 0);
    REQUIRE(one.age >= 0 && one.age <= cue::Traffic::kForgotten);
    REQUIRE(std::isfinite(one.rate) && one.rate >= 0);
    REQUIRE(std::isfinite(one.jitter) && one.jitter >= 0);
    REQUIRE(one.slots <= kDmxSlots);
    REQUIRE(std::all_of(one.levels.begin() + one.slots, one.levels.end(),
                        [](unsigned level) { return level == 0; }));
    REQUIRE(one.highest == *std::max_element(one.levels.begin(), one.levels.end()));
    REQUIRE(one.missing == 0 || one.counts);
    REQUIRE(cue::printable_text(one.name) == one.name);
    REQUIRE(std::none_of(one.name.begin(), one.name.end(),
                         [](char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F; }));
    for (const char byte : cue::ascii_text(one.name)) REQUIRE(byte >= ' ' && byte <= '~');
  }

  static constexpr std::size_t kDmxHeaderBytes = offsetof(ArtDmx, data);
  static constexpr std::int64_t kLatest = std::numeric_limits<std::int64_t>::max();
  static constexpr std::int64_t kEarliest = std::numeric_limits<std::int64_t>::min();

  Script script;
  cue::Traffic traffic;
  std::int64_t now = 0;
  std::uint64_t added = 0;
  unsigned made_up = 0;
  int looks = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Run(data, size).steps();
  return 0;
}
