#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

#include "artnet/ArtNet.h"
#include "artnet/ArtNetPackets.h"
#include "kesto/udpsocket.h"

/// The way out for ArtPollReplies.
class ReplySender {
public:
  ReplySender() = default;
  virtual ~ReplySender() = default;
  ReplySender(const ReplySender&) = delete;
  ReplySender& operator=(const ReplySender&) = delete;
  ReplySender(ReplySender&&) = delete;
  ReplySender& operator=(ReplySender&&) = delete;

  /// Whether a reply may go out now and still leaves enough of the send buffer to datagrams that matter more.
  virtual bool has_room() = 0;

  /// Sends one reply. A failure concerns this reply alone: it is lost.
  virtual void send(const ArtPollReply& reply, const kesto::net::HostAddress& address, int port) = 0;
};

/// Answers ArtPolls: one ArtPollReply for each universe that the recorder offers, in order, to the address
/// and port that asked. A long answer goes out in portions, a few replies between two datagrams; askers take
/// turns.
///
/// Receive thread only. It neither waits nor logs: what is to be done about a result is the caller's.
class PollResponder {
public:
  /// Replies that an ArtPoll brings at once; also a good limit for send_due() while no datagram waits.
  static constexpr int kAtOnce = 64;

  /// Limit for send_due() between two datagrams: an answer of thousands of replies holds no recording up.
  static constexpr int kBetweenDatagrams = 4;

  /// Askers that can wait for the rest of their answers at the same time. A console is one, however often it
  /// asks.
  static constexpr std::size_t kAskers = 256;

  /// Replies to a host that can be reached leave the send buffer sooner than this, ns.
  static constexpr std::int64_t kUnreachable = 500'000'000;

  /// What became of an ArtPoll.
  enum class Asked {
    Taken,         // answered, or the answer is under way
    FirstRefused,  // kAskers wait: no answer. The first since nobody waited: worth a line in the log
    Refused,       // kAskers wait: no answer
  };

  /// When send_due() is to be called again.
  enum class Wait {
    NothingDue,  // after the next ask()
    MoreDue,     // at once
    NoRoom,      // when datagrams have left: replies are due, but there is no room for them
  };

  /// @param announced  universes to announce; 0 or less: no ArtPoll is answered
  PollResponder(const NodeIdentity& identity, std::int32_t announced)
      : universe_count(announced), reply(make_art_poll_reply(identity)) {}

  /// An ArtPoll has come from there. The first kAtOnce replies to a new asker leave before this returns, as
  /// far as there is room. An asker whose answer is under way gets one more answer after it, however many
  /// ArtPolls came meanwhile: it must not be answered for a minute after it has gone.
  Asked ask(const kesto::net::HostAddress& address, int port, ReplySender& sender);

  /// Sends at most @p limit of the replies that are due, all to one asker. The kernel keeps datagrams to a
  /// host that gives no sign of life for seconds: an asker whose replies leave no room for kUnreachable ns
  /// gets no more of them.
  /// @param now  ns on a clock that never goes back
  Wait send_due(int limit, std::int64_t now, ReplySender& sender);

  /// Askers whose answers are not complete, 0..kAskers.
  std::size_t waiting() const { return askers.size(); }

private:
  /// An asker whose answer is under way.
  struct Asker {
    kesto::net::HostAddress address;
    int port;
    std::int32_t next;  // port-address of the next reply, below universe_count
    bool again;         // an ArtPoll came meanwhile
  };

  /// Sends to the asker at the front. @return false when there was no room for all of it
  bool send_turn(int limit, ReplySender& sender);

  /// Forgets the asker to whom the last reply went when there has been no room since long ago.
  void forget_unreachable(std::int64_t now);

  std::deque<Asker>::iterator find(const kesto::net::HostAddress& address, int port);

  // Constant after construction, so it needs no atomic read.
  const std::int32_t universe_count;

  std::deque<Asker> askers;    // the one at the front is next
  bool refusal_known = false;  // an ArtPoll was refused since nobody waited

  // The last reply that was sent.
  ArtPollReply reply;
  kesto::net::HostAddress last_address;
  int last_port = 0;

  std::optional<std::int64_t> full_since;  // no room was found since then; nothing was sent since
};
