#include "src/GrabBuffer.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QDataStream>
#include <QIODevice>
#include <algorithm>
#include <string>
#include <vector>

namespace {

/// A disk with room for a number of bytes; notes how large each write is.
class Disk : public QIODevice {
public:
  Disk() { open(QIODevice::WriteOnly | QIODevice::Unbuffered); }

  std::string content;
  std::size_t room = 1000000;
  std::vector<qint64> writes;

protected:
  qint64 readData(char* /*data*/, qint64 /*size*/) override { return -1; }
  qint64 writeData(const char* data, qint64 size) override {
    writes.push_back(size);
    const auto taken = std::min<std::size_t>(static_cast<std::size_t>(size), room);
    content.append(data, taken);
    room -= taken;
    return taken == 0 ? -1 : static_cast<qint64>(taken);
  }
};

class GrabBufferTest : public testing::Test {
protected:
  GrabBufferTest() : stream(&disk) {}

  Disk disk;
  QDataStream stream;
  GrabBuffer buffer;
};

TEST_F(GrabBufferTest, WritesNothingBeforeItIsFullOrFlushed) {
  buffer.append({}, "first", stream);
  buffer.append("delay", "second", stream);
  EXPECT_TRUE(disk.writes.empty());
  buffer.flush(stream);
  EXPECT_EQ(disk.content, "firstdelaysecond");
  EXPECT_EQ(disk.writes, std::vector<qint64>{16});
  buffer.flush(stream);
  EXPECT_EQ(disk.writes.size(), 1U);
}

TEST_F(GrabBufferTest, HoldsExactly16KiB) {
  buffer.append({}, std::string(8191, 'a'), stream);
  buffer.append(std::string(2, 'd'), std::string(8191, 'b'), stream);
  EXPECT_TRUE(disk.writes.empty());
  buffer.append({}, "c", stream);
  EXPECT_EQ(disk.writes, std::vector<qint64>{16384});
  buffer.flush(stream);
  EXPECT_EQ(disk.content, std::string(8191, 'a') + "dd" + std::string(8191, 'b') + "c");
}

TEST_F(GrabBufferTest, DropsWholeRecordsWhileTheDiskIsFullAndGoesOnWhenThereIsRoom) {
  const std::string delay(18, 'd');
  std::string expected;
  disk.room = 5000;
  for (char name = 'a'; name <= 'd'; ++name) {
    buffer.append(delay, std::string(8000, name), stream);
    // Two records fit; the third finds room for less than itself, and so does the fourth.
    if (name <= 'b') expected += delay + std::string(8000, name);
  }
  EXPECT_EQ(disk.content.size(), 5000U);
  disk.room = 1000000;
  buffer.append(delay, std::string(8000, 'e'), stream);
  expected += delay + std::string(8000, 'e');
  buffer.flush(stream);
  EXPECT_EQ(disk.content, expected);
}

TEST_F(GrabBufferTest, KeepsWhatAWriteDidNotTake) {
  buffer.append({}, "abcdef", stream);
  disk.room = 2;
  buffer.flush(stream);
  EXPECT_EQ(disk.content, "ab");
  disk.room = 100;
  buffer.flush(stream);
  EXPECT_EQ(disk.content, "abcdef");
}

TEST_F(GrabBufferTest, ClearForgetsWhatWasNotWritten) {
  buffer.append({}, "old", stream);
  buffer.clear();
  buffer.append({}, "new", stream);
  buffer.flush(stream);
  EXPECT_EQ(disk.content, "new");
}

TEST_F(GrabBufferTest, AnEmptyDatagramTakesNoRoom) {
  buffer.append({}, {}, stream);
  buffer.flush(stream);
  EXPECT_TRUE(disk.writes.empty());
}

}  // namespace
