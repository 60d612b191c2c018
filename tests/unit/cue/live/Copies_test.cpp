#include "cue/live/Copies.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace {

constexpr std::int64_t kMillisecond = 1'000'000;

class Copies : public testing::Test {
protected:
  cue::Copies copies;

  bool is_copy(const std::string& payload, std::uint32_t interface, std::int64_t time,
               std::uint32_t sender = 1, std::uint32_t receiver = 2) {
    cue::UdpDatagram datagram;
    datagram.sender = sender;
    datagram.receiver = receiver;
    datagram.payload = {reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size()};
    return copies.is_copy(datagram, interface, time);
  }
};

TEST_F(Copies, AreSeenAMomentLaterAtAnotherInterface) {
  EXPECT_FALSE(is_copy("look", 1, 0));
  EXPECT_TRUE(is_copy("look", 2, 5 * kMillisecond));
  EXPECT_TRUE(is_copy("look", 3, -5 * kMillisecond));
  EXPECT_FALSE(is_copy("look", 1, kMillisecond));  // sent once more
  EXPECT_TRUE(is_copy("look", 2, 2 * kMillisecond));
}

TEST_F(Copies, AreOfOneSenderToOneReceiverWithOneContent) {
  EXPECT_FALSE(is_copy("look", 1, 0));
  EXPECT_FALSE(is_copy("loop", 2, 0));
  EXPECT_FALSE(is_copy("look", 2, 0, 9));
  EXPECT_FALSE(is_copy("look", 2, 0, 1, 9));
  EXPECT_FALSE(is_copy("look", 2, 0, 2, 1));
}

TEST_F(Copies, AreNotWhatComesLater) {
  EXPECT_FALSE(is_copy("look", 1, 0));
  EXPECT_FALSE(is_copy("look", 2, 5 * kMillisecond + 1));
  EXPECT_FALSE(is_copy("look", 3, std::numeric_limits<std::int64_t>::max()));
  EXPECT_FALSE(is_copy("look", 4, std::numeric_limits<std::int64_t>::min()));
}

}  // namespace
