#include "cue/live/Traffic.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "artnet/RecordingFormat.h"
#include "cue/Time.h"
#include "unit/cue/recordings.h"
#include "unit/cue/sacn.h"

using cue::kSecond;
using packets::byte;
using packets::dmx;
using packets::high_first;
using packets::low_first;

namespace {

constexpr std::uint32_t kDesk = 0x0A000001;       // 10.0.0.1
constexpr std::uint32_t kOther = 0x0A000002;      // 10.0.0.2
constexpr std::uint32_t kEverybody = 0x0AFFFFFF;  // 10.255.255.255
constexpr std::int64_t kMillisecond = kSecond / 1000;

class Traffic : public testing::Test {
protected:
  cue::Traffic traffic;
  std::int64_t now = 1000 * kSecond;

  void send(const std::string& payload, std::uint32_t sender = kDesk, std::uint32_t receiver = kEverybody,
            int port = 6454) {
    // A copy of its own, so that a look behind its end is found.
    const std::vector<std::uint8_t> copy(payload.begin(), payload.end());
    cue::UdpDatagram datagram;
    datagram.sender = sender;
    datagram.receiver = receiver;
    datagram.port = port;
    datagram.payload = {copy.data(), copy.size()};
    traffic.add(datagram, now);
  }

  cue::TrafficFigures figures() { return traffic.figures(now); }

  /// The only stream there is.
  cue::StreamFigures stream() {
    const cue::TrafficFigures all = figures();
    EXPECT_EQ(all.streams.size(), 1U);
    return all.streams.empty() ? cue::StreamFigures() : all.streams.front();
  }
};

TEST_F(Traffic, TellsWhoSendsWhichLevelsWhere) {
  send(dmx("\1\xC8\3", 0x7A1B, 7));
  now += 300 * kMillisecond;
  const cue::StreamFigures one = stream();
  EXPECT_EQ(one.protocol, cue::Protocol::ArtNet);
  EXPECT_EQ(one.universe, 0x7A1B);
  EXPECT_EQ(one.sender, kDesk);
  EXPECT_EQ(one.datagrams, 1U);
  EXPECT_EQ(one.slots, 3);
  EXPECT_EQ(one.highest, 0xC8);
  EXPECT_EQ(one.levels[0], 1);
  EXPECT_EQ(one.levels[2], 3);
  EXPECT_EQ(one.levels[3], 0);
  EXPECT_EQ(one.age, 300 * kMillisecond);
}

}  // namespace
