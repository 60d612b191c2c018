#include "tools/Arguments.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

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

TEST(Arguments, ReadTimesAsTheyArePrinted) {
  EXPECT_EQ(parse_time("0.500 s"), 500'000'000);
  EXPECT_EQ(parse_time("2h03m04.000s"), 7384 * cue::kSecond);
  EXPECT_EQ(parse_time("2 h 3 min 4.5 s"), 7'384'500'000'000);
  EXPECT_EQ(parse_time("250 ms"), 250'000'000);
  EXPECT_EQ(parse_time("250ms"), 250'000'000);
  EXPECT_EQ(parse_time("0.5ms"), 500'000);
  EXPECT_EQ(parse_time("1.0000019ms"), 1'000'001);
  EXPECT_EQ(parse_time("1m250ms"), 60'250'000'000);
  EXPECT_EQ(parse_time("10min"), 600 * cue::kSecond);
}

TEST(Arguments, ReadTimesOfAClock) {
  EXPECT_EQ(parse_time("1:30"), 90 * cue::kSecond);
  EXPECT_EQ(parse_time("0:05.25"), 5'250'000'000);
  EXPECT_EQ(parse_time("90:00"), 5400 * cue::kSecond);
  EXPECT_EQ(parse_time("1:02:03.5"), 3'723'500'000'000);
  EXPECT_EQ(parse_time("2562047:47:16.854775807"), kMost);
}

TEST(Arguments, RefuseWhatIsNoTime) {
  for (const char* text : {"",
                           " ",
                           "x",
                           "-1",
                           "1.",
                           ".",
                           "m",
                           "1.5m",
                           "1m2m",
                           "1s2",
                           "1m2h",
                           "1 ",
                           "1h30.5.5",
                           "1 x",
                           "+1",
                           "1e3",
                           "1.5 h",
                           "s",
                           "2s5ms",
                           "1:",
                           ":30",
                           "1:5",
                           "1:60",
                           "1:030",
                           "1:60:00",
                           "1:00:60",
                           "1:00:00:00",
                           "1:30.",
                           "1:30 s",
                           "1:.5",
                           "1,5",
                           "9223372036.854775808",
                           "2562047:47:16.854775808",
                           "2562048:00:00",
                           "2562047h48m",
                           "153722867281:00",
                           "99999999999999999999",
                           "99999999999999999999:00"})
    EXPECT_FALSE(parse_time(text)) << text;
}

TEST(Arguments, ReadBackEveryTimeThatIsPrinted) {
  std::mt19937_64 engine(1);
  for (int round = 0; round < 20'000; ++round) {
    // Of every order of magnitude up to that at which rounding would go beyond the longest time.
    const auto time = static_cast<std::int64_t>(engine() >> (2 + engine() % 60));
    const std::int64_t ms = (time + 500'000) / 1'000'000;
    EXPECT_EQ(parse_time(cue::format_time(time)), ms * 1'000'000) << time;
    const auto decimals = static_cast<int>(engine() % 10);
    std::int64_t unit = cue::kSecond;
    for (int digit = 0; digit < decimals; ++digit) unit /= 10;
    EXPECT_EQ(parse_time(cue::clock_text(time, decimals)), time / unit * unit) << time;
    EXPECT_EQ(parse_time(cue::seconds_text(time, decimals)), time / unit * unit) << time;
  }
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
