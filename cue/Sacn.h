#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "cue/Selection.h"

/// E1.31, DMX over streaming ACN (ANSI E1.31-2018), as it lies in UDP datagrams.
namespace cue {

/// UDP port of E1.31.
constexpr int kSacnPort = 5568;

/// Universes count from 1; the numbers above are reserved.
constexpr std::uint16_t kSacnUniverseLimit = 63999;

/// Longest name of a source in bytes, without the zero behind it.
constexpr std::size_t kSacnNameSize = 63;

/// Bytes of a data packet before its slots.
constexpr std::size_t kSacnHeaderSize = 126;

using SacnCid = std::array<std::uint8_t, 16>;

/// Who sends.
struct SacnSource {
  SacnCid cid{};                // a UUID that stays the same for this sender
  std::string name;             // UTF-8; cut behind a whole character when longer than kSacnNameSize
  std::uint8_t priority = 100;  // 0..200, the highest wins
};

/// What a data packet says.
struct SacnData {
  std::uint16_t universe = 0;       // 1..kSacnUniverseLimit
  std::uint16_t sync_universe = 0;  // the look waits for a sync packet there; 0: it does not wait
  std::uint8_t sequence = 0;        // counted for each universe
  std::uint8_t priority = 0;        // 0..200
  std::uint8_t start_code = 0;      // 0: the slots are levels
  bool preview = false;             // not for live output
  bool terminated = false;          // the stream ends; the slots mean nothing
  Bytes slots;                      // levels, 0..512
  Bytes name;                       // of the source, as it was sent: 0..64 bytes before the first zero
};

/// Multicast group of a universe: 239.255.h.l in host order.
constexpr std::uint32_t sacn_group(std::uint16_t universe) {
  return 0xEFFF0000U | universe;
}

/// Makes the data packets of one source.
class SacnBuilder {
public:
  explicit SacnBuilder(const SacnSource& source);

  /// A packet with everything that @p data says, but with the priority and the name of the source.
  /// @return bytes that are valid until the next call
  /// @throws CueError when the universe is outside 1..kSacnUniverseLimit, or there are not 1 to 512 slots
  Bytes packet(const SacnData& data);

private:
  std::array<std::uint8_t, kSacnHeaderSize + 512> bytes{};
};

enum class SacnKind {
  Data,
  Sync,       // universe synchronisation
  Discovery,  // the universes of a source
  Other,      // ACN, but none of these three
  Broken,     // no ACN, or lengths and flags that do not hold
};

struct SacnPacket {
  SacnKind kind = SacnKind::Broken;
  SacnCid cid{};  // not of broken packets
  SacnData data;  // of data packets; slots and name lie in the parsed bytes
};

/// Looks at the payload of a UDP datagram. Bytes behind the packet are allowed.
SacnPacket parse_sacn(const std::uint8_t* bytes, std::size_t size);

/// Whether a datagram begins like every ACN packet over UDP.
bool begins_sacn(const std::uint8_t* bytes, std::size_t size);

/// The numbers that one packet has in both protocols. Art-Net counts 1..255, E1.31 counts 0..255.
///
/// What is carried over is the step from packet to packet, so that every number missing, repeated or out of
/// order on one side is so on the other, and neither side has a hole where its count begins again. To one
/// side and back gives the same numbers again.
struct SequencePair {
  std::uint8_t artnet = 0;
  std::uint8_t sacn = 0;
};

/// The pair of a packet with this E1.31 number. @param last  of its stream; nothing for the first
SequencePair pair_of_sacn(const std::optional<SequencePair>& last, std::uint8_t sacn);

/// The pair of a packet with this Art-Net number; one that is not counted (0) is counted on.
/// @param last  of its universe; nothing for the first
SequencePair pair_of_artnet(const std::optional<SequencePair>& last, std::uint8_t artnet);

}  // namespace cue
