#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

#include "artnet/ArtNet.h"
#include "artnet/ArtNetPackets.h"
#include "kesto/udpsocket.h"

/// Sends ArtPollReplies.
class ReplySender {
public:
  ReplySender() = default;
  virtual ~ReplySender() = default;
  ReplySender(const ReplySender&) = delete;
  ReplySender& operator=(const ReplySender&) = delete;
  ReplySender(ReplySender&&) = delete;
  ReplySender& operator=(ReplySender&&) = delete;

  /// Whether a reply may go out now: the send buffer must keep room for datagrams that matter more.
  virtual bool has_room() = 0;

  /// Sends one reply. A failure concerns this reply alone: it is lost.
  virtual void send(const ArtPollReply& reply, const kesto::net::HostAddress& address, int port) = 0;
};

/// Answers ArtPolls: one ArtPollReply for each universe that the recorder offers, in order, to the address
/// and port of the asker. A long answer goes out in portions, a few replies between two datagrams; askers
/// take turns.
///
/// Receive thread only. It neither waits nor logs; that is left to the caller.
class PollResponder {
public:
  /// Replies that an ArtPoll gets at once; also the limit for send_due() while no datagram waits.
  static constexpr int kAtOnce = 64;

  /// Limit for send_due() between two datagrams: an answer of thousands of replies must not hold a recording
  /// up.
  static constexpr int kBetweenDatagrams = 4;

  /// Most askers that wait for the rest of their answers at the same time. A console is one asker, however
  /// often it asks.
  static constexpr std::size_t kAskers = 256;

  /// A host that frees no room in the send buffer for so long cannot be reached; ns.
  static constexpr std::int64_t kUnreachable = 500'000'000;

  /// Outcome of an ArtPoll.
  enum class Asked {
    Taken,         // answered, or the answer is under way
    FirstRefused,  // kAskers wait: no answer. The first refusal since no asker waited: log it
    Refused,       // kAskers wait: no answer
  };

  /// When send_due() is to be called again.
  enum class Wait {
    NothingDue,  // after the next ask()
    MoreDue,     // at once
    NoRoom,      // when datagrams have left the send buffer: replies are due, but have no room
  };

  /// @param announced  universes to announce; 0 or less: no ArtPoll is answered
  PollResponder(const NodeIdentity& identity, std::int32_t announced)
      : universe_count(announced), reply(make_art_poll_reply(identity)) {}

  /// An ArtPoll has come from this address. The first kAtOnce replies to a new asker leave before this
  /// returns, as far as there is room. An asker whose answer is under way gets just one more answer after it,
  /// however many ArtPolls come meanwhile: otherwise replies could go on for a minute after it has left.
  Asked ask(const kesto::net::HostAddress& address, int port, ReplySender& sender);

  /// Sends at most @p limit of the due replies, all to one asker. The kernel holds datagrams to a silent host
  /// for seconds: an asker whose replies leave no room for kUnreachable ns is forgotten.
  /// @param now  ns on a clock that never goes back
  Wait send_due(int limit, std::int64_t now, ReplySender& sender);

  /// Number of askers whose answers are under way, 0..kAskers.
  std::size_t waiting() const { return askers.size(); }
  bool nobody_waits() const { return askers.empty(); }

private:
  /// An asker whose answer is under way.
  struct Asker {
    kesto::net::HostAddress address;
    int port;
    std::int32_t next;  // port-address of the next reply, below universe_count
    bool again;         // an ArtPoll came meanwhile
  };

  /// Sends to the asker at the front. @return false when the room ran out
  bool send_turn(int limit, ReplySender& sender);

  /// Forgets the asker of the last reply when there has been no room for kUnreachable ns.
  void forget_unreachable(std::int64_t now);

  std::deque<Asker>::iterator find(const kesto::net::HostAddress& address, int port);

  // Constant after construction, so it needs no atomic read.
  const std::int32_t universe_count;

  std::deque<Asker> askers;    // the front is next
  bool refusal_known = false;  // an ArtPoll has been refused since no asker waited

  // The last reply that was sent.
  ArtPollReply reply;
  kesto::net::HostAddress last_address;
  int last_port = 0;

  std::optional<std::int64_t> full_since;  // since then there has been no room, and nothing was sent
};
