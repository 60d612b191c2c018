#include "src/Dump.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <string>
#include <thread>

#include "artnet/ArtNet.h"
#include "kesto/logger.h"
#include "support/DumpProbe.h"
#include "unit/artnet/packets.h"
#include "unit/support/temporary_file.h"

namespace {

// The moment between two looks at the recorder is short: so many recordings meet it in every run.
constexpr int kRecordings = 300;

constexpr int kFrames = 20;  // of each

constexpr unsigned kControl = 7;  // port-address
const std::string kOn = packets::dmx_announcing(1, "\xff", kControl);
const std::string kOff = packets::dmx_announcing(1, packets::byte(0), kControl);
const std::string kFrame = packets::dmx_announcing(5, "light", 1);
const off_t kSize = static_cast<off_t>(kFrames * kFrame.size() + (kFrames - 1) * sizeof(ArtOemVfpsNs));

off_t size_of(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

/// Recordings that the record channel begins and ends on a receive thread, while this one is a client.
class RecordChannel : public testing::Test {
protected:
  RecordChannel() {
    kesto::Logger::instance()->setLevel(-2);
    probe->set_ctrl_universe(kControl + 1);
    probe->set_ctrl_record(1, 128);
  }

  void grab() { probe->grab(QString::fromStdString(file.path())); }

  /// One recording, on the receive thread.
  void record() {
    receive(kOn);
    receive(kFrame);
    under_way = true;
    // By now the client is at its calls.
    for (int i = 1; i < kFrames; ++i) receive(kFrame);
    receive(kOff);
  }

  DumpProbe probe;
  const unit::TemporaryFile file{""};
  std::atomic<bool> under_way{false};

private:
  void receive(const std::string& datagram) { probe.receive(datagram, "10.0.0.2", 6454, 0); }
};

TEST_F(RecordChannel, WhoAsksForTheLatestGrabFindsTheFileComplete) {
  for (int i = 0; i < kRecordings; ++i) {
    grab();
    std::thread receiver([this] { record(); });
    while (probe->get_status() != QLatin1String("off")) {
    }
    EXPECT_TRUE(probe->latest_grab().contains(QLatin1String("[1]")));
    EXPECT_EQ(size_of(file.path()), kSize);
    receiver.join();
  }
}

TEST_F(RecordChannel, ANewRecordingOfTheSameNameHoldsNothingOfTheOneBefore) {
  for (int i = 0; i < kRecordings; ++i) {
    grab();
    under_way = false;
    std::thread receiver([this] { record(); });
    while (!under_way) {
    }
    // Mostly refused, until the one before has ended.
    do {
      for (int tries = 0; tries < 10; ++tries) grab();
    } while (probe->get_status() != QLatin1String("on"));
    EXPECT_EQ(size_of(file.path()), 0);
    receiver.join();
    EXPECT_EQ(probe->latest_grab(),
              QString::fromStdString(R"({"filename": ")" + file.path() +
                                     R"(", "empty": false, "uniceil": 1, )" + R"("universes": [1]})"));
    probe->stop();
  }
}

}  // namespace
