#include "src/GrabSummary.h"

#include <gtest/gtest.h>

#include <QTextCodec>
#include <limits>
#include <set>
#include <string>

#include "unit/support/child.h"

namespace {

GrabSummary summary(const char* file_name, bool empty, qint32 ceiling, std::unordered_set<qint32> universes) {
  GrabSummary result;
  result.file_name = QString::fromUtf8(file_name);
  result.empty = empty;
  result.universe_ceiling = ceiling;
  result.universes = std::move(universes);
  return result;
}

TEST(GrabReport, OfNoRecordingIsEmpty) {
  EXPECT_EQ(grab_report(GrabSummary()), R"({"filename": "", "empty": true, "uniceil": -1, "universes": []})");
}

TEST(GrabReport, DescribesARecording) {
  EXPECT_EQ(grab_report(summary("/cues/1", false, 0, {0})),
            R"({"filename": "/cues/1", "empty": false, "uniceil": 0, "universes": [0]})");
  EXPECT_EQ(grab_report(summary("/cues/2", true, -1, {})),
            R"({"filename": "/cues/2", "empty": true, "uniceil": -1, "universes": []})");
}

TEST(GrabReport, SeparatesUniversesByACommaAndABlank) {
  const std::string report = grab_report(summary("f", false, 3, {0, 3}));
  const std::string head = R"({"filename": "f", "empty": false, "uniceil": 3, "universes": [)";
  EXPECT_TRUE(report == head + "0, 3]}" || report == head + "3, 0]}") << report;
}

TEST(GrabReport, ListsManyUniversesInTheOrderOfTheSet) {
  std::unordered_set<qint32> universes;
  for (qint32 universe = 0; universe < 32768; universe += 5) universes.insert(universe);
  std::string list;
  for (const qint32 universe : universes) list += (list.empty() ? "" : ", ") + std::to_string(universe);
  EXPECT_EQ(grab_report(summary("f", false, 32765, universes)),
            R"({"filename": "f", "empty": false, "uniceil": 32765, "universes": [)" + list + "]}");
}

TEST(GrabReport, TakesExtremeNumbers) {
  EXPECT_EQ(grab_report(summary("f", false, std::numeric_limits<qint32>::max(),
                                {std::numeric_limits<qint32>::min()})),
            R"({"filename": "f", "empty": false, "uniceil": 2147483647, "universes": [-2147483648]})");
}

TEST(GrabReport, InsertsTheFileNameAsItIs) {
  EXPECT_EQ(grab_report(summary("a \"b\" \\ %n%s%1%2\n", false, 0, {})),
            "{\"filename\": \"a \"b\" \\ %n%s%1%2\n\", \"empty\": false, \"uniceil\": 0, \"universes\": []}");
  const std::string long_name(100000, 'n');
  EXPECT_EQ(grab_report(summary(long_name.c_str(), false, 0, {})),
            "{\"filename\": \"" + long_name + "\", \"empty\": false, \"uniceil\": 0, \"universes\": []}");
}

CHILD_SCENARIO(file_name_in_utf8) {
  QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
  EXPECT_EQ(grab_report(summary("/cues/Übung \xF0\x9F\x8E\xAC", false, 0, {})),
            "{\"filename\": \"/cues/Übung \xF0\x9F\x8E\xAC\", \"empty\": false, \"uniceil\": 0, "
            "\"universes\": []}");
}

TEST(GrabReport, FileNameIsInTheLocalEncoding) {
  const unit::Outcome child = unit::run_child("file_name_in_utf8");
  EXPECT_EQ(child.status, 0) << child.out;
}

}  // namespace
