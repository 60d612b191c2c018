#pragma once

#include <cstdint>
#include <vector>

namespace cue {

/// An ArtDmx as its number sees it.
struct NumberedPacket {
  std::uint8_t number = 0;  // Art-Net 4, ArtDmx: 1..255 and then 1 again; 0: the sender does not count
  std::int64_t time = 0;    // ns
  bool same = false;        // it holds the levels of the packet before it in the universe
};

/// What the numbers of one counter say. Times in ns; of a hole: when the datagram after it came.
struct SequenceFigures {
  std::uint64_t holes = 0;
  std::uint64_t missing = 0;       // datagrams in all holes
  std::uint64_t longest_hole = 0;  // datagrams
  std::int64_t first_hole_at = 0;
  std::int64_t longest_hole_at = 0;
  bool at_least = false;  // in a hole there was time for a whole count more
  std::uint64_t repeated = 0;
  std::uint64_t repeated_same = 0;  // of those, with the same levels
  std::uint64_t out_of_order = 0;   // came after a later one
  std::uint64_t jumps = 0;          // to a number that no loss explains: the count began anew
  std::int64_t first_jump_at = 0;
};

/// Follows one counter.
///
/// A number that comes up to 32 datagrams late fills its hole. A step over more than 8 numbers is a hole when
/// there was time for them at four times the usual rate, otherwise a jump; so is a step to 0 or 1 after a
/// pause of a second or more. Numbers go from 255 to 1, or to 0 once that has been seen.
class SequenceCounter {
public:
  void add(const NumberedPacket& packet);

  /// Figures so far.
  SequenceFigures figures() const;

  bool started() const { return begun; }
  std::uint8_t last() const { return number; }

  /// Whether the number is the next one.
  bool expects(std::uint8_t wanted) const;

  /// Numbers from the last one forward to @p wanted, 0..255.
  unsigned forward(std::uint8_t wanted) const;

  /// How far @p wanted is from the last number, in either direction.
  unsigned distance(std::uint8_t wanted) const;

  /// The sender counts from 0 to 255.
  void count_zero() { period = 256; }
  bool counts_zero() const { return period == 256; }

  /// Steps that were not to the next number or to the same.
  std::uint64_t oddities() const { return odd; }

  /// Numbers that came again.
  std::uint64_t repeats() const { return sum.repeated; }

  /// Whether numbers came and never went on, or less often than the levels changed without them.
  bool stands() const {
    const std::uint64_t changed = sum.repeated - sum.repeated_same;
    return sum.repeated > 0 && (steps + odd == 0 || changed > steps + odd);
  }

private:
  /// Numbers that have not come, [from, to) in `position`s.
  struct Hole {
    std::uint64_t from = 0;
    std::uint64_t to = 0;
    std::int64_t at = 0;  // ns
  };

  void step(const NumberedPacket& packet, std::int64_t elapsed);
  void go_on(const NumberedPacket& packet, unsigned by, std::int64_t elapsed);
  void come_late(const NumberedPacket& packet, unsigned behind);
  void repeat(const NumberedPacket& packet);
  void restart(const NumberedPacket& packet);
  bool fill(std::uint64_t place);
  bool has_time_for(unsigned datagrams, std::int64_t elapsed) const;
  void close_holes(std::uint64_t before);
  static void count(SequenceFigures& figures, const Hole& hole);

  bool begun = false;
  std::uint8_t number = 0;       // the last one in order
  std::uint8_t late_number = 0;  // the last one that came late
  unsigned late_run = 0;         // known numbers that came late, one after the other
  unsigned period = 255;
  std::uint64_t position = 0;  // of `number`, counted over all rounds
  std::uint64_t origin = 0;    // position at which the count began
  std::uint64_t steps = 0;     // to the next number
  std::uint64_t odd = 0;
  std::uint64_t to_zero = 0;    // steps from 255 to 0
  std::uint64_t over_zero = 0;  // steps from 255 to 1
  std::int64_t first_over_zero = 0;
  std::int64_t time = 0;   // ns
  std::int64_t usual = 0;  // moving average of the intervals between two numbers, ns
  std::vector<Hole> open;  // that may still be filled, oldest first
  SequenceFigures sum;     // without open holes
};

}  // namespace cue
