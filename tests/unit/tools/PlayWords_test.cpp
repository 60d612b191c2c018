#include "tools/PlayWords.h"

#include <gtest/gtest.h>

#include <array>

using kadrel_cue::parse_passes;
using kadrel_cue::parse_source_name;
using kadrel_cue::parse_speed;
using kadrel_cue::parse_target;

namespace {

TEST(PlayWords, PassesAreCountedUpTo2To63OrEndless) {
  EXPECT_EQ(parse_passes("1")->count, 1U);
  EXPECT_EQ(parse_passes("9223372036854775808")->count, std::uint64_t{1} << 63);
  ASSERT_TRUE(parse_passes("forever"));
  EXPECT_EQ(parse_passes("forever")->count, std::nullopt);
  for (const char* text : {"", "0", "-1", "+1", "1.5", "1 ", " 1", "0x10", "many", "9223372036854775809",
                           "18446744073709551616", "Forever"})
    EXPECT_FALSE(parse_passes(text)) << text;
}

TEST(PlayWords, SpeedIsAFactorOrPerCent) {
  EXPECT_EQ(parse_speed("1.5x")->factor, 1.5);
  EXPECT_EQ(parse_speed("0.01x")->factor, 0.01);
  EXPECT_EQ(parse_speed("100x")->factor, 100);
  EXPECT_EQ(parse_speed("2x")->percent, 0);
  EXPECT_EQ(parse_speed("-100")->percent, -100);
  EXPECT_EQ(parse_speed("100")->percent, 100);
  EXPECT_EQ(parse_speed("50")->factor, std::nullopt);
  for (const char* text : {"", "x", "0x", "0.009x", "100.1x", "-1x", "nanx", "infx", "1e1x", "1.5", "101",
                           "-101", "5%", "1.5xx", "1.5 x", "99999999999"})
    EXPECT_FALSE(parse_speed(text)) << text;
}

TEST(PlayWords, ATargetMayNameItsUniverses) {
  const auto plain = parse_target("10.0.0.5");
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->to.address, "10.0.0.5");
  EXPECT_EQ(plain->to.port, 0);
  EXPECT_FALSE(plain->universes);
  const auto named = parse_target("1-2,9=10.0.0.5:7000");
  ASSERT_TRUE(named && named->universes);
  EXPECT_EQ(named->to.port, 7000);
  for (const std::uint16_t port_address : std::array<std::uint16_t, 3>{0, 1, 8})
    EXPECT_TRUE(named->universes->holds(port_address));
  for (const std::uint16_t port_address : std::array<std::uint16_t, 3>{2, 7, 9})
    EXPECT_FALSE(named->universes->holds(port_address));
  for (const char* text : {"", "=", "1=", "=10.0.0.5", "0=10.0.0.5", "4-1=10.0.0.5", "1==10.0.0.5",
                           "1=2=10.0.0.5", "10.0.0.5:", "10.0.0.5:0", "10.0.0.5:65536", "somewhere", "::1"})
    EXPECT_FALSE(parse_target(text)) << text;
}

TEST(PlayWords, ANameIsUtf8OfAtMost63Bytes) {
  for (const std::string& name :
       {std::string("desk"), std::string(63, 'x'), std::string("B\xC3\xBChne \xE2\x82\xAC \xF0\x9F\x8E\xAD")})
    EXPECT_EQ(parse_source_name(name), name);
  for (const char* name : {"", "\xFF", "\x80", "\xC0\x80", "\xE2\x82", "a\xC3", "\xF8\x88\x80\x80\x80"})
    EXPECT_FALSE(parse_source_name(name)) << name;
  EXPECT_FALSE(parse_source_name(std::string(64, 'x')));
}

}  // namespace
