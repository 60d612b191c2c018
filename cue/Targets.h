#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cue/DatagramSender.h"
#include "cue/Selection.h"

namespace cue {

/// Where a playback sends to.
struct Target {
  Destination to;
  std::optional<UniverseSet> universes;  // as they are sent; nothing: all that no other target names
};

/// Which targets get a universe.
class Routes {
public:
  using Indexes = std::vector<std::size_t>;  // of targets, in order

  explicit Routes(const std::vector<Target>& targets);

  /// The targets that name the universe; when none does, those that name no universes.
  const Indexes& of(std::uint16_t port_address) const {
    return group_of.empty() ? groups.front() : groups[group_of[port_address]];
  }

  /// Whether every universe goes to every target.
  bool same_for_all() const { return group_of.empty(); }

private:
  std::vector<Indexes> groups;
  std::vector<std::uint16_t> group_of;  // by port-address; empty: the first group for all
};

/// How the datagrams to one target fared.
struct Delivery {
  std::string target;
  Failures failures;
};

/// All targets of a playback. A datagram counts as sent when one of its targets took it.
class PlaybackSink : public DatagramSink {
public:
  /// For every target, in order.
  virtual std::vector<Delivery> deliveries() const = 0;

  /// Datagrams that a target took.
  virtual std::uint64_t sent() const = 0;

  /// To be called now and then.
  virtual void idle() {}

  /// After the last datagram: ends the streams, and waits a moment for what the network says.
  virtual void finish() = 0;
};

/// Makes the sender to a target.
using MakeSender = std::function<std::unique_ptr<TargetSender>(const Destination&)>;

/// The senders to some targets, each with its failures.
class TargetSenders {
public:
  TargetSenders(const std::vector<Target>& targets, const MakeSender& make);

  /// @return 0 when one of the targets took it or there are none, otherwise the first error
  int send(const Routes::Indexes& to, const Bytes& datagram);

  std::size_t size() const { return senders.size(); }
  std::uint64_t sent() const { return taken; }
  std::vector<Delivery> deliveries() const;

  /// Waits a moment for what the network says about the last datagrams.
  void settle();

private:
  std::vector<std::string> names;
  std::vector<std::unique_ptr<TargetSender>> senders;
  std::uint64_t taken = 0;  // sends that a target took
};

/// Art-Net to several targets. Of a datagram whose universes go to different targets each gets the ArtDmx
/// packets of its own; a datagram without ArtDmx goes to all.
class ArtNetTargets : public PlaybackSink {
public:
  /// @throws CueError from @p make
  ArtNetTargets(const std::vector<Target>& targets, const MakeSender& make);

  int send(const std::uint8_t* data, std::size_t size) override;
  bool is_single() const override { return senders.size() <= 1; }
  std::vector<Delivery> deliveries() const override { return senders.deliveries(); }
  std::uint64_t sent() const override { return senders.sent(); }
  void finish() override { senders.settle(); }

private:
  int send_parts(const Bytes& datagram);

  Routes routes;
  TargetSenders senders;
  Routes::Indexes all;
  std::vector<std::uint8_t> part;
};

}  // namespace cue
