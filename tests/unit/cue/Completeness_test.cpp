#include "cue/Completeness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "cue/RecordingInfo.h"
#include "cue/Time.h"
#include "unit/cue/recordings.h"

using cue::Counting;
using cue::kSecond;

namespace {

constexpr std::int64_t kMs = kSecond / 1000;
constexpr std::int64_t kFrame = 22 * kMs + 727'272;

/// A datagram on its way: when it arrives, its universe and number.
struct Sent {
  std::int64_t time = 0;
  unsigned port_address = 0;
  unsigned number = 0;
  std::string levels = "a";
};

/// A sender of one universe, a frame after the other.
class Sender {
public:
  explicit Sender(unsigned universe, unsigned first = 1, unsigned lowest = 1, std::int64_t from = 0,
                  std::int64_t step = kFrame)
      : port_address(universe), number(first), low(lowest), time(from), frame(step) {}

  std::vector<Sent> send(unsigned count) {
    std::vector<Sent> sent;
    for (; count > 0; --count) {
      sent.push_back({time, port_address, number, std::to_string(frames++)});
      time += frame;
      number = number == 255 ? low : number + 1;
    }
    return sent;
  }

  void skip(unsigned count) { send(count); }
  void pause(std::int64_t length) { time += length; }
  void restart_at(unsigned first) { number = first; }

private:
  unsigned port_address;
  unsigned number;
  unsigned low;
  std::int64_t time;
  std::int64_t frame;
  unsigned frames = 0;
};

std::vector<Sent> operator+(std::vector<Sent> a, const std::vector<Sent>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

cue::RecordingInfo judge(std::vector<Sent> sent) {
  std::stable_sort(sent.begin(), sent.end(), [](const Sent& a, const Sent& b) { return a.time < b.time; });
  cue::InfoCounter counter;
  for (const Sent& one : sent) {
    const std::string bytes = packets::dmx(one.levels, one.port_address, one.number);
    cue::Record record;
    record.data = recordings::bytes_of(bytes);
    record.size = bytes.size();
    record.time = one.time;
    counter.add(record);
  }
  return counter.result();
}

const cue::UniverseSequence& first_of(const cue::RecordingInfo& info) {
  return info.universes.at(0).sequence;
}

std::string verdict(const std::vector<Sent>& sent) {
  return cue::completeness_text(judge(sent));
}

TEST(Completeness, IsProvedByNumbersWithoutAFault) {
  for (const unsigned lowest : {0U, 1U}) {
    const cue::RecordingInfo info = judge(Sender(0, 200, lowest).send(2000));
    EXPECT_EQ(first_of(info).counting, Counting::Own);
    EXPECT_EQ(first_of(info).not_numbered, 0U);
    EXPECT_EQ(first_of(info).figures.repeated, 0U);
    EXPECT_EQ(cue::completeness_text(info), "complete");
    EXPECT_EQ(cue::sequence_text(info.universes[0]), "");
  }
  EXPECT_EQ(verdict({}), "empty");
  EXPECT_EQ(verdict(Sender(3).send(1)), "complete");
}

TEST(Completeness, GoesAsFarAsTheSendersCount) {
  std::vector<Sent> zeros = Sender(0).send(100);
  std::vector<Sent> standing = zeros;
  for (Sent& one : zeros) one.number = 0;
  for (Sent& one : standing) one.number = 7;
  for (const std::vector<Sent>& sent : {zeros, standing}) {
    const cue::RecordingInfo info = judge(sent);
    EXPECT_EQ(first_of(info).counting, Counting::None);
    EXPECT_EQ(cue::completeness_text(info), "complete as far as the senders count");
    EXPECT_EQ(cue::sequence_text(info.universes[0]), "the sender does not count");
  }
  EXPECT_EQ(verdict(zeros + Sender(1).send(50)), "complete as far as the senders count");
}

TEST(Completeness, TellsHolesWithTheirTimes) {
  Sender sender(4);
  std::vector<Sent> sent = sender.send(10);
  sender.skip(1);
  sent = sent + sender.send(300);
  sender.skip(40);
  sent = sent + sender.send(300);
  const cue::RecordingInfo info = judge(sent);
  const cue::SequenceFigures& found = first_of(info).figures;
  EXPECT_EQ(found.holes, 2U);
  EXPECT_EQ(found.missing, 41U);
  EXPECT_EQ(found.longest_hole, 40U);
  EXPECT_EQ(found.first_hole_at, 11 * kFrame);
  EXPECT_EQ(found.longest_hole_at, 351 * kFrame);
  EXPECT_FALSE(found.at_least);
  EXPECT_EQ(cue::sequence_text(info.universes[0]),
            "41 datagrams missing in 2 holes, the first at 0.250 s, the longest of 40 at 7.977 s");
  EXPECT_EQ(cue::completeness_text(info), "41 datagrams missing in 1 universe");
}

TEST(Completeness, TellsALossOfNearlyAWholeCount) {
  for (const unsigned lost : {222U, 230U, 250U, 253U}) {
    Sender sender(0);
    std::vector<Sent> sent = sender.send(300);
    sender.skip(lost);
    sent = sent + sender.send(300);
    EXPECT_EQ(verdict(sent), std::to_string(lost) + " datagrams missing in 1 universe");
  }
}

TEST(Completeness, SaysAtLeastWhenTheCountMayHaveGoneRound) {
  Sender sender(0);
  std::vector<Sent> sent = sender.send(300);
  sender.skip(300);
  sent = sent + sender.send(300);
  const cue::RecordingInfo info = judge(sent);
  EXPECT_EQ(cue::completeness_text(info), "at least 45 datagrams missing in 1 universe");
}

TEST(Completeness, CannotBeProvedOverAPauseAsLongAsAWholeCount) {
  Sender sender(0);
  std::vector<Sent> sent = sender.send(300);
  sender.pause(6 * kSecond);
  sent = sent + sender.send(300);
  const cue::RecordingInfo info = judge(sent);
  EXPECT_EQ(first_of(info).unproved_pauses, 1U);
  EXPECT_EQ(cue::sequence_text(info.universes[0]),
            "cannot be proved over 1 pause as long as a whole count; 1 pause over 4 s, the longest 6.023 s");
  EXPECT_EQ(cue::completeness_text(info), "complete as far as the senders count");
}

TEST(Completeness, CannotBeProvedWhenExactlyAWholeCountMayBeMissing) {
  std::vector<Sent> sent = Sender(0).send(900);
  sent.erase(sent.begin() + 400, sent.begin() + 655);
  // It came a little early.
  sent[400].time -= kMs;
  const cue::RecordingInfo info = judge(sent);
  EXPECT_EQ(first_of(info).unproved_pauses, 1U);
  EXPECT_EQ(cue::completeness_text(info), "complete as far as the senders count");
}

TEST(Completeness, NothingIsToldOfNumbersInNoOrder) {
  const std::vector<Sent> three = Sender(0, 1).send(600) + Sender(0, 100, 1, 5 * kMs, 33 * kMs).send(400) +
                                  Sender(0, 180, 1, 9 * kMs, 40 * kMs).send(340);
  const cue::RecordingInfo info = judge(three);
  EXPECT_EQ(first_of(info).counting, Counting::Chaos);
  EXPECT_EQ(first_of(info).figures.missing, 0U);
  EXPECT_EQ(cue::sequence_text(info.universes[0]), "numbers in no order, as of three senders or more");
  EXPECT_EQ(cue::completeness_text(info), "complete as far as the senders count");
}

TEST(Completeness, ANumberThatStandsWhileLevelsChangeIsNoCount) {
  std::vector<Sent> sent = Sender(0).send(600);
  for (std::size_t at = 0; at < sent.size(); ++at) {
    sent[at].number = at < 300 ? 1 : 2;
    sent[at].levels = at % 2 == 0 ? "a" : "b";
  }
  const cue::RecordingInfo info = judge(sent);
  EXPECT_EQ(first_of(info).counting, Counting::None);
  EXPECT_EQ(cue::completeness_text(info), "complete as far as the senders count");
}

TEST(Completeness, CountsPausesBeyondFourSeconds) {
  Sender sender(0);
  std::vector<Sent> sent = sender.send(300);
  sender.pause(4 * kSecond - kFrame);
  sent = sent + sender.send(2);
  sender.pause(4 * kSecond);
  sent = sent + sender.send(300);
  const cue::RecordingInfo info = judge(sent);
  EXPECT_EQ(info.universes[0].pauses, 1U);
  EXPECT_EQ(info.universes[0].longest_gap, 4 * kSecond + kFrame);
  EXPECT_EQ(cue::completeness_text(info), "complete");
}

TEST(Completeness, ALateDatagramFillsItsHole) {
  std::vector<Sent> sent = Sender(0).send(600);
  std::swap(sent[10].number, sent[11].number);
  std::swap(sent[254].number, sent[258].number);  // the last before the count begins anew
  const cue::RecordingInfo info = judge(sent);
  EXPECT_EQ(first_of(info).figures.out_of_order, 5U);
  EXPECT_EQ(first_of(info).figures.repeated, 0U);
  EXPECT_EQ(cue::completeness_text(info), "complete");
  EXPECT_EQ(cue::sequence_text(info.universes[0]), "5 out of order");
}

TEST(Completeness, ALateDatagramSplitsAHole) {
  std::vector<Sent> sent = Sender(0).send(600);
  // 21..27 are passed over, 24 and then 21 come late.
  std::vector<Sent> late{sent[23], sent[20]};
  late[0].time = late[1].time = sent[30].time + 1;
  sent.erase(sent.begin() + 20, sent.begin() + 27);
  const cue::SequenceFigures found = first_of(judge(sent + late)).figures;
  EXPECT_EQ(found.holes, 2U);
  EXPECT_EQ(found.missing, 5U);
  EXPECT_EQ(found.longest_hole, 3U);
  EXPECT_EQ(found.out_of_order, 2U);
}

TEST(Completeness, ADatagramFromBeforeTheFirstIsOutOfOrder) {
  std::vector<Sent> sent = Sender(0, 5).send(50);
  std::swap(sent[0].number, sent[1].number);
  const cue::SequenceFigures found = first_of(judge(sent)).figures;
  EXPECT_EQ(found.out_of_order, 1U);
  EXPECT_EQ(found.missing, 0U);
}

TEST(Completeness, TellsRepeatedNumbers) {
  std::vector<Sent> sent = Sender(0).send(100);
  std::vector<Sent> again{sent[10], sent[20], sent[30]};
  for (Sent& one : again) one.time += 1;
  again[1].levels = "other";
  again[2].time = sent[33].time + 1;
  const cue::RecordingInfo info = judge(sent + again);
  EXPECT_EQ(cue::sequence_text(info.universes[0]), "3 numbers repeated, 1 with the same levels");
  EXPECT_EQ(cue::completeness_text(info), "complete");
}

TEST(Completeness, ASenderThatBeginsAnewLosesNothing) {
  for (const unsigned first : {0U, 1U}) {
    Sender sender(0);
    std::vector<Sent> sent = sender.send(100);
    sender.pause(3 * kSecond);
    sender.restart_at(first);
    const cue::RecordingInfo info = judge(sent + sender.send(100));
    EXPECT_EQ(first_of(info).figures.missing, 0U);
    EXPECT_EQ(cue::sequence_text(info.universes[0]), "the count began anew 1 time, first at 5.273 s");
    EXPECT_EQ(cue::completeness_text(info), "complete as far as the senders count");
  }
}

TEST(Completeness, AJumpWithoutTimeForItIsNoHole) {
  for (const unsigned number : {5U, 95U, 180U}) {
    Sender sender(0);
    std::vector<Sent> sent = sender.send(100);
    sender.restart_at(number);
    const cue::SequenceFigures found = first_of(judge(sent + sender.send(100))).figures;
    EXPECT_EQ(found.missing, 0U) << number;
    EXPECT_EQ(found.jumps, 1U) << number;
    EXPECT_EQ(found.repeated, 0U) << number;
  }
}

TEST(Completeness, TwoSendersAreNoHoles) {
  // The second at the same rate, as a slow one that repeats its look, and with a number near the first.
  for (const auto& [number, frame] : std::vector<std::pair<unsigned, std::int64_t>>{
           {100, kFrame}, {100, kSecond}, {5, kFrame}, {60, 30 * kMs}}) {
    const auto length = static_cast<unsigned>(20 * kSecond / frame);
    const cue::RecordingInfo info =
        judge(Sender(0).send(880) + Sender(0, number, 1, 7 * kMs, frame).send(length));
    EXPECT_EQ(first_of(info).counting, Counting::Two) << number << " " << frame;
    EXPECT_EQ(cue::sequence_text(info.universes[0]), "two senders, each with its own count");
    EXPECT_EQ(cue::completeness_text(info), "complete");
  }
}

TEST(Completeness, EachOfTwoSendersHasItsOwnHoles) {
  Sender one(0);
  Sender other(0, 150, 1, 7 * kMs);
  std::vector<Sent> sent = one.send(100) + other.send(200);
  one.skip(3);
  other.skip(2);
  sent = sent + one.send(400) + other.send(300);
  const cue::RecordingInfo info = judge(sent);
  EXPECT_EQ(first_of(info).counting, Counting::Two);
  EXPECT_EQ(first_of(info).figures.holes, 2U);
  EXPECT_EQ(cue::completeness_text(info), "5 datagrams missing in 1 universe");
}

TEST(Completeness, ASenderThatDoesNotCountBesideOneThatDoes) {
  std::vector<Sent> zeros = Sender(0, 1, 1, 7 * kMs).send(600);
  for (Sent& one : zeros) one.number = 0;
  for (const unsigned lowest : {0U, 1U}) {
    const cue::RecordingInfo info = judge(Sender(0, 1, lowest).send(600) + zeros);
    EXPECT_EQ(first_of(info).counting, Counting::Partly);
    EXPECT_EQ(first_of(info).figures.missing, 0U);
    EXPECT_EQ(cue::completeness_text(info), "complete as far as the senders count");
  }
}

/// A sender that numbers all its universes with one counter.
std::vector<Sent> shared_sender(unsigned universes, unsigned frames, unsigned lowest, unsigned from = 0) {
  std::vector<Sent> sent;
  unsigned number = 1;
  for (unsigned frame = 0; frame < frames; ++frame) {
    for (unsigned universe = 0; universe < universes; ++universe) {
      sent.push_back({frame * kFrame + universe * kMs / 20, from + universe, number, "a"});
      number = number == 255 ? lowest : number + 1;
    }
  }
  return sent;
}

TEST(Completeness, OneCounterAcrossUniversesIsNoHole) {
  for (const unsigned universes : {2U, 3U, 14U, 300U}) {
    for (const unsigned lowest : {0U, 1U}) {
      // A universe of another sender is between them.
      const cue::RecordingInfo info =
          judge(shared_sender(universes, 200, lowest) + Sender(1000, 77, 1, kMs / 3).send(200));
      EXPECT_EQ(info.shared.universes, universes) << lowest;
      EXPECT_EQ(info.shared.figures.missing, 0U) << universes << " " << lowest;
      EXPECT_EQ(info.universes.back().sequence.counting, Counting::Own);
      EXPECT_EQ(cue::sequence_text(info.universes[0]), "numbered across universes");
      EXPECT_EQ(cue::completeness_text(info), "complete");
    }
  }
}

TEST(Completeness, HolesOfACounterAcrossUniversesAreTold) {
  std::vector<Sent> sent = shared_sender(14, 300, 1);
  sent.erase(sent.begin() + 1000, sent.begin() + 1003);
  sent.erase(sent.begin() + 2000);
  const cue::RecordingInfo info = judge(sent);
  EXPECT_EQ(info.shared.figures.holes, 2U);
  EXPECT_EQ(cue::completeness_text(info), "4 datagrams missing in 14 universes");
  EXPECT_EQ(cue::sequence_text(info.shared).rfind("4 datagrams missing in 2 holes, the first at ", 0), 0U);
}

TEST(Completeness, ALossInAllUniversesIsNoSharedCounter) {
  std::vector<Sent> sent;
  for (unsigned universe = 0; universe < 14; ++universe) {
    Sender sender(universe, 1, 1, universe * kMs / 8);
    for (unsigned part = 0; part < 20; ++part) {
      sent = sent + sender.send(40);
      if (part < 19) sender.skip(1 + part % 3);
    }
  }
  const cue::RecordingInfo info = judge(sent);
  EXPECT_EQ(info.shared.universes, 0U);
  EXPECT_EQ(cue::completeness_text(info), std::to_string(14 * 37) + " datagrams missing in 14 universes");
}

TEST(Completeness, DamageComesFirst) {
  cue::RecordingInfo info = judge(Sender(0).send(1) + Sender(0, 3, 1, 2 * kFrame).send(1));
  EXPECT_EQ(cue::completeness_text(info), "1 datagram missing in 1 universe");
  info.damage = cue::Damage{40, 22, "cut off"};
  EXPECT_EQ(cue::completeness_text(info), "damaged at byte 40, 1 datagram missing in 1 universe");
}

TEST(Completeness, JudgesTheWorstFileInBoundedMemory) {
  std::vector<Sent> sent;
  for (unsigned round = 0; round < 3; ++round)
    for (unsigned universe = 0; universe < 0x10000; ++universe)
      sent.push_back({round * kSecond, universe, (universe * 7 + round * 91) & 0xFFU, ""});
  EXPECT_EQ(judge(sent).universes.size(), 0x10000U);
}

TEST(Completeness, ALostZeroOfASenderThatCountsItIsAHole) {
  Sender sender(0, 1, 0);
  std::vector<Sent> sent = sender.send(255 + 2 * 256);
  sender.skip(1);
  const cue::UniverseSequence found = first_of(judge(sent + sender.send(600)));
  EXPECT_EQ(found.counting, Counting::Own);
  EXPECT_EQ(found.figures.holes, 1U);
  EXPECT_EQ(found.figures.missing, 1U);
  EXPECT_EQ(found.figures.longest_hole, 1U);
}

TEST(Completeness, NamesEveryWayOfCounting) {
  EXPECT_STREQ(cue::counting_name(Counting::Own), "own");
  EXPECT_STREQ(cue::counting_name(Counting::Two), "two");
  EXPECT_STREQ(cue::counting_name(Counting::Shared), "shared");
  EXPECT_STREQ(cue::counting_name(Counting::Partly), "partly");
  EXPECT_STREQ(cue::counting_name(Counting::None), "none");
  EXPECT_STREQ(cue::counting_name(Counting::Chaos), "chaos");
}

/// What a network did to the datagrams of a sender.
struct Oracle {
  std::uint64_t missing = 0;
  std::uint64_t holes = 0;
  std::uint64_t longest = 0;
  std::uint64_t repeated = 0;
  std::uint64_t out_of_order = 0;
};

/// Drops, repeats and swaps some of @p sent, each in its own frame.
Oracle disturb(std::vector<Sent>& sent, std::mt19937& engine) {
  const auto below = [&engine](unsigned limit) {
    return std::uniform_int_distribution<unsigned>(0, limit - 1)(engine);
  };
  Oracle oracle;
  std::vector<Sent> arrived(sent.begin(), sent.begin() + 300);
  for (std::size_t at = 300; at + 300 < sent.size();) {
    const unsigned lost = below(3) == 0 ? 1 + below(240) : 1 + below(3);
    switch (below(40)) {
      case 0:
        // A count that begins anew is another test's.
        if (sent[at + lost].number <= 1) break;
        oracle.missing += lost;
        ++oracle.holes;
        oracle.longest = std::max<std::uint64_t>(oracle.longest, lost);
        at += lost;
        break;
      case 1:
        arrived.push_back(sent[at]);
        arrived.push_back(sent[at]);
        ++oracle.repeated;
        ++at;
        break;
      case 2: {
        // The datagram comes up to 20 later.
        const unsigned later = 1 + below(20);
        for (unsigned n = 1; n <= later; ++n) arrived.push_back(sent[at + n]);
        Sent late = sent[at];
        late.time = arrived.back().time;
        arrived.push_back(late);
        ++oracle.out_of_order;
        at += later + 1;
        break;
      }
      default:
        break;
    }
    for (unsigned n = 0; n < 2; ++n) arrived.push_back(sent[at++]);
  }
  sent = arrived;
  return oracle;
}

TEST(CompletenessModel, TellsWhatTheNetworkDid) {
  std::mt19937 engine(20261122);
  for (unsigned round = 0; round < 100; ++round) {
    const unsigned lowest = round % 2;
    std::vector<Sent> sent = Sender(0, 1 + round % 250, lowest).send(3000);
    const Oracle oracle = disturb(sent, engine);
    const cue::UniverseSequence found = first_of(judge(sent));
    const cue::SequenceFigures& figures = found.figures;
    EXPECT_EQ(found.counting, Counting::Own) << round;
    EXPECT_EQ(figures.missing, oracle.missing) << round;
    EXPECT_EQ(figures.holes, oracle.holes) << round;
    EXPECT_EQ(figures.longest_hole, oracle.longest) << round;
    EXPECT_EQ(figures.repeated, oracle.repeated) << round;
    EXPECT_EQ(figures.repeated_same, oracle.repeated) << round;
    EXPECT_EQ(figures.out_of_order, oracle.out_of_order) << round;
    EXPECT_EQ(figures.jumps, 0U) << round;
  }
}

}  // namespace
