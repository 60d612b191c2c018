#include "cue/Completeness.h"

#include <algorithm>
#include <vector>

#include "cue/RecordingInfo.h"
#include "cue/Text.h"
#include "cue/Time.h"

namespace cue {
namespace {

constexpr std::uint64_t kEnough = 8;  // of a kind before it counts as evidence
constexpr std::uint64_t kFewer = 4;   // times fewer oddities make the better explanation
constexpr unsigned kNear = 32;        // numbers
constexpr std::uint64_t kStrange = 16;
constexpr std::uint64_t kOneAlone = 256;

/// Both as one. Times are the earlier ones.
SequenceFigures sum_of(const SequenceFigures& a, const SequenceFigures& b) {
  SequenceFigures sum = a.longest_hole >= b.longest_hole ? a : b;
  const SequenceFigures& other = a.longest_hole >= b.longest_hole ? b : a;
  if (other.holes > 0) sum.first_hole_at = std::min(sum.first_hole_at, other.first_hole_at);
  if (other.jumps > 0 && (sum.jumps == 0 || other.first_jump_at < sum.first_jump_at))
    sum.first_jump_at = other.first_jump_at;
  sum.holes += other.holes;
  sum.missing += other.missing;
  sum.at_least = sum.at_least || other.at_least;
  sum.repeated += other.repeated;
  sum.repeated_same += other.repeated_same;
  sum.out_of_order += other.out_of_order;
  sum.jumps += other.jumps;
  return sum;
}

/// Adds what a counter says, in words.
void tell(std::vector<std::string>& words, const SequenceFigures& figures) {
  if (figures.missing > 0) {
    std::string text = (figures.at_least ? "at least " : "") + counted(figures.missing, "datagram") +
                       " missing in " + counted(figures.holes, "hole") + ", ";
    if (figures.holes > 1)
      text += "the first at " + format_time(figures.first_hole_at) + ", the longest of " +
              std::to_string(figures.longest_hole) + " ";
    words.push_back(text + "at " + format_time(figures.longest_hole_at));
  }
  if (figures.out_of_order > 0) words.push_back(std::to_string(figures.out_of_order) + " out of order");
  if (figures.repeated > 0)
    words.push_back(counted(figures.repeated, "number") + " repeated, " +
                    std::to_string(figures.repeated_same) + " with the same levels");
  if (figures.jumps > 0)
    words.push_back("the count began anew " + counted(figures.jumps, "time") + ", first at " +
                    format_time(figures.first_jump_at));
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : "; ") + word;
  return text;
}

}  // namespace

const char* counting_name(Counting counting) {
  switch (counting) {
    case Counting::Own:
      return "own";
    case Counting::Two:
      return "two";
    case Counting::Shared:
      return "shared";
    case Counting::Partly:
      return "partly";
    case Counting::Chaos:
      return "chaos";
    case Counting::None:
      break;
  }
  return "none";
}

bool UniverseJudge::Pair::goes_to_second(std::uint8_t number) const {
  const bool fits_first = first.expects(number);
  if (!second.started()) return !fits_first && number != first.last();
  const bool fits_second = second.expects(number);
  if (fits_first != fits_second) return fits_second;
  if (fits_first) return !at_second;
  const unsigned to_first = first.distance(number);
  const unsigned to_second = second.distance(number);
  if (std::min(to_first, to_second) > kNear) return !at_second;
  return to_second < to_first;
}

void UniverseJudge::Pair::add(const NumberedPacket& packet) {
  const bool to_second = goes_to_second(packet.number);
  if (to_second != at_second) ++changes;
  at_second = to_second;
  (to_second ? second : first).add(packet);
}

void UniverseJudge::Pair::count_zero() {
  first.count_zero();
  second.count_zero();
}

SequenceFigures UniverseJudge::Pair::figures() const {
  return sum_of(first.figures(), second.figures());
}

void UniverseJudge::add(const NumberedPacket& packet) {
  if (packet.number == 0) {
    add_zero(packet);
    return;
  }
  if (zero) {
    const NumberedPacket before = *zero;
    zero.reset();
    if (packet.number == 1 && not_numbered * kFewer <= numbered) {
      if (one.started() && one.last() == 255) {
        one.count_zero();
        if (pair) pair->count_zero();
      }
      follow(before);
    } else {
      ++not_numbered;
    }
  }
  follow(packet);
}

/// A zero counts when the sender is known to count to it, or when a 1 follows.
void UniverseJudge::add_zero(const NumberedPacket& packet) {
  if (one.counts_zero() && one.distance(0) <= kNear) {
    follow(packet);
    return;
  }
  if (zero) ++not_numbered;
  zero = packet;
}

void UniverseJudge::follow(const NumberedPacket& packet) {
  ++numbered;
  if (!pair && one.started() && !one.expects(packet.number) && packet.number != one.last())
    pair = std::make_unique<Pair>(one);
  one.add(packet);
  if (pair) pair->add(packet);
}

bool UniverseJudge::has_two_senders() const {
  return pair && one.oddities() >= kEnough && pair->switches() >= kEnough &&
         pair->oddities() * kFewer <= one.oddities();
}

/// Whether most numbers follow neither the one before nor a loss.
bool UniverseJudge::is_chaos(const SequenceFigures& figures) const {
  return figures.jumps >= kEnough && (figures.jumps + figures.out_of_order) * 2 > numbered;
}

UniverseSequence UniverseJudge::result() const {
  UniverseSequence result;
  // A zero at the very end counts when it is the next number.
  const bool last_counts = zero && one.started() && one.expects(0);
  result.not_numbered = not_numbered + (zero && !last_counts ? 1 : 0);
  if (numbered == 0 || one.stands()) return result;
  const bool two = has_two_senders();
  const SequenceFigures figures = two ? pair->figures() : one.figures();
  if (is_chaos(figures)) {
    result.counting = Counting::Chaos;
    return result;
  }
  result.figures = figures;
  result.counting = two ? Counting::Two : Counting::Own;
  if (result.not_numbered > 0) result.counting = Counting::Partly;
  return result;
}

bool SharedJudge::Member::belongs(std::uint64_t oddities) const {
  return oddities >= kEnough / 2 && fitted >= kEnough / 2 && (offered - fitted) * kFewer <= oddities;
}

void SharedJudge::add(Member& member, std::uint16_t port_address, const NumberedPacket& packet) {
  const bool begins = !counter.started();
  if (packet.number == 0 && (begins || !counter.expects(0))) return;
  ++member.offered;
  ++since_another;
  if (begins || strange_run > kStrange || since_another > kOneAlone) {
    counter = SequenceCounter();
    strange_run = since_another = 0;
    last_port_address = port_address;
    counter.add(packet);
    return;
  }
  const bool fits = counter.expects(packet.number);
  if (!fits) {
    ++strange_run;
    // Of a universe that nearly always fits it is a step of the shared counter.
    if (member.fitted < kEnough / 2 || member.fitted * kFewer < member.offered * (kFewer - 1)) return;
  } else {
    strange_run = 0;
    ++member.fitted;
    if (packet.number == 0) counter.count_zero();
    if (port_address != last_port_address) since_another = 0;
  }
  last_port_address = port_address;
  counter.add(packet);
}

Completeness completeness_of(const RecordingInfo& info) {
  Completeness all;
  const auto take = [&all](const SequenceFigures& figures, std::uint64_t universes) {
    if (figures.missing > 0) all.universes += universes;
    all.missing += figures.missing;
    all.at_least = all.at_least || figures.at_least;
    if (figures.jumps > 0) all.proved = false;
  };
  take(info.shared.figures, info.shared.universes);
  for (const UniverseInfo& universe : info.universes) {
    const UniverseSequence& sequence = universe.sequence;
    take(sequence.figures, 1);
    if (sequence.counting == Counting::None || sequence.counting == Counting::Partly ||
        sequence.counting == Counting::Chaos || sequence.unproved_pauses > 0)
      all.proved = false;
  }
  return all;
}

std::string completeness_text(const RecordingInfo& info) {
  const Completeness all = completeness_of(info);
  std::string missing;
  if (all.missing > 0)
    missing = (all.at_least ? "at least " : "") + counted(all.missing, "datagram") + " missing in " +
              counted(all.universes, "universe");
  if (info.damage)
    return "damaged at byte " + std::to_string(info.damage->offset) + (missing.empty() ? "" : ", " + missing);
  if (!missing.empty()) return missing;
  if (info.datagrams == 0) return "empty";
  return all.proved ? "complete" : "complete as far as the senders count";
}

std::string sequence_text(const UniverseInfo& universe) {
  const UniverseSequence& sequence = universe.sequence;
  std::vector<std::string> words;
  if (sequence.counting == Counting::None) words.emplace_back("the sender does not count");
  if (sequence.counting == Counting::Chaos)
    words.emplace_back("numbers in no order, as of three senders or more");
  if (sequence.counting == Counting::Partly)
    words.push_back(counted(sequence.not_numbered, "datagram") + " without a number");
  if (sequence.counting == Counting::Shared) words.emplace_back("numbered across universes");
  if (sequence.counting == Counting::Two) words.emplace_back("two senders, each with its own count");
  tell(words, sequence.figures);
  if (sequence.unproved_pauses > 0)
    words.push_back("cannot be proved over " + counted(sequence.unproved_pauses, "pause") +
                    " as long as a whole count");
  if (universe.pauses > 0)
    words.push_back(counted(universe.pauses, "pause") + " over 4 s, the longest " +
                    format_time(universe.longest_gap));
  return joined(words);
}

std::string sequence_text(const SharedSequence& shared) {
  std::vector<std::string> words;
  tell(words, shared.figures);
  return joined(words);
}

}  // namespace cue
