#include "src/TriggerQueue.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <thread>
#include <utility>
#include <vector>

#include "kesto/logger.h"

// What a flood of triggers can make the service keep.

namespace {

constexpr int kLimit = 32768;

class TriggerQueueTest : public testing::Test {
protected:
  TriggerQueueTest() {
    kesto::Logger::instance()->setOutput(kesto::Logger::None);
    QObject::connect(&queue, &TriggerQueue::OnArtnetTrigger,
                     [this](int key, int subkey) { arrived.emplace_back(key, subkey); });
  }

  /// As the receive thread does.
  void post(int from, int to) {
    std::thread([this, from, to] {
      for (int i = from; i < to; ++i) queue.post("test", {i, -i});
    }).join();
  }

  int argument_count = 0;
  QCoreApplication application{argument_count, nullptr};
  TriggerQueue queue;
  std::vector<std::pair<int, int>> arrived;
};

TEST_F(TriggerQueueTest, HandsTriggersOverOnTheMainThreadInOrder) {
  post(0, 1000);
  EXPECT_TRUE(arrived.empty());
  QCoreApplication::processEvents();
  ASSERT_EQ(arrived.size(), 1000U);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(arrived[static_cast<std::size_t>(i)], std::make_pair(i, -i));
}

TEST_F(TriggerQueueTest, KeepsALimitedNumberAndGoesOnAfterwards) {
  post(0, kLimit + 100);
  QCoreApplication::processEvents();
  ASSERT_EQ(arrived.size(), static_cast<std::size_t>(kLimit));
  EXPECT_EQ(arrived.back(), std::make_pair(kLimit - 1, -(kLimit - 1)));
  post(7, 8);
  QCoreApplication::processEvents();
  EXPECT_EQ(arrived.back(), std::make_pair(7, -7));
  EXPECT_EQ(arrived.size(), static_cast<std::size_t>(kLimit) + 1);
}

}  // namespace
