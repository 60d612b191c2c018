#include "cue/Targets.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "unit/cue/recordings.h"

using cue::Target;
using packets::dmx;
using Sent = std::vector<std::string>;

namespace {

/// Keeps what is sent; or refuses it.
class Wire : public cue::TargetSender {
public:
  Wire(Sent& to, int refusal) : sent(to), error(refusal) {}

  int send(const std::uint8_t* data, std::size_t size) override {
    if (error != 0) failed.add(error);
    if (error == 0) sent.emplace_back(reinterpret_cast<const char*>(data), size);
    return error;
  }
  cue::Failures failures() const override { return failed; }
  void settle(kesto::Clock::time_point /*deadline*/) override {}

private:
  Sent& sent;
  int error;
  cue::Failures failed;
};

cue::UniverseSet universes(std::initializer_list<std::uint16_t> port_addresses) {
  cue::UniverseSet set;
  for (const auto port_address : port_addresses) set.insert(port_address);
  return set;
}

struct Wires {
  std::map<std::string, Sent> sent;
  std::map<std::string, int> errors;

  cue::MakeSender maker() {
    return [this](const cue::Destination& to) {
      return std::make_unique<Wire>(sent[to.address], errors[to.address]);
    };
  }
};

int send(cue::DatagramSink& sink, const std::string& datagram) {
  return sink.send(recordings::bytes_of(datagram), datagram.size());
}

const Target kPlain{{"10.0.0.1", 6454}, std::nullopt};
const Target kOther{{"10.0.0.2", 7000}, std::nullopt};
const Target kNamed{{"10.0.0.3", 6454}, universes({2, 3})};
const Target kAlsoNamed{{"10.0.0.4", 6454}, universes({3, 4})};

TEST(ArtNetTargets, SendsEveryDatagramToEveryTarget) {
  Wires wires;
  cue::ArtNetTargets targets({kPlain, kOther}, wires.maker());
  EXPECT_EQ(send(targets, dmx("a", 1) + "tail"), 0);
  EXPECT_EQ(wires.sent["10.0.0.1"], Sent{dmx("a", 1) + "tail"});
  EXPECT_EQ(wires.sent["10.0.0.2"], Sent{dmx("a", 1) + "tail"});
  EXPECT_EQ(targets.sent(), 1U);
}

TEST(ArtNetTargets, SendsAUniverseToThoseThatNameIt) {
  Wires wires;
  cue::ArtNetTargets targets({kPlain, kNamed, kAlsoNamed}, wires.maker());
  for (unsigned port_address = 1; port_address <= 4; ++port_address)
    EXPECT_EQ(send(targets, dmx("a", port_address)), 0);
  EXPECT_EQ(wires.sent["10.0.0.1"], Sent{dmx("a", 1)});
  EXPECT_EQ(wires.sent["10.0.0.3"], (Sent{dmx("a", 2), dmx("a", 3)}));
  EXPECT_EQ(wires.sent["10.0.0.4"], (Sent{dmx("a", 3), dmx("a", 4)}));
}

TEST(ArtNetTargets, LeavesOutAUniverseThatNobodyNames) {
  Wires wires;
  cue::ArtNetTargets targets({kNamed}, wires.maker());
  EXPECT_EQ(send(targets, dmx("a", 1)), 0);
  EXPECT_EQ(wires.sent["10.0.0.3"], Sent{});
  EXPECT_EQ(targets.sent(), 0U);
}

TEST(ArtNetTargets, TakesADatagramForSeveralTargetsApart) {
  Wires wires;
  cue::ArtNetTargets targets({kPlain, kNamed, kAlsoNamed}, wires.maker());
  EXPECT_EQ(send(targets, dmx("a", 1) + dmx("b", 2) + "between" + dmx("c", 3) + "tail"), 0);
  EXPECT_EQ(wires.sent["10.0.0.1"], Sent{dmx("a", 1)});
  EXPECT_EQ(wires.sent["10.0.0.3"], Sent{dmx("b", 2) + dmx("c", 3)});
  EXPECT_EQ(wires.sent["10.0.0.4"], Sent{dmx("c", 3)});
  // Of one group it stays as it is.
  EXPECT_EQ(send(targets, dmx("d", 4) + dmx("e", 4) + "tail"), 0);
  EXPECT_EQ(wires.sent["10.0.0.4"].back(), dmx("d", 4) + dmx("e", 4) + "tail");
}

TEST(ArtNetTargets, SendsADatagramWithoutLevelsToAll) {
  Wires wires;
  cue::ArtNetTargets targets({kPlain, kNamed}, wires.maker());
  EXPECT_EQ(send(targets, packets::poll()), 0);
  EXPECT_EQ(wires.sent["10.0.0.1"], Sent{packets::poll()});
  EXPECT_EQ(wires.sent["10.0.0.3"], Sent{packets::poll()});
}

TEST(ArtNetTargets, KeepNoneFromItsDatagramsWhenAnotherFails) {
  Wires wires;
  wires.errors = {{"10.0.0.1", ENETUNREACH}, {"10.0.0.3", EHOSTUNREACH}};
  cue::ArtNetTargets targets({kPlain, kOther, kNamed, kAlsoNamed}, wires.maker());
  EXPECT_EQ(send(targets, dmx("a", 1)), 0);
  EXPECT_EQ(wires.sent["10.0.0.2"], Sent{dmx("a", 1)});
  EXPECT_EQ(send(targets, dmx("b", 2)), EHOSTUNREACH);
  EXPECT_EQ(send(targets, dmx("b", 2) + dmx("d", 4)), 0);
  EXPECT_EQ(wires.sent["10.0.0.4"], Sent{dmx("d", 4)});
  const auto deliveries = targets.deliveries();
  ASSERT_EQ(deliveries.size(), 4U);
  EXPECT_EQ(deliveries[0].target, "10.0.0.1:6454");
  EXPECT_EQ(deliveries[0].failures.count, 1U);
  EXPECT_EQ(deliveries[0].failures.first_error, ENETUNREACH);
  EXPECT_EQ(deliveries[1].target, "10.0.0.2:7000");
  EXPECT_EQ(deliveries[1].failures.count, 0U);
  EXPECT_EQ(deliveries[2].failures.count, 2U);
}

TEST(ArtNetTargets, TellTheFirstErrorWhenNobodyTookADatagram) {
  Wires wires;
  wires.errors = {{"10.0.0.1", ENETUNREACH}, {"10.0.0.3", EHOSTUNREACH}};
  cue::ArtNetTargets targets({kPlain, kNamed}, wires.maker());
  EXPECT_EQ(send(targets, dmx("a", 1) + dmx("b", 2)), ENETUNREACH);
}

}  // namespace
