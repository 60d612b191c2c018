#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "artnet/ArtNet.h"
#include "cue/Capture.h"
#include "cue/Frames.h"

/// What lighting traffic there is now.
namespace cue {

/// One sender on one universe, in one protocol.
struct StreamFigures {
  Protocol protocol = Protocol::ArtNet;
  std::uint16_t universe = 0;  // 0-based: the port-address, or the universe of E1.31 minus 1
  std::uint32_t sender = 0;    // IPv4, host order; 0: not known, the stream is read from a recording
  std::string name;      // short name of the sender's ArtPollReply, or source name of E1.31; empty: not told
  bool unicast = false;  // the last datagram went to one receiver, not to a group or a broadcast address
  bool contested = false;     // another sender is on this universe in the same protocol now
  std::uint8_t priority = 0;  // of E1.31, 0..200
  std::uint64_t datagrams = 0;
  double rate = 0;            // Hz, of the last whole second
  double jitter = 0;          // ms, mean deviation of the intervals from their mean; 0 below three datagrams
  bool counts = false;        // it numbers its datagrams
  std::uint64_t missing = 0;  // datagrams, by sequence number
  std::uint64_t disordered = 0;                  // that came twice or out of order
  std::uint16_t slots = 0;                       // of the last datagram
  std::uint8_t highest = 0;                      // level in the last datagram
  std::int64_t age = 0;                          // ns since the last datagram
  std::array<std::uint8_t, kDmxSlots> levels{};  // of the last datagram; 0 above `slots`
};

/// Packets of one kind.
struct KindFigures {
  std::uint64_t packets = 0;
  double rate = 0;  // Hz, of the last whole second
};

/// The state at one moment.
struct TrafficFigures {
  std::vector<StreamFigures> streams;  // by universe, protocol, sender
  KindFigures art_dmx;
  KindFigures art_sync;
  KindFigures art_poll;
  KindFigures art_poll_reply;
  KindFigures art_other;  // Art-Net of any other kind
  KindFigures sacn_data;
  KindFigures sacn_sync;
  KindFigures sacn_discovery;
  KindFigures broken;                   // at the ports of Art-Net and E1.31, and neither of them
  std::uint64_t streams_not_shown = 0;  // more senders and universes than are followed
};

/// Follows streams, datagram by datagram. Memory is bounded whatever is sent.
class Traffic {
public:
  /// Streams that are followed; one that has been silent for longest makes room.
  static constexpr std::size_t kMostStreams = 4096;

  /// A stream leaves the figures after this silence.
  static constexpr std::int64_t kForgotten = 60'000'000'000;  // ns

  Traffic();
  ~Traffic();
  Traffic(const Traffic&) = delete;
  Traffic& operator=(const Traffic&) = delete;
  Traffic(Traffic&&) = delete;
  Traffic& operator=(Traffic&&) = delete;

  /// @param time  ns on one clock, that of figures(); not necessarily in order
  void add(const UdpDatagram& datagram, std::int64_t time);

  /// @param now  ns
  TrafficFigures figures(std::int64_t now);

private:
  class Parts;
  std::unique_ptr<Parts> parts;
};

}  // namespace cue
