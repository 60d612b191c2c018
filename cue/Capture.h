#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "artnet/ArtNet.h"
#include "cue/ForeignReader.h"
#include "cue/Frames.h"
#include "cue/Sacn.h"

namespace cue {

enum class Protocol { ArtNet, Sacn };

/// What is taken out of a capture.
struct CaptureOptions {
  std::optional<Protocol> protocol;    // nothing: the one that the capture holds
  std::optional<int> port;             // UDP, of the receiver; nothing: 6454 for Art-Net and 5568 for E1.31
  std::vector<std::uint32_t> senders;  // IPv4 addresses in host order; none: all
};

/// Makes datagrams of the Art-Net or E1.31 in a capture.
///
/// Art-Net is taken as the recorder would write it: every datagram with a whole ArtDmx, at most
/// kLongestDatagram bytes. Of one with bytes that no recording could tell from damage (DatagramBounds), the
/// ArtDmx packets alone are taken. Of E1.31, every data packet with start code 0 for live output becomes an
/// ArtDmx of the same levels, universe n becomes port-address n-1, sequence numbers keep their steps (see
/// SequencePair) for each source. A datagram in fragments has the time at which it is complete.
class CaptureReader : public ForeignReader {
public:
  /// @param name  of the file in messages
  CaptureReader(std::unique_ptr<FrameSource> source, std::string name, CaptureOptions options);

  /// @throws CueError at the end when there was nothing to take, or both protocols and none was chosen
  bool next(ForeignDatagram& datagram) override;

  std::string breaks_off() const override { return frames->breaks_off(); }
  std::vector<std::string> losses() const override;

private:
  /// A source of a universe. A hostile capture may make up as many as it likes, so they are bounded.
  using Stream = std::pair<SacnCid, std::uint16_t>;
  static constexpr std::size_t kMostStreams = 65536;

  struct FirstSource {
    SacnCid cid{};
    std::uint8_t priority = 0;
  };

  /// A datagram by which its copies are known.
  struct Latest {
    std::uint32_t sender = 0;
    std::size_t hash = 0;    // of the payload
    std::int64_t time = -1;  // ns since the first; -1: none yet
  };
  static constexpr std::size_t kLatest = 64;

  struct Counts {
    std::uint64_t artnet = 0;  // taken
    std::uint64_t sacn = 0;    // taken
    std::uint64_t refused = 0;
    std::uint64_t packets_alone = 0;  // datagrams of which only the ArtDmx packets are taken
    std::uint64_t too_long = 0;
    std::uint64_t cut = 0;
    std::uint64_t other_senders = 0;
    std::uint64_t other_start_codes = 0;
    std::uint64_t previews = 0;
    std::uint64_t ends = 0;
    std::uint64_t syncs = 0;
    std::uint64_t discoveries = 0;
    std::uint64_t other_sacn = 0;
    std::uint64_t broken_sacn = 0;
    std::uint64_t other_udp = 0;
    std::uint64_t copies = 0;  // of a datagram just before
    std::uint64_t without_time = 0;
    std::uint64_t backwards = 0;
  };

  bool is_wanted(const UdpDatagram& udp);
  bool take(const UdpDatagram& udp, ForeignDatagram& datagram);
  bool take_artnet(const Bytes& payload, ForeignDatagram& datagram);
  bool take_sacn(const Bytes& payload, ForeignDatagram& datagram);
  void note_source(const SacnPacket& packet);
  std::uint8_t sequence_of(const SacnPacket& packet);
  std::int64_t time_of(const Frame& frame);
  void note_copy(const UdpDatagram& udp);
  std::string instead() const;
  void check_end() const;

  std::unique_ptr<FrameSource> frames;
  std::string file;
  CaptureOptions wanted;
  FrameDecoder decoder;
  Counts count;
  std::map<int, std::uint64_t> lights_at;  // Art-Net and E1.31 datagrams at other ports
  std::map<Stream, SequencePair> streams;
  std::map<std::uint16_t, FirstSource> first_source;  // by universe
  std::set<std::uint16_t> of_several_sources;         // universes
  std::set<std::uint16_t> of_several_priorities;
  std::optional<std::int64_t> first_time;  // ns since 1970
  std::int64_t last_time = 0;              // ns since the first
  ArtDmx dmx{};
  std::vector<std::uint8_t> packets;     // ArtDmx packets of one datagram
  std::array<Latest, kLatest> latest{};  // a ring
  std::size_t next_latest = 0;
};

}  // namespace cue
