#include "kesto/log_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using kesto::LogLine;
using kesto::LogQueue;

namespace {

constexpr std::size_t kLines = 4;
constexpr std::size_t kBytes = 100;

using Texts = std::vector<std::string>;

void push(LogQueue& queue, int level, const std::string& text) {
  queue.push({level, 1, text});
}

/// Lines that leave the queue until it is empty; "-N" is the report of N dropped lines.
Texts drain(LogQueue& queue) {
  Texts texts;
  while (!queue.empty()) {
    const LogQueue::Next next = queue.take();
    if (next.dropped > 0) texts.push_back("-" + std::to_string(next.dropped));
    if (next.line) texts.push_back(next.line->text);
  }
  return texts;
}

struct Case {
  const char* what;
  std::vector<std::pair<int, std::string>> pushed;
  Texts left;
};

TEST(LogQueue, KeepsWhatItHasRoomFor) {
  const std::string half(kBytes / 2, 'h');
  const std::string whole(kBytes, 'w');
  const std::string huge(kBytes * 10, 'g');
  const std::vector<Case> cases{
      {"nothing", {}, {}},
      {"all levels, in order", {{3, "a"}, {-2, "b"}, {6, "c"}, {-1, "d"}}, {"a", "b", "c", "d"}},
      {"empty lines are lines", {{3, ""}, {3, ""}, {3, ""}, {3, ""}, {3, "e"}}, {"-1", "", "", "", "e"}},
      {"the oldest line goes",
       {{3, "a"}, {1, "b"}, {4, "c"}, {0, "d"}, {3, "e"}, {3, "f"}},
       {"-2", "c", "d", "e", "f"}},
      {"not the errors and warnings",
       {{-2, "a"}, {3, "b"}, {-1, "c"}, {3, "d"}, {3, "e"}, {3, "f"}},
       {"-2", "a", "c", "e", "f"}},
      {"an error takes the room of an older ordinary line",
       {{3, "a"}, {-2, "b"}, {-2, "c"}, {3, "d"}, {-2, "e"}, {-1, "f"}},
       {"-2", "b", "c", "e", "f"}},
      {"among errors and warnings an ordinary line has no room",
       {{-2, "a"}, {-1, "b"}, {-2, "c"}, {-1, "d"}, {3, "e"}, {1, "f"}},
       {"-2", "a", "b", "c", "d"}},
      {"among errors and warnings the oldest goes for another",
       {{-2, "a"}, {-1, "b"}, {-2, "c"}, {-1, "d"}, {-1, "e"}},
       {"-1", "b", "c", "d", "e"}},
      {"whatever is below 0 is as important",
       {{-3, "a"}, {3, "b"}, {3, "c"}, {3, "d"}, {3, "e"}},
       {"-1", "a", "c", "d", "e"}},
      {"bytes that just fit", {{3, half}, {3, half}, {3, ""}}, {half, half, ""}},
      {"one byte more", {{3, half}, {3, half}, {3, "x"}}, {"-1", half, "x"}},
      {"a long line takes the room of several", {{3, "a"}, {3, "b"}, {3, whole}}, {"-2", whole}},
      {"a line that is too long finds an empty queue", {{3, huge}}, {huge}},
      {"and goes for the next", {{3, huge}, {3, "a"}}, {"-1", "a"}},
      {"a line that is too long among errors", {{-2, "a"}, {3, huge}, {-2, "b"}}, {"-1", "a", "b"}},
      {"an error that is too long", {{3, "a"}, {-2, "b"}, {-2, huge}}, {"-2", huge}},
  };
  for (const Case& one : cases) {
    LogQueue queue(kLines, kBytes);
    for (const auto& [level, text] : one.pushed) push(queue, level, text);
    EXPECT_EQ(drain(queue), one.left) << one.what;
  }
}

TEST(LogQueue, HandsOutLinesAsTheyCame) {
  LogQueue queue(kLines, kBytes);
  queue.push({-1, 2, "text"});
  const LogQueue::Next next = queue.take();
  EXPECT_EQ(next.dropped, 0U);
  ASSERT_TRUE(next.line);
  EXPECT_EQ(next.line->level, -1);
  EXPECT_EQ(next.line->output, 2);
  EXPECT_EQ(next.line->text, "text");
  EXPECT_TRUE(queue.empty());
  EXPECT_FALSE(queue.take().line);
}

TEST(LogQueue, RoomThatALineLeavesIsFreeAgain) {
  LogQueue queue(kLines, kBytes);
  for (int round = 0; round < 50; ++round) {
    for (const char* const text : {"a", "b", "c"}) push(queue, 3, std::string(kBytes / 4, 'x') + text);
    EXPECT_EQ(drain(queue).size(), 3U);
  }
}

TEST(LogQueue, LinesThatLeaveBetweenOthersKeepTheOrder) {
  LogQueue queue(kLines, kBytes);
  push(queue, 3, "a");
  push(queue, -2, "b");
  EXPECT_EQ(queue.take().line->text, "a");
  push(queue, 3, "c");
  push(queue, -2, "d");
  EXPECT_EQ(drain(queue), (Texts{"b", "c", "d"}));
}

TEST(LogQueue, TellsOfDroppedLinesOnceForAsManyLinesAsItHolds) {
  LogQueue queue(kLines, kBytes);
  for (int i = 0; i < 4; ++i) push(queue, 3, "old");
  Texts told;
  for (int i = 0; i < 9; ++i) {  // each line that leaves makes room for one of two new ones
    push(queue, 3, "new");
    const LogQueue::Next next = queue.take();
    told.push_back(std::to_string(next.dropped));
    push(queue, 3, "new");
  }
  EXPECT_EQ(told, (Texts{"1", "0", "0", "0", "4", "0", "0", "0", "4"}));
  EXPECT_EQ(drain(queue), (Texts{"new", "new", "new", "new"}));
}

TEST(LogQueue, TellsOfDroppedLinesWhenItHasRunEmpty) {
  const std::string whole(kBytes, 'w');
  LogQueue queue(kLines, kBytes);
  push(queue, 3, "a");
  push(queue, 3, whole);
  EXPECT_EQ(queue.take().dropped, 1U);
  push(queue, 3, "b");
  push(queue, 3, whole);
  EXPECT_EQ(drain(queue), (Texts{whole, "-1"}));
}

}  // namespace
