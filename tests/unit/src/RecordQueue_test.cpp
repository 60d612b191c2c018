#include "src/RecordQueue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "artnet/ArtNetPackets.h"
#include "artnet/RecordingFormat.h"

namespace {

std::string delay(std::int64_t pause) {
  const ArtOemVfpsNs record = make_delay_record(pause);
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

bool push(RecordQueue& queue, std::int64_t pause, const std::string& datagram) {
  const ArtOemVfpsNs record = make_delay_record(pause);
  return queue.push(&record, datagram);
}

std::string datagram(std::size_t size, char fill) {
  return std::string(size, fill);
}

/// Takes everything, in pieces of at most @p piece bytes.
std::string take_all(RecordQueue& queue, std::size_t piece) {
  std::string all;
  while (!queue.front().empty()) {
    const std::string_view next = queue.front().substr(0, piece);
    all += next;
    const auto emptied = queue.take(next.size());
  }
  return all;
}

TEST(RecordQueue, GivesRecordsBackInOrder) {
  BlockBudget budget{4};
  RecordQueue queue(budget);
  EXPECT_TRUE(queue.front().empty());
  EXPECT_TRUE(queue.push(nullptr, "first"));
  EXPECT_TRUE(push(queue, 7, "second"));
  EXPECT_EQ(queue.bytes(), 5 + 18 + 6U);
  EXPECT_EQ(queue.records(), 2U);
  EXPECT_EQ(queue.front(), "first" + delay(7) + "second");
  EXPECT_EQ(take_all(queue, 3), "first" + delay(7) + "second");
  EXPECT_EQ(queue.bytes(), 0U);
  EXPECT_EQ(queue.records(), 0U);
}

TEST(RecordQueue, KnowsWhatIsLeftOfARecordThatWasTakenInPart) {
  BlockBudget budget{4};
  RecordQueue queue(budget);
  queue.push(nullptr, "0123456789");
  push(queue, 5, "ab");
  push(queue, 8, "cd");
  struct Row {
    std::size_t taken;
    std::size_t records, begun;
    std::int64_t pauses;
  };
  for (const Row& row : std::vector<Row>{
           {4, 3, 4, 13}, {5, 3, 9, 13}, {1, 2, 0, 8}, {19, 2, 19, 8}, {1, 1, 0, 0}, {20, 0, 0, 0}}) {
    const auto emptied = queue.take(row.taken);
    EXPECT_EQ(queue.records(), row.records);
    EXPECT_EQ(queue.begun(), row.begun);
    EXPECT_EQ(queue.pauses(), row.pauses);
  }
}

TEST(RecordQueue, TakesMoreMemoryOnlyWhileRecordsWait) {
  BlockBudget budget{8};
  RecordQueue queue(budget);
  EXPECT_EQ(budget.used, 1U);
  std::string expected;
  for (int i = 0; i < 100; ++i) {
    const std::string bytes = datagram(8000, static_cast<char>('a' + i % 26));
    ASSERT_TRUE(push(queue, i, bytes));
    expected += delay(i) + bytes;
  }
  EXPECT_EQ(budget.used, 4U);
  EXPECT_EQ(queue.pauses(), 99 * 100 / 2);
  EXPECT_TRUE(take_all(queue, 100000) == expected);
  EXPECT_EQ(budget.used, 1U);
}

TEST(RecordQueue, UsesOneBlockAgainAndAgainWhileItIsEmptiedInTime) {
  BlockBudget budget{2};
  RecordQueue queue(budget);
  const char* const where = queue.front().data();
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(push(queue, i, datagram(500, 'd')));
    EXPECT_EQ(queue.front().data(), where);
    take_all(queue, 1000);
  }
  EXPECT_EQ(budget.used, 1U);
}

TEST(RecordQueue, RefusesWholeRecordsWhenTheBudgetIsUsedUp) {
  BlockBudget budget{2};
  RecordQueue queue(budget);
  std::string expected;
  int kept = 0;
  while (push(queue, kept, datagram(8000, 'a'))) {
    expected += delay(kept++) + datagram(8000, 'a');
  }
  EXPECT_EQ(kept, 2 * (256 * 1024 / 8018));
  EXPECT_FALSE(push(queue, 0, "short")) << "once one was refused, shorter ones that would fit are, too";
  const auto emptied = queue.take(8018);
  EXPECT_FALSE(push(queue, 0, "short")) << "no block has come free";
  expected.erase(0, 8018);
  while (budget.used == 2) {
    const std::size_t size = std::min<std::size_t>(queue.front().size(), 8018);
    const auto next = queue.take(size);
    expected.erase(0, size);
  }
  EXPECT_TRUE(push(queue, 1, "short"));
  EXPECT_TRUE(take_all(queue, 1 << 20) == expected + delay(1) + "short");
}

TEST(RecordQueue, SharesItsBudgetWithOthers) {
  BlockBudget budget{3};
  RecordQueue first(budget);
  int kept = 0;
  while (first.push(nullptr, datagram(8000, 'a'))) ++kept;
  EXPECT_EQ(kept, 3 * (256 * 1024 / 8004));
  RecordQueue second(budget);
  EXPECT_FALSE(second.push(nullptr, "nothing left"));
  EXPECT_TRUE(second.front().empty());
  const RecordQueue::Blocks blocks = first.release();
  EXPECT_EQ(budget.used, 0U);
  EXPECT_TRUE(second.push(nullptr, "room"));
  EXPECT_EQ(second.front(), "room");
}

TEST(RecordQueue, GivesBackMoreThanItKeepsAtHand) {
  BlockBudget budget{100};
  RecordQueue queue(budget);
  while (budget.used < 30) ASSERT_TRUE(queue.push(nullptr, datagram(8000, 'a')));
  std::size_t given_back = 0;
  while (!queue.front().empty()) {
    if (queue.take(queue.front().size()) != nullptr) ++given_back;
  }
  EXPECT_EQ(given_back, 29 - RecordQueue::kAtHand);
  EXPECT_EQ(budget.used, 1U);
  EXPECT_EQ(queue.release().size(), 1 + RecordQueue::kAtHand);
}

TEST(RecordQueue, GivesItsBudgetBack) {
  BlockBudget budget{3};
  {
    RecordQueue queue(budget);
    EXPECT_EQ(budget.used, 1U);
  }
  EXPECT_EQ(budget.used, 0U);
}

TEST(RecordQueue, TakesTheLongestAndTheShortestRecords) {
  BlockBudget budget{64};
  RecordQueue queue(budget);
  std::string expected;
  for (int i = 0; i < 5000; ++i) {
    const std::string bytes = datagram(i % 3 == 0 ? kLongestDatagram : 1, static_cast<char>('a' + i % 26));
    if (!push(queue, i, bytes)) break;
    expected += delay(i) + bytes;
  }
  EXPECT_GT(expected.size(), 13000000U);
  EXPECT_TRUE(take_all(queue, 99991) == expected);
}

}  // namespace
