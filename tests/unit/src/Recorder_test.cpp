#include "src/Recorder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <unordered_set>
#include <vector>

#include "unit/artnet/packets.h"
#include "unit/src/dmx.h"
#include "unit/support/room.h"
#include "unit/support/temporary_file.h"

/// A recording cannot be brought to these numbers by recording.
class RecorderProbe {
public:
  static void set_packet_count(Recorder& recorder, qint32 count) { recorder.grab_packet_count = count; }
  static qint32 packet_count(const Recorder& recorder) { return recorder.grab_packet_count; }
};

namespace {

using Level = ControlUniverse::RecordLevel;

/// A delay record, byte by byte.
std::string delay_record(std::int64_t nanoseconds) {
  std::string bytes = packets::header(0x00FE);
  for (unsigned shift = 0; shift < 64; shift += 8)
    bytes += packets::byte(static_cast<unsigned>(static_cast<std::uint64_t>(nanoseconds) >> shift));
  return bytes;
}

class RecorderTest : public testing::Test {
protected:
  void arm(bool by_record_channel = false) {
    recorder.arm(RecordingFile::open(QString::fromStdString(file.path())), by_record_channel);
  }

  /// A datagram of one ArtDmx. @param time  when it came, ns
  Recorder::Verdict receive(const std::string& bytes, std::int64_t time, int universe = 0,
                            Level level = Level::Absent, bool good = true) {
    recorder.begin_datagram();
    recorder.trigger_dmx_grab(parsed_dmx(universe, {}), level);
    return end(bytes, time, good);
  }

  Recorder::Verdict end(const std::string& bytes, std::int64_t time, bool good = true) {
    Datagram datagram;
    datagram.bytes = bytes;
    datagram.rx_time = time;
    return recorder.end_datagram(datagram, good);
  }

  GrabSummary finish() {
    recorder.finalize_grabbing();
    auto ended = recorder.take_ended_grab();
    EXPECT_TRUE(ended);
    const GrabSummary summary = ended->conclude();
    dropped = ended->dropped;
    return summary;
  }

  std::string content() const {
    std::ifstream in(file.path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  unit::TemporaryFile file{""};
  Recorder recorder;
  quint64 dropped = 0;  // at the end of the recording
};

TEST_F(RecorderTest, PutsTheTimeBetweenTwoRecordedDatagramsBeforeTheSecond) {
  arm();
  receive("first", 1000);
  receive("second", 1007);
  receive("third", 1000000000000);
  finish();
  EXPECT_EQ(content(), "first" + delay_record(7) + "second" + delay_record(999999998993) + "third");
}

TEST_F(RecorderTest, CountsTheTimeOfDatagramsThatAreNotRecorded) {
  arm();
  receive("first", 1000);
  recorder.begin_datagram();
  end("no ArtDmx", 1100);
  receive("cut off", 1200, 0, Level::Absent, false);
  receive("second", 1300);
  finish();
  EXPECT_EQ(content(), "first" + delay_record(300) + "second");
}

TEST_F(RecorderTest, SaysWhatBecameOfEachDatagram) {
  struct Row {
    const char* what;
    bool by_record_channel;
    std::vector<Level> levels;  // of the ArtDmx of one datagram after the other
    std::vector<bool> recorded;
    std::vector<bool> started;
    bool ended;  // with the last one
    const char* status;
  };
  const std::vector<Row> rows = {
      {"no record channel", false, {Level::Absent, Level::Absent}, {true, true}, {true, false}, false, "run"},
      {"a level that is on", false, {Level::On}, {true}, {true}, false, "run"},
      {"off at once", false, {Level::Off}, {false}, {false}, true, "run"},
      {"off later", false, {Level::On, Level::Off}, {true, false}, {true, false}, true, "run"},
      {"armed, nothing", true, {Level::Absent, Level::Off}, {false, false}, {false, false}, false, "on"},
      {"armed, on", true, {Level::On}, {false}, {false}, false, "on"},
      {"armed, on, recorded", true, {Level::On, Level::Absent}, {false, true}, {false, true}, false, "run"},
      {"armed, on, off", true, {Level::On, Level::Off}, {false, false}, {false, false}, true, "run"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    arm(row.by_record_channel);
    Recorder::Verdict verdict;
    for (std::size_t i = 0; i < row.levels.size(); ++i) {
      verdict = receive("datagram", 1, 0, row.levels[i]);
      EXPECT_EQ(verdict.recorded, row.recorded[i]) << i;
      EXPECT_EQ(verdict.started, row.started[i]) << i;
    }
    EXPECT_EQ(verdict.ended, row.ended);
    EXPECT_STREQ(recorder.status(), row.status);
    finish();
    EXPECT_STREQ(recorder.status(), "off");
    EXPECT_TRUE(recorder.is_off());
  }
}

TEST_F(RecorderTest, LetsTheLastArtDmxOfADatagramDecide) {
  arm();
  recorder.begin_datagram();
  recorder.trigger_dmx_grab(parsed_dmx(1, {}), Level::Off);
  recorder.trigger_dmx_grab(parsed_dmx(2, {}), Level::Absent);
  const Recorder::Verdict verdict = end("both", 1);
  EXPECT_TRUE(verdict.recorded);
  EXPECT_TRUE(verdict.ended);
  EXPECT_EQ(finish().universes, std::unordered_set<qint32>{2});
  EXPECT_EQ(content(), "both");
}

TEST_F(RecorderTest, StartsAndRecordsWithinOneDatagram) {
  arm(true);
  recorder.begin_datagram();
  recorder.trigger_dmx_grab(parsed_dmx(1, {}), Level::On);
  recorder.trigger_dmx_grab(parsed_dmx(2, {}), Level::Absent);
  EXPECT_TRUE(end("both", 1).recorded);
  finish();
  EXPECT_EQ(content(), "both");
}

TEST_F(RecorderTest, ForgetsTheMarkOfADatagramThatWasNotGood) {
  arm();
  receive("cut off", 1, 0, Level::Absent, false);
  recorder.begin_datagram();
  EXPECT_FALSE(end("no ArtDmx", 2).recorded);
  EXPECT_TRUE(finish().empty);
}

TEST_F(RecorderTest, SumsUpWhatIsInTheFile) {
  arm();
  for (const int universe : {3, 0, 3, 65535}) receive("datagram", 1, universe);
  const GrabSummary summary = finish();
  EXPECT_EQ(summary.file_name.toStdString(), file.path());
  EXPECT_FALSE(summary.empty);
  EXPECT_EQ(summary.universe_ceiling, 65535);
  EXPECT_EQ(summary.universes, (std::unordered_set<qint32>{0, 3, 65535}));
}

TEST_F(RecorderTest, GoesOnWhenThereAreMoreDatagramsThanItCanCount) {
  constexpr qint32 kMost = std::numeric_limits<qint32>::max();
  arm();
  receive("first", 1);
  RecorderProbe::set_packet_count(recorder, kMost - 1);
  receive("second", 2);
  EXPECT_EQ(RecorderProbe::packet_count(recorder), kMost);
  receive("third", 3);
  EXPECT_EQ(RecorderProbe::packet_count(recorder), kMost);
  receive("fourth", 4);
  EXPECT_FALSE(finish().empty);
  EXPECT_EQ(content(),
            "first" + delay_record(1) + "second" + delay_record(1) + "third" + delay_record(1) + "fourth");
}

TEST_F(RecorderTest, SumsUpARecordingOfNothing) {
  arm();
  const GrabSummary summary = finish();
  EXPECT_TRUE(summary.empty);
  EXPECT_EQ(summary.universe_ceiling, -1);
  EXPECT_TRUE(summary.universes.empty());
  EXPECT_EQ(dropped, 0U);
}

TEST_F(RecorderTest, BeginsEachRecordingAnew) {
  arm();
  receive("first", 10, 7);
  finish();
  arm();
  receive("second", 20, 1);
  const GrabSummary summary = finish();
  EXPECT_EQ(content(), "second");
  EXPECT_EQ(summary.universe_ceiling, 1);
  EXPECT_EQ(summary.universes, std::unordered_set<qint32>{1});
}

TEST_F(RecorderTest, HasOneEndedGrabAfterEachEnd) {
  EXPECT_FALSE(recorder.take_ended_grab());
  arm();
  recorder.finalize_grabbing();
  EXPECT_TRUE(recorder.take_ended_grab());
  EXPECT_FALSE(recorder.take_ended_grab());
}

// A disk that is full for a while: dropped datagrams count neither for the time nor for the summary.
TEST_F(RecorderTest, KeepsTheTimeTrueOverDatagramsThatTheFileDidNotTake) {
  const std::string datagram(8000, 'd');
  arm();
  {
    const unit::Room full(0);
    EXPECT_TRUE(receive(datagram, 0, 1).recorded);
    EXPECT_TRUE(receive(datagram, 1, 1).recorded);  // 16 KiB are gathered
    for (int i = 2; i < 5; ++i) {
      const Recorder::Verdict verdict = receive(datagram, i, 9);
      EXPECT_FALSE(verdict.recorded);
      EXPECT_EQ(verdict.dropping_began, i == 2);
      EXPECT_EQ(verdict.dropped, 0U);
    }
  }
  const Recorder::Verdict again = receive("later", 5000000000, 2);
  EXPECT_TRUE(again.recorded);
  EXPECT_EQ(again.dropped, 3U);
  EXPECT_EQ(receive("last", 5000000001, 2).dropped, 0U);
  const GrabSummary summary = finish();
  EXPECT_EQ(content(), datagram + delay_record(1) + datagram + delay_record(4999999999) + "later" +
                           delay_record(1) + "last");
  EXPECT_EQ(summary.universe_ceiling, 2);
  EXPECT_EQ(summary.universes, (std::unordered_set<qint32>{1, 2}));
  EXPECT_EQ(dropped, 0U);
}

TEST_F(RecorderTest, CountsWhatWasDroppedWhenTheDiskStaysFullToTheEnd) {
  const std::string datagram(8000, 'd');
  arm();
  const unit::Room full(0);
  for (int i = 0; i < 5; ++i) receive(datagram, i);
  const GrabSummary summary = finish();
  EXPECT_EQ(content(), "");
  EXPECT_TRUE(summary.empty);
  EXPECT_EQ(dropped, 5U);
}

TEST_F(RecorderTest, ReportsNoUniverseThatOnlyTheLostEndOfTheRecordingHeld) {
  arm();
  receive("first", 0, 3);
  receive("second", 1, 5);
  receive("third", 2, 9);
  receive("fourth", 3, 3);
  receive("fifth", 4, 7);
  GrabSummary summary;
  {
    const unit::Room room(5 + 18 + 6 + 4);
    summary = finish();
  }
  EXPECT_EQ(content(), "first" + delay_record(1) + "second");
  EXPECT_EQ(dropped, 3U);
  EXPECT_EQ(summary.universe_ceiling, 5);
  EXPECT_EQ(summary.universes, (std::unordered_set<qint32>{3, 5}));
}

TEST_F(RecorderTest, TellsOfEachTimeThatTheDiskIsFull) {
  const std::string datagram(16384 - 18, 'd');
  arm();
  for (int outage = 0; outage < 3; ++outage) {
    {
      receive(datagram, 0);
      const unit::Room full(0);
      EXPECT_TRUE(receive(datagram, 0).dropping_began);
      EXPECT_FALSE(receive(datagram, 0).dropping_began);
    }
    EXPECT_EQ(receive(datagram, 0).dropped, 2U);
  }
  finish();
}

}  // namespace
