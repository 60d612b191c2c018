#include <gtest/gtest.h>

#include <QCoreApplication>
#include <cstring>
#include <thread>

#include "kesto/logger.h"
#include "tests/support/DumpProbe.h"

// What a flood from the network can make the service keep.

namespace {

constexpr int kTriggersUnderWay = 32768;

std::vector<char> packet(std::size_t size, char opcode_high) {
  std::vector<char> bytes(size, 0);
  memcpy(bytes.data(), "Art-Net", 8);
  bytes[9] = opcode_high;
  return bytes;
}

std::vector<char> trigger(int key) {
  std::vector<char> bytes = packet(18, static_cast<char>(0x99));
  bytes[16] = static_cast<char>(key);
  return bytes;
}

class DumpBounds : public testing::Test {
protected:
  DumpBounds() { kesto::Logger::instance()->setOutput(kesto::Logger::None); }

  void receive(const std::vector<char>& datagram) { probe.receive(datagram, "10.0.0.2", 6454, 1); }

  int argument_count = 0;
  QCoreApplication application{argument_count, nullptr};
  DumpProbe probe;
};

TEST_F(DumpBounds, TriggersWaitForTheMainThreadInALimitedNumberAndGoOnAfterwards) {
  std::vector<int> keys;
  QObject::connect(&probe.service(), &Dump::OnArtnetTrigger, [&keys](int key, int) { keys.push_back(key); });
  std::thread([this] {
    for (int i = 0; i < kTriggersUnderWay + 100; ++i) receive(trigger(i % 256));
  }).join();
  QCoreApplication::processEvents();
  ASSERT_EQ(keys.size(), static_cast<std::size_t>(kTriggersUnderWay));
  for (std::size_t i = 0; i < keys.size(); ++i) ASSERT_EQ(keys[i], static_cast<int>(i % 256));
  std::thread([this] { receive(trigger(77)); }).join();
  QCoreApplication::processEvents();
  EXPECT_EQ(keys.back(), 77);
  EXPECT_EQ(keys.size(), static_cast<std::size_t>(kTriggersUnderWay) + 1);
}

}  // namespace
