#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "cue/SequenceCounter.h"

/// Whether all datagrams that were sent are in a recording, as far as their sequence numbers tell.
namespace cue {

struct RecordingInfo;
struct UniverseInfo;

/// How the datagrams of a universe are numbered.
enum class Counting {
  Own,     // by one counter of its own
  Two,     // by two counters: two senders
  Shared,  // by one counter for several universes
  Partly,  // some have number 0
  None,    // all have number 0, or their levels change without the number
  Chaos,   // the numbers follow no order that is known: three senders, for example
};

/// "own", "two", "shared", "partly", "none", "chaos".
const char* counting_name(Counting counting);

/// What the numbers of one universe say.
struct UniverseSequence {
  Counting counting = Counting::None;
  SequenceFigures figures;            // Shared: all 0, see SharedSequence; None, Chaos: all 0
  std::uint64_t not_numbered = 0;     // datagrams with number 0 of a sender that does not count to it
  std::uint64_t unproved_pauses = 0;  // long enough for a whole count of datagrams at the usual rate
};

/// The counter that several universes share.
struct SharedSequence {
  std::uint64_t universes = 0;  // 0: there is none
  SequenceFigures figures;
};

/// Judges the numbers of one universe, datagram by datagram.
class UniverseJudge {
public:
  void add(const NumberedPacket& packet);

  /// Datagrams that one counter of its own does not explain.
  std::uint64_t oddities() const { return one.oddities() + one.repeats() + not_numbered + (zero ? 1 : 0); }

  UniverseSequence result() const;

private:
  /// Two counters, each datagram given to the one that it fits better.
  class Pair {
  public:
    explicit Pair(SequenceCounter so_far) : first(std::move(so_far)) {}
    void add(const NumberedPacket& packet);
    void count_zero();
    std::uint64_t switches() const { return changes; }
    std::uint64_t oddities() const { return first.oddities() + second.oddities(); }
    SequenceFigures figures() const;

  private:
    bool goes_to_second(std::uint8_t number) const;

    SequenceCounter first;
    SequenceCounter second;
    bool at_second = false;  // the last datagram was the second's
    std::uint64_t changes = 0;
  };

  void add_zero(const NumberedPacket& packet);
  void follow(const NumberedPacket& packet);
  bool has_two_senders() const;
  bool is_chaos(const SequenceFigures& figures) const;

  SequenceCounter one;
  std::unique_ptr<Pair> pair;          // since the first oddity
  std::optional<NumberedPacket> zero;  // the next number says whether it counts
  std::uint64_t numbered = 0;
  std::uint64_t not_numbered = 0;
};

/// Finds out whether several universes are numbered by one counter. It is given the datagrams of all
/// universes that do not have one counter of their own.
class SharedJudge {
public:
  /// Part of one universe.
  struct Member {
    std::uint64_t offered = 0;
    std::uint64_t fitted = 0;
    /// @param oddities  of the universe's own counter
    bool belongs(std::uint64_t oddities) const;
  };

  void add(Member& member, std::uint16_t port_address, const NumberedPacket& packet);

  SequenceFigures figures() const { return counter.figures(); }

private:
  SequenceCounter counter;
  std::uint16_t last_port_address = 0;
  std::uint64_t strange_run = 0;    // datagrams that did not fit, one after the other
  std::uint64_t since_another = 0;  // datagrams since one universe followed another
};

/// What is known of the whole recording.
struct Completeness {
  std::uint64_t missing = 0;    // datagrams
  std::uint64_t universes = 0;  // in which they are missing
  bool at_least = false;
  bool proved = true;  // every universe is numbered, and nothing stayed open
};

Completeness completeness_of(const RecordingInfo& info);

/// The last line: "complete", "complete as far as the senders count", "2 datagrams missing in 1 universe",
/// "damaged at byte 40"; "empty" for a recording without datagrams.
std::string completeness_text(const RecordingInfo& info);

/// What is to be said of a universe in words; empty when its one counter is without a fault.
std::string sequence_text(const UniverseInfo& universe);

/// The same of the counter that universes share.
std::string sequence_text(const SharedSequence& shared);

}  // namespace cue
