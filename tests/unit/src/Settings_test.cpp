#include "src/Settings.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>

namespace {

TEST(UniverseCount, IsANumberFrom1To32768) {
  EXPECT_EQ(parse_universe_count("1"), 1);
  EXPECT_EQ(parse_universe_count("16"), 16);
  EXPECT_EQ(parse_universe_count("32768"), 32768);
}

TEST(UniverseCount, IsNothingElse) {
  for (const char* const text : {"", "0", "-1", "32769", "65536", "4294967297", "99999999999999999999", "1x",
                                 "x", " 1", "1 ", "+1", "1.0", "0x10", "%d"}) {
    EXPECT_EQ(parse_universe_count(text), std::nullopt) << text;
  }
}

TEST(LogLevel, IsAnyInt) {
  EXPECT_EQ(parse_log_level("6"), 6);
  EXPECT_EQ(parse_log_level("0"), 0);
  EXPECT_EQ(parse_log_level("-2"), -2);
  EXPECT_EQ(parse_log_level("2147483647"), std::numeric_limits<int>::max());
  EXPECT_EQ(parse_log_level("-2147483648"), std::numeric_limits<int>::min());
}

TEST(LogLevel, IsNothingElse) {
  for (const char* const text :
       {"", "2147483648", "-2147483649", "debug", "3 ", " 3", "+3", "3.5", "--3", "-"}) {
    EXPECT_EQ(parse_log_level(text), std::nullopt) << text;
  }
}

TEST(LogOutput, IsOneOfThreeWords) {
  EXPECT_EQ(parse_log_output("syslog"), kesto::Logger::Syslog);
  EXPECT_EQ(parse_log_output("console"), kesto::Logger::Console);
  EXPECT_EQ(parse_log_output("none"), kesto::Logger::None);
}

TEST(LogOutput, IsNothingElse) {
  for (const char* const text : {"", "Syslog", "CONSOLE", "none ", "0", "1", "2", "stderr", "consoles"}) {
    EXPECT_EQ(parse_log_output(text), std::nullopt) << text;
  }
}

}  // namespace
