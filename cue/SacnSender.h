#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cue/DatagramWalk.h"
#include "cue/Sacn.h"
#include "cue/Targets.h"

namespace cue {

/// The CID of this program on a host: a UUID made of the host's identity, from which that cannot be found
/// out.
/// @param host  what no other host has
SacnCid cid_of(const std::string& host);

/// The CID of this program on this host: it stays the same as long as the system is installed.
SacnCid cid_of_this_host();

/// Sends to the multicast group of each universe.
class GroupSender {
public:
  /// @param from  address of the interface to send from; nothing: the system chooses
  /// @throws CueError when the socket cannot be made or bound
  explicit GroupSender(const std::optional<Destination>& from);
  ~GroupSender();
  GroupSender(const GroupSender&) = delete;
  GroupSender& operator=(const GroupSender&) = delete;
  GroupSender(GroupSender&&) = delete;
  GroupSender& operator=(GroupSender&&) = delete;

  /// @return 0, or errno
  int send(std::uint16_t universe, const Bytes& packet);

  const Failures& failures() const { return failed; }

private:
  int fd;
  bool stuck = false;
  Failures failed;
};

struct SacnOptions {
  SacnSource source;
  std::vector<Target> targets;      // none: the multicast group of each universe
  std::optional<Destination> from;  // address of this host to send from
};

/// Sends a show as E1.31 (ANSI E1.31-2018): each ArtDmx as a packet of its own, universe n as n. A universe
/// that the show leaves alone is repeated, so that receivers do not take it for lost. The end of all streams
/// is sent by finish().
class SacnSender : public PlaybackSink {
public:
  using Now = std::function<kesto::Clock::time_point()>;

  /// @throws CueError when a socket cannot be made
  explicit SacnSender(const SacnOptions& options, Now clock = kesto::Clock::now);

  /// What is no ArtDmx is left out. @return 0, or the errno of the first packet that was not sent;
  /// EADDRNOTAVAIL for a universe that E1.31 does not have
  int send(const std::uint8_t* data, std::size_t size) override;
  bool is_single() const override { return senders.size() <= 1 && no_universe.count == 0; }
  std::vector<Delivery> deliveries() const override;
  std::uint64_t sent() const override { return groups ? taken : senders.sent(); }
  void idle() override;
  void finish() override;

private:
  struct Stream {
    std::uint16_t universe = 0;
    std::uint8_t sequence = 0;  // of the next packet
    std::vector<std::uint8_t> slots;
    kesto::Clock::time_point sent;
    std::list<Stream*>::iterator place;
  };

  int send_levels(const DmxPacket& packet, const std::uint8_t* slots);
  int send_stream(Stream& stream, bool terminated);
  bool repeat_oldest();

  Now now;
  SacnBuilder builder;
  Routes routes;
  TargetSenders senders;
  std::optional<GroupSender> groups;
  std::map<std::uint16_t, Stream> streams;  // by universe
  std::list<Stream*> oldest_first;          // by the time of the last packet
  Failures no_universe;
  std::uint64_t taken = 0;  // multicast packets
};

}  // namespace cue
