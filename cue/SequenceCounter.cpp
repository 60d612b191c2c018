#include "cue/SequenceCounter.h"

#include <algorithm>

#include "cue/Time.h"

namespace cue {
namespace {

constexpr unsigned kLate = 32;  // datagrams by which one can be late
constexpr unsigned kAlwaysAHole = 8;
constexpr unsigned kTimesFaster = 4;
constexpr unsigned kNewCount = 4;  // known numbers in a row that are no late ones any more
constexpr std::int64_t kFastest = kSecond / 1000;
constexpr std::int64_t kRestart = kSecond;
constexpr std::int64_t kUnchanged = 4 * kSecond;
constexpr std::uint8_t kHighest = 255;

}  // namespace

unsigned SequenceCounter::forward(std::uint8_t wanted) const {
  if (number == kHighest && wanted == 1) return 1;
  return (wanted + 2 * period - number) % period;
}

bool SequenceCounter::expects(std::uint8_t wanted) const {
  if (wanted == 0) return number == kHighest;
  return forward(wanted) == 1;
}

unsigned SequenceCounter::distance(std::uint8_t wanted) const {
  const unsigned by = forward(wanted);
  return std::min(by, period - by);
}

/// Whether the sender could send so many datagrams at four times its usual rate.
bool SequenceCounter::has_time_for(unsigned datagrams, std::int64_t elapsed) const {
  if (steps == 0) return elapsed / kFastest >= datagrams;
  return datagrams * usual / kTimesFaster - usual <= elapsed;
}

void SequenceCounter::add(const NumberedPacket& packet) {
  if (!begun) {
    begun = true;
    number = packet.number;
    time = packet.time;
    return;
  }
  const std::int64_t elapsed = std::max<std::int64_t>(0, packet.time - time);
  const unsigned by = forward(packet.number);
  const unsigned behind = period - by;
  time = packet.time;
  if (by == 1)
    step(packet, elapsed);
  else if (by == 0)
    repeat(packet);
  else if (behind <= kLate && (elapsed == 0 || !has_time_for(by - 1, elapsed)))
    come_late(packet, behind);
  else
    go_on(packet, by, elapsed);
}

void SequenceCounter::step(const NumberedPacket& packet, std::int64_t elapsed) {
  if (number == kHighest) {
    if (packet.number == 0) ++to_zero;
    if (packet.number == 1) {
      if (over_zero++ == 0) first_over_zero = packet.time;
      if (counts_zero()) ++position;
    }
  }
  if (elapsed <= kUnchanged) usual = steps == 0 ? elapsed : usual + (elapsed - usual) / 16;
  ++steps;
  ++position;
  number = packet.number;
  late_run = 0;
  if (!open.empty()) close_holes(position > kLate ? position - kLate : 0);
}

void SequenceCounter::repeat(const NumberedPacket& packet) {
  ++sum.repeated;
  if (packet.same) ++sum.repeated_same;
}

void SequenceCounter::go_on(const NumberedPacket& packet, unsigned by, std::int64_t elapsed) {
  const unsigned passed_over = by - 1;
  const bool begins_anew = packet.number <= 1 && elapsed >= kRestart && passed_over > kAlwaysAHole;
  if (begins_anew || (passed_over > kAlwaysAHole && !has_time_for(passed_over, elapsed))) {
    restart(packet);
    return;
  }
  ++odd;
  open.push_back({position + 1, position + by, packet.time});
  if (steps > 0 && elapsed >= (passed_over + period) * usual && usual > 0) sum.at_least = true;
  position += by;
  number = packet.number;
  late_run = 0;
  close_holes(position > kLate ? position - kLate : 0);
}

/// A number that cannot be told from a new one, or was passed over before.
void SequenceCounter::come_late(const NumberedPacket& packet, unsigned behind) {
  ++odd;
  if (packet.number == 0 && over_zero > 0) {
    --over_zero;
    ++to_zero;
    ++sum.out_of_order;
    return;
  }
  if (behind > position - origin || fill(position - behind)) {
    ++sum.out_of_order;
    return;
  }
  const bool goes_on = late_run > 0 && (late_number + 1) % period == packet.number % period;
  late_run = goes_on ? late_run + 1 : 1;
  late_number = packet.number;
  repeat(packet);
  if (late_run < kNewCount) return;
  sum.repeated -= late_run;
  sum.repeated_same -= std::min<std::uint64_t>(sum.repeated_same, late_run);
  restart(packet);
}

void SequenceCounter::restart(const NumberedPacket& packet) {
  ++odd;
  if (sum.jumps++ == 0) sum.first_jump_at = packet.time;
  close_holes(position + 1);
  position += 1;
  origin = position;
  number = packet.number;
  late_run = 0;
}

/// @return whether the number at @p place was missing
bool SequenceCounter::fill(std::uint64_t place) {
  const auto hole = std::find_if(open.begin(), open.end(),
                                 [place](const Hole& one) { return one.from <= place && place < one.to; });
  if (hole == open.end()) return false;
  const Hole rest{place + 1, hole->to, hole->at};
  hole->to = place;
  const bool begins = hole->from == hole->to;
  if (rest.from < rest.to) {
    if (begins)
      *hole = rest;
    else
      open.insert(hole + 1, rest);
  } else if (begins) {
    open.erase(hole);
  }
  return true;
}

/// Holes that end before this position cannot be filled any more.
void SequenceCounter::close_holes(std::uint64_t before) {
  auto hole = open.begin();
  for (; hole != open.end() && hole->to <= before; ++hole) count(sum, *hole);
  open.erase(open.begin(), hole);
}

void SequenceCounter::count(SequenceFigures& figures, const Hole& hole) {
  const std::uint64_t size = hole.to - hole.from;
  if (figures.holes++ == 0) figures.first_hole_at = hole.at;
  figures.missing += size;
  if (size <= figures.longest_hole) return;
  figures.longest_hole = size;
  figures.longest_hole_at = hole.at;
}

SequenceFigures SequenceCounter::figures() const {
  SequenceFigures all = sum;
  for (const Hole& hole : open) count(all, hole);
  // Who counts to 0 loses one now and then; who goes to 1 more often counts without it.
  if (over_zero == 0 || over_zero >= to_zero) return all;
  if (all.holes == 0 || first_over_zero < all.first_hole_at) all.first_hole_at = first_over_zero;
  if (all.longest_hole == 0) {
    all.longest_hole = 1;
    all.longest_hole_at = first_over_zero;
  }
  all.holes += over_zero;
  all.missing += over_zero;
  return all;
}

}  // namespace cue
