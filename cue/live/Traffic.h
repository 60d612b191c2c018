#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "artnet/ArtNet.h"
#include "cue/Capture.h"
#include "cue/Completeness.h"
#include "cue/Frames.h"
#include "cue/Sacn.h"

/// What lighting traffic there is now.
namespace cue {

/// One sender on one universe, in one protocol. Two sources of E1.31 at one address are two senders: they
/// are told apart by their CID.
struct StreamFigures {
  Protocol protocol = Protocol::ArtNet;
  std::uint16_t universe = 0;  // 0-based: the port-address, or the universe of E1.31 minus 1
  std::uint32_t sender = 0;    // IPv4, host order; 0: not known, the stream is read from a recording
  SacnCid cid{};               // of E1.31
  std::string name;      // printable UTF-8: short name of the sender's ArtPollReply, or source name of E1.31
  bool unicast = false;  // the last datagram went to one receiver, not to a group or a broadcast address
  /// Another sender is on this universe in the same protocol now; in E1.31 with the same priority, for one
  /// with another is a backup. Also when the numbers show two counts that come from one address.
  bool contested = false;
  bool ended = false;         // a source of E1.31 said that it stops
  std::uint8_t priority = 0;  // of E1.31, 0..200
  std::uint64_t datagrams = 0;
  double rate = 0;      // Hz, of the last whole second; of all its time when it began in that second or later
  double jitter = 0;    // ms, mean deviation of the last 16 or so intervals from their mean
  bool counts = false;  // its numbers can be judged: counting is Own, Two, Shared or Partly
  Counting counting = Counting::None;
  std::uint64_t missing = 0;     // datagrams, by sequence number; Shared: in all universes of this sender
  std::uint64_t disordered = 0;  // that came twice or out of order; Shared: as above
  std::uint16_t slots = 0;       // of the last datagram
  std::uint8_t highest = 0;      // level in the last datagram
  std::int64_t age = 0;          // ns since the last datagram
  std::array<std::uint8_t, kDmxSlots> levels{};  // of the last datagram; 0 above `slots`
};

/// Packets of one kind.
struct KindFigures {
  std::uint64_t packets = 0;
  double rate = 0;  // Hz, of the last whole second
};

/// The state at one moment.
struct TrafficFigures {
  std::vector<StreamFigures> streams;  // by universe, protocol, sender, CID
  KindFigures art_dmx;
  KindFigures art_sync;
  KindFigures art_poll;
  KindFigures art_poll_reply;
  KindFigures art_other;  // Art-Net of any other kind
  KindFigures sacn_data;  // also for previews, of other start codes, and those that end a stream
  KindFigures sacn_sync;
  KindFigures sacn_discovery;
  KindFigures sacn_other;               // ACN of any other kind
  KindFigures broken;                   // at the ports of Art-Net and E1.31, and neither of them
  std::uint64_t streams_not_shown = 0;  // that had to make room while they were sent
};

/// A kind of packets, by the name that programs know it by.
struct TrafficKind {
  const char* name;
  KindFigures TrafficFigures::*figures;
};
constexpr std::array<TrafficKind, 10> kTrafficKinds = {{
    {"art_dmx", &TrafficFigures::art_dmx},
    {"art_sync", &TrafficFigures::art_sync},
    {"art_poll", &TrafficFigures::art_poll},
    {"art_poll_reply", &TrafficFigures::art_poll_reply},
    {"art_other", &TrafficFigures::art_other},
    {"sacn_data", &TrafficFigures::sacn_data},
    {"sacn_sync", &TrafficFigures::sacn_sync},
    {"sacn_discovery", &TrafficFigures::sacn_discovery},
    {"sacn_other", &TrafficFigures::sacn_other},
    {"broken", &TrafficFigures::broken},
}};

/// Follows streams, datagram by datagram. Memory is bounded whatever is sent.
///
/// Levels are those of ArtDmx, and of E1.31 data packets with start code 0 that are for live output.
class Traffic {
public:
  /// Streams that are followed; one that has been silent for longest makes room.
  static constexpr std::size_t kMostStreams = 4096;

  /// Senders of Art-Net of which names and counters across universes are kept.
  static constexpr std::size_t kMostSenders = 4096;

  /// A stream leaves the figures after this silence.
  static constexpr std::int64_t kForgotten = 60'000'000'000;  // ns

  /// A sender is on its universe so long after its last datagram. Art-Net 4 lets one that changes nothing
  /// send every 4 s; E1.31 gives a source up after 2.5 s.
  static constexpr std::int64_t kPresent = 5'000'000'000;  // ns

  /// What a rate is of has ended this long ago, for captured datagrams arrive in batches.
  static constexpr std::int64_t kSettled = 250'000'000;  // ns

  Traffic();
  ~Traffic();
  Traffic(const Traffic&) = delete;
  Traffic& operator=(const Traffic&) = delete;
  Traffic(Traffic&&) = delete;
  Traffic& operator=(Traffic&&) = delete;

  /// @param time  ns on one clock, that of figures(). It may lie up to a second before that of a datagram
  ///              before; where it lies further back, the clock was set, and time counts on from there.
  void add(const UdpDatagram& datagram, std::int64_t time);

  /// @param now  ns; what is added later may lie before it
  TrafficFigures figures(std::int64_t now);

private:
  class Parts;
  std::unique_ptr<Parts> parts;
};

}  // namespace cue
