#include "tools/Finding.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <vector>

using namespace kadrel_cue;

namespace {

Finding finding(Level level, const std::string& text, const std::string& advice = "") {
  return {"check", level, text, advice, {}};
}

TEST(Finding, TheVerdictCountsWhatIsNotInOrder) {
  const Finding ok = finding(Level::Ok, "");
  const Finding warning = finding(Level::Warning, "", "mend");
  const Finding bad = finding(Level::Bad, "", "mend");
  EXPECT_EQ(verdict_of({ok}), "ready");
  EXPECT_EQ(verdict_of({ok, warning}), "ready, 1 warning");
  EXPECT_EQ(verdict_of({warning, warning}), "ready, 2 warnings");
  EXPECT_EQ(verdict_of({bad, ok}), "NOT ready: 1 bad");
  EXPECT_EQ(verdict_of({bad, warning, warning}), "NOT ready: 1 bad, 2 warnings");
  EXPECT_TRUE(is_ready({ok, warning}));
  EXPECT_FALSE(is_ready({ok, bad}));
}

TEST(Finding, TheScreenHasALineForEachCheckAndAdviceWhereItIsNotOk) {
  EXPECT_EQ(screen_of({finding(Level::Ok, "all is well", "not shown"),
                       finding(Level::Warning, "so so", "look"), finding(Level::Bad, "broken", "mend it")}),
            "ok       check      all is well\n"
            "warning  check      so so\n"
            "         look\n"
            "BAD      check      broken\n"
            "         mend it\n"
            "NOT ready: 1 bad, 1 warning\n");
}

TEST(Finding, NoLineOfTheScreenIsLongerThanEightyColumns) {
  const std::string words =
      "several words that go on and on, " + std::string(150, 'x') + " and then again some";
  std::istringstream screen(screen_of({finding(Level::Bad, words, words)}));
  std::string line;
  std::string all;
  while (std::getline(screen, line)) {
    EXPECT_LE(line.size(), 80U) << line;
    for (const char one : line)
      if (one == 'x') all += one;
  }
  EXPECT_EQ(all.size(), 300U) << "nothing of a long word is lost";
}

TEST(Finding, NamesOfStrangersDoNotReachTheTerminalAsTheyAre) {
  EXPECT_EQ(screen_of({finding(Level::Ok, "held by \x1b[2Jolad\x9b")}).find('\x1b'), std::string::npos);
}

TEST(Finding, JsonHasEachCheckWithItsFigures) {
  Finding one = finding(Level::Warning, "a \"text\"\n", "advice");
  one.figures = {{"count", std::uint64_t{18446744073709551615U}},
                 {"below", std::int64_t{-20}},
                 {"rate", 2.5},
                 {"endless", std::numeric_limits<double>::infinity()},
                 {"yes", true},
                 {"no", false},
                 {"name", std::string("olad\x1b")},
                 {"unknown", {}}};
  EXPECT_EQ(
      json_of(std::vector<Finding>{one, finding(Level::Bad, "x", "y")}),
      "{\"ready\": false, \"verdict\": \"NOT ready: 1 bad, 1 warning\", \"bad\": 1, \"warnings\": 1, "
      "\"checks\": [{\"name\": \"check\", \"level\": \"warning\", \"text\": \"a \\\"text\\\"\\n\", "
      "\"advice\": \"advice\", \"figures\": {\"count\": 18446744073709551615, \"below\": -20, "
      "\"rate\": 2.500, \"endless\": null, \"yes\": true, \"no\": false, \"name\": \"olad\\u001b\", "
      "\"unknown\": null}}, {\"name\": \"check\", \"level\": \"bad\", \"text\": \"x\", \"advice\": \"y\", "
      "\"figures\": {}}]}\n");
  EXPECT_EQ(json_of(std::vector<Finding>{}),
            "{\"ready\": true, \"verdict\": \"ready\", \"bad\": 0, \"warnings\": 0, \"checks\": []}\n");
}

}  // namespace
