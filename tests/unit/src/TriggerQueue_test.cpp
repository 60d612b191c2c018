#include "src/TriggerQueue.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kesto/logger.h"

// A flood of triggers must not fill the memory of the service.

namespace {

constexpr int kLimit = 32768;

class TriggerQueueTest : public testing::Test {
protected:
  TriggerQueueTest() {
    kesto::Logger::instance()->setOutput(kesto::Logger::Console);
    kesto::Logger::instance()->useContext(false);
    testing::internal::CaptureStderr();
    QObject::connect(&queue, &TriggerQueue::OnArtnetTrigger,
                     [this](int key, int subkey) { arrived.emplace_back(key, subkey); });
  }

  /// As the receive thread does.
  void post(int from, int to) {
    std::thread([this, from, to] {
      for (int i = from; i < to; ++i) queue.post("test", {i, -i});
    }).join();
  }

  /// Everything that was logged.
  static std::string log() {
    kesto::Logger::instance()->flush(std::chrono::minutes(1));
    return testing::internal::GetCapturedStderr();
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
  EXPECT_EQ(log(), "");
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
  log();
}

TEST_F(TriggerQueueTest, SaysOnceThatTheLimitIsReachedAndOnceHowManyWereLost) {
  for (int flood = 0; flood < 2; ++flood) {
    post(0, kLimit + 100 + flood);
    QCoreApplication::processEvents();
  }
  EXPECT_EQ(log(),
            "[Dump::test] Too many triggers wait for the bus, further ones are lost (limit:32768)\n"
            "[Dump::OnArtnetTrigger] The bus takes triggers again (lost:100)\n"
            "[Dump::test] Too many triggers wait for the bus, further ones are lost (limit:32768)\n"
            "[Dump::OnArtnetTrigger] The bus takes triggers again (lost:101)\n");
}

TEST_F(TriggerQueueTest, LogsAnEmissionOnlyOfWhatIsEmitted) {
  kesto::Logger::instance()->setLevel(6);
  post(0, 2);
  kesto::Logger::instance()->setLevel(3);
  post(2, kLimit);
  kesto::Logger::instance()->setLevel(6);
  post(0, 2);
  EXPECT_EQ(log(),
            "[Dump::test] Emitting OnArtnetTrigger signal (key:0, subkey:0)\n"
            "[Dump::test] Emitting OnArtnetTrigger signal (key:1, subkey:-1)\n"
            "[Dump::test] Too many triggers wait for the bus, further ones are lost (limit:32768)\n");
}

}  // namespace
