#include "tools/Arguments.h"

#include <gtest/gtest.h>

#include <limits>

#include "cue/Time.h"

using kadrel_cue::parse_destination;
using kadrel_cue::parse_time;
using kadrel_cue::parse_universe_change;
using kadrel_cue::parse_universes;

namespace {

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();

TEST(Arguments, ReadTimesInSecondsMinutesAndHours) {
  EXPECT_EQ(parse_time("0"), 0);
  EXPECT_EQ(parse_time("90"), 90 * cue::kSecond);
  EXPECT_EQ(parse_time("1.5"), 1'500'000'000);
  EXPECT_EQ(parse_time("0.000000001"), 1);
  EXPECT_EQ(parse_time(".5"), 500'000'000);
  EXPECT_EQ(parse_time("0.0000000019"), 1);
  EXPECT_EQ(parse_time("1m30.5"), 90'500'000'000);
  EXPECT_EQ(parse_time("1m30.5s"), 90'500'000'000);
  EXPECT_EQ(parse_time("2h"), 7200 * cue::kSecond);
  EXPECT_EQ(parse_time("2h3m4s"), 7384 * cue::kSecond);
  EXPECT_EQ(parse_time("9223372036.854775807"), kMost);
}

TEST(Arguments, RefuseWhatIsNoTime) {
  for (const char* text : {"", " ", "x", "-1", "1.", ".", "m", "1.5m", "1m2m", "1s2", "1m2h", "1h30.5.5",
                           "1 s", "+1", "1e3", "9223372036.854775808", "99999999999999999999"})
    EXPECT_FALSE(parse_time(text)) << text;
}

TEST(Arguments, ReadListsOfUniverses) {
  const auto universes = parse_universes("1,3,5-8,65536");
  ASSERT_TRUE(universes);
  std::vector<int> found;
  for (int port_address = 0; port_address < 65536; ++port_address)
    if (universes->holds(static_cast<std::uint16_t>(port_address))) found.push_back(port_address);
  EXPECT_EQ(found, (std::vector<int>{0, 2, 4, 5, 6, 7, 65535}));
  for (const char* text : {"", "0", "65537", "1,", ",1", "5-3", "1-", "a", "1;2", "1-2-3"})
    EXPECT_FALSE(parse_universes(text)) << text;
}

TEST(Arguments, ReadChangesOfUniverses) {
  EXPECT_EQ(parse_universe_change("1=32768"), std::make_pair(std::uint16_t{0}, std::uint16_t{0x7FFF}));
  for (const char* text : {"", "1", "1=", "=1", "0=1", "1=0", "1=32769", "1=2=3", "1=2 "})
    EXPECT_FALSE(parse_universe_change(text)) << text;
}

TEST(Arguments, ReadDestinations) {
  const auto plain = parse_destination("10.0.0.255", 6454);
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->address, "10.0.0.255");
  EXPECT_EQ(plain->port, 6454);
  const auto with_port = parse_destination("127.0.0.1:65535", 6454);
  ASSERT_TRUE(with_port);
  EXPECT_EQ(with_port->address, "127.0.0.1");
  EXPECT_EQ(with_port->port, 65535);
  for (const char* text :
       {"", "10.0.0", "host", "10.0.0.1:", "10.0.0.1:0", "10.0.0.1:65536", "10.0.0.1:1x", ":1"})
    EXPECT_FALSE(parse_destination(text, 6454)) << text;
}

}  // namespace
