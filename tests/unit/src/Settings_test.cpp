#include "src/Settings.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <string>

namespace {

std::map<std::string, std::string> environment;

/// Settings of an environment that holds @p variables and nothing else.
Settings settings_of(const std::map<std::string, std::string>& variables) {
  environment = variables;
  return read_settings([](const char* name) -> const char* {
    const auto found = environment.find(name);
    return found == environment.end() ? nullptr : found->second.c_str();
  });
}

TEST(Settings, HaveDefaults) {
  const Settings settings = settings_of({});
  EXPECT_EQ(settings.log_level, 3);
  EXPECT_EQ(settings.log_output, kesto::Logger::Syslog);
  EXPECT_EQ(settings.universe_count, 1);
  EXPECT_EQ(settings.write_buffer_mib, 32);
  EXPECT_TRUE(settings.warnings.empty());
}

TEST(Settings, TakeAUniverseCountFrom1To32768) {
  for (const auto& [text, count] : std::map<std::string, int>{{"1", 1}, {"16", 16}, {"32768", 32768}}) {
    const Settings settings = settings_of({{"KADREL_UNIVERSE_COUNT", text}});
    EXPECT_EQ(settings.universe_count, count);
    EXPECT_TRUE(settings.warnings.empty());
  }
}

TEST(Settings, WarnOfAnyOtherUniverseCountAndAnnounceOne) {
  for (const std::string text : {"", "0", "-1", "32769", "65536", "4294967297", "99999999999999999999", "1x",
                                 "x", " 1", "1 ", "+1", "1.0", "0x10", "%d"}) {
    const Settings settings = settings_of({{"KADREL_UNIVERSE_COUNT", text}});
    EXPECT_EQ(settings.universe_count, 1) << text;
    EXPECT_EQ(settings.warnings,
              std::vector<std::string>{
                  "KADREL_UNIVERSE_COUNT is not a number from 1 to 32768, using 1 (value:" + text + ")"});
  }
}

TEST(Settings, TakeAWriteBufferFrom1To1024MiB) {
  for (const auto& [text, mib] : std::map<std::string, int>{{"1", 1}, {"32", 32}, {"1024", 1024}}) {
    const Settings settings = settings_of({{"KADREL_WRITE_BUFFER_MIB", text}});
    EXPECT_EQ(settings.write_buffer_mib, mib);
    EXPECT_TRUE(settings.warnings.empty());
  }
}

TEST(Settings, WarnOfAnyOtherWriteBufferAndTake32MiB) {
  for (const std::string text : {"", "0", "-1", "1025", "4294967328", "99999999999999999999", "32M", "x",
                                 " 1", "1 ", "+1", "0.5", "0x10", "%d"}) {
    const Settings settings = settings_of({{"KADREL_WRITE_BUFFER_MIB", text}});
    EXPECT_EQ(settings.write_buffer_mib, 32) << text;
    EXPECT_EQ(settings.warnings,
              std::vector<std::string>{
                  "KADREL_WRITE_BUFFER_MIB is not a number from 1 to 1024, using 32 (value:" + text + ")"});
  }
}

TEST(Settings, TakeAnyIntAsLogLevel) {
  for (const auto& [text, level] :
       std::map<std::string, int>{{"6", 6},
                                  {"0", 0},
                                  {"-2", -2},
                                  {"2147483647", std::numeric_limits<int>::max()},
                                  {"-2147483648", std::numeric_limits<int>::min()}}) {
    const Settings settings = settings_of({{"KADREL_LOG_LEVEL", text}});
    EXPECT_EQ(settings.log_level, level);
    EXPECT_TRUE(settings.warnings.empty());
  }
}

TEST(Settings, WarnOfAnyOtherLogLevelAndUse3) {
  for (const std::string text :
       {"", "2147483648", "-2147483649", "debug", "3 ", " 3", "+3", "3.5", "--3", "-"}) {
    const Settings settings = settings_of({{"KADREL_LOG_LEVEL", text}});
    EXPECT_EQ(settings.log_level, 3) << text;
    EXPECT_EQ(settings.warnings,
              std::vector<std::string>{"KADREL_LOG_LEVEL is not an integer, using 3 (value:" + text + ")"});
  }
}

TEST(Settings, TakeThreeWordsAsLogOutput) {
  EXPECT_EQ(settings_of({{"KADREL_LOG_OUTPUT", "syslog"}}).log_output, kesto::Logger::Syslog);
  EXPECT_EQ(settings_of({{"KADREL_LOG_OUTPUT", "console"}}).log_output, kesto::Logger::Console);
  EXPECT_EQ(settings_of({{"KADREL_LOG_OUTPUT", "none"}}).log_output, kesto::Logger::None);
}

TEST(Settings, WarnOfAnyOtherLogOutputAndUseTheSystemLog) {
  for (const std::string text : {"", "Syslog", "CONSOLE", "none ", "0", "1", "2", "stderr", "consoles"}) {
    const Settings settings = settings_of({{"KADREL_LOG_OUTPUT", text}});
    EXPECT_EQ(settings.log_output, kesto::Logger::Syslog) << text;
    EXPECT_EQ(settings.warnings,
              std::vector<std::string>{
                  "KADREL_LOG_OUTPUT is not syslog, console or none, using syslog (value:" + text + ")"});
  }
}

TEST(Settings, WarnOfEachVariableThatIsNotUnderstoodAndTakeTheOthers) {
  const Settings settings = settings_of({{"KADREL_LOG_LEVEL", "loud"},
                                         {"KADREL_LOG_OUTPUT", "console"},
                                         {"KADREL_UNIVERSE_COUNT", "many"},
                                         {"KADREL_WRITE_BUFFER_MIB", "all"}});
  EXPECT_EQ(settings.log_output, kesto::Logger::Console);
  EXPECT_EQ(settings.warnings,
            (std::vector<std::string>{
                "KADREL_LOG_LEVEL is not an integer, using 3 (value:loud)",
                "KADREL_UNIVERSE_COUNT is not a number from 1 to 32768, using 1 (value:many)",
                "KADREL_WRITE_BUFFER_MIB is not a number from 1 to 1024, using 32 (value:all)"}));
}

}  // namespace
