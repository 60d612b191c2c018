#include "src/Recorder.h"

#include <gtest/gtest.h>

#include <cerrno>
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
  static void set_packet_count(Recorder& recorder, qint32 count) {
    recorder.grab_packet_count = count;
    recorder.recorded = count;
  }
  static qint32 packet_count(const Recorder& recorder) { return recorder.grab_packet_count; }
};

class GrabWriterProbe {
public:
  static bool step(GrabWriter& writer) { return writer.step(GrabWriter::Clock::now()); }
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
    writer.begin(RecordingFile::open(QString::fromStdString(file.path())));
    recorder.arm(by_record_channel);
  }

  /// A datagram of one ArtDmx. @param time  when it came, ns
  Recorder::Verdict receive(const std::string& bytes, std::int64_t time, int universe = 0,
                            Level level = Level::Absent, bool good = true) {
    recorder.begin_datagram();
    recorder.trigger_dmx_grab(parsed_dmx(universe, {}), level);
    return end(bytes, time, good);
  }

  Recorder::Verdict end(const std::string& bytes, std::int64_t time, bool good = true) {
    kesto::net::Datagram datagram;
    datagram.bytes = bytes;
    datagram.rx_time = time;
    datagram.kernel_drops = kernel_drops;
    return recorder.end_datagram(datagram, good);
  }

  GrabSummary finish() {
    recorder.finalize_grabbing();
    write_all();
    const auto concluded = writer.take_concluded();
    EXPECT_EQ(concluded.size(), 1U);
    dropped = concluded.front().dropped_at_end;
    losses = concluded.front().losses;
    recovered = concluded.front().recovered_at_end;
    return concluded.front().summary;
  }

  std::string content() const {
    std::ifstream in(file.path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  /// Does what the writer thread would do.
  void write_all() {
    while (GrabWriterProbe::step(writer)) {
    }
  }

  unit::TemporaryFile file{""};
  GrabWriter writer{1 << 20, [] {}};
  Recorder recorder{writer};
  std::uint32_t kernel_drops = 0;
  quint64 dropped = 0;     // at the end of the recording
  GrabLosses losses;       // of the whole recording
  bool recovered = false;  // at the end
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

TEST_F(RecorderTest, HasNoPauseBeforeADatagramThatArrivedBeforeThePreviousOne) {
  struct Row {
    const char* what;
    std::vector<std::int64_t> times;
    std::vector<std::int64_t> pauses;
  };
  const std::vector<Row> rows = {
      {"in order", {1000, 1004, 1010}, {4, 6}},
      {"at the same time", {1000, 1000, 1000}, {0, 0}},
      {"two changed places", {1000, 1008, 1004, 1010}, {8, 0, 2}},
      {"one is far behind", {1000, 1008, 3, 1005, 1010}, {8, 0, 0, 2}},
      {"the first arrived last", {1000, 990, 998, 1001}, {0, 0, 1}},
      // Whatever the recording before it held.
      {"an earlier recording", {500, 510}, {10}},
      {"before the clock began", {-20, -5, -10, 5}, {15, 0, 10}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    arm();
    std::string expected;
    for (std::size_t i = 0; i < row.times.size(); ++i) {
      const std::string datagram = "datagram " + std::to_string(i);
      receive(datagram, row.times[i]);
      if (i > 0) expected += delay_record(row.pauses[i - 1]);
      expected += datagram;
    }
    finish();
    EXPECT_EQ(content(), expected);
  }
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

TEST_F(RecorderTest, TellsOfMoreDatagramsThanThirtyTwoBitsHold) {
  constexpr qint32 kMost = std::numeric_limits<qint32>::max();
  arm();
  receive("first", 1);
  RecorderProbe::set_packet_count(recorder, kMost - 1);
  receive("second", 2);
  receive("third", 3);
  EXPECT_EQ(RecorderProbe::packet_count(recorder), kMost);
  EXPECT_EQ(recorder.progress().datagrams, qint64{kMost} + 1);
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

// 1 MiB of memory holds so many records of 8018 bytes: 32 in each block.
constexpr int kHeld = 4 * 32;

TEST_F(RecorderTest, SaysOnceThatAFileCannotBeWrittenAndThatItCanAgain) {
  arm();
  receive("first", 0);
  for (int outage = 0; outage < 3; ++outage) {
    {
      const unit::Room full(0);
      GrabWriterProbe::step(writer);
      EXPECT_EQ(receive("waits", 1).file_error, EFBIG);
      GrabWriterProbe::step(writer);
      const Recorder::Verdict next = receive("waits, too", 1);
      EXPECT_TRUE(next.recorded);
      EXPECT_EQ(next.file_error, 0);
      EXPECT_FALSE(next.file_recovered);
    }
    write_all();
    const Recorder::Verdict again = receive("again", 1);
    EXPECT_TRUE(again.file_recovered);
    EXPECT_EQ(again.dropped, 0U);
    EXPECT_FALSE(receive("and again", 1).file_recovered);
  }
  finish();
  EXPECT_EQ(dropped, 0U);
  EXPECT_FALSE(losses.any());
}

TEST_F(RecorderTest, TellsAtTheEndThatTheFileTookAllThatWaitedForIt) {
  for (const bool recovers : {true, false}) {
    arm();
    {
      const unit::Room full(0);
      receive("waits", 1);
      GrabWriterProbe::step(writer);
      EXPECT_NE(receive("waits, too", 1).file_error, 0);
      if (!recovers) finish();
    }
    if (recovers) finish();
    EXPECT_EQ(recovered, recovers);
    EXPECT_EQ(dropped, recovers ? 0U : 2U);
  }
}

// A disk that stands still for a while: dropped datagrams count neither for the time nor for the summary.
TEST_F(RecorderTest, KeepsTheTimeTrueOverDatagramsThatFoundNoMemory) {
  const std::string datagram(8000, 'd');
  arm();
  std::string expected;
  for (int i = 0; i < kHeld; ++i) {
    EXPECT_TRUE(receive(datagram, i, 1).recorded);
    if (i > 0) expected += delay_record(1);
    expected += datagram;
  }
  for (int i = 0; i < 3; ++i) {
    const Recorder::Verdict verdict = receive(datagram, 7000000 + i, 9);
    EXPECT_FALSE(verdict.recorded);
    EXPECT_EQ(verdict.dropping_began, i == 0);
    EXPECT_FALSE(verdict.file_recovered);
  }
  write_all();
  const Recorder::Verdict again = receive("later", 5000000000, 2);
  EXPECT_TRUE(again.recorded);
  EXPECT_TRUE(again.file_recovered);
  EXPECT_EQ(again.dropped, 3U);
  EXPECT_FALSE(receive("last", 5000000001, 2).file_recovered);
  const GrabSummary summary = finish();
  EXPECT_TRUE(content() ==
              expected + delay_record(5000000000 - (kHeld - 1)) + "later" + delay_record(1) + "last");
  EXPECT_EQ(summary.universe_ceiling, 2);
  EXPECT_EQ(summary.universes, (std::unordered_set<qint32>{1, 2}));
  EXPECT_EQ(dropped, 0U);
  EXPECT_EQ(losses.writer, 3U);
  EXPECT_EQ(losses.kernel, 0U);
  EXPECT_EQ(losses.began, 7000000);
}

TEST_F(RecorderTest, TellsOfEachTimeThatThereIsNoMemory) {
  const std::string datagram(8000, 'd');
  arm();
  for (int outage = 0; outage < 3; ++outage) {
    while (receive(datagram, 0).recorded) {
    }
    EXPECT_FALSE(receive(datagram, 0).dropping_began);
    write_all();
    EXPECT_EQ(receive(datagram, 0).dropped, 2U);
  }
  finish();
  EXPECT_EQ(losses.writer, 6U);
}

TEST_F(RecorderTest, CountsWhatTheFileDidNotTakeAtTheEnd) {
  arm();
  const unit::Room full(0);
  for (int i = 0; i < 5; ++i) receive("datagram", 1000 + i);
  const GrabSummary summary = finish();
  EXPECT_EQ(content(), "");
  EXPECT_TRUE(summary.empty);
  EXPECT_EQ(dropped, 5U);
  EXPECT_EQ(losses.writer, 5U);
  EXPECT_EQ(losses.began, 0);
}

TEST_F(RecorderTest, ARecordingOfOneDatagramThatAlsoEndsItBeginsWithIt) {
  arm();
  const unit::Room full(0);
  recorder.begin_datagram();
  recorder.trigger_dmx_grab(parsed_dmx(9, {}), Level::Off);
  recorder.trigger_dmx_grab(parsed_dmx(1, {}), Level::Absent);
  EXPECT_TRUE(end("both", 7000000000).ended);
  finish();
  EXPECT_EQ(losses.writer, 1U);
  EXPECT_EQ(losses.began, 0);
}

TEST_F(RecorderTest, ReportsNoUniverseThatOnlyTheLostEndOfTheRecordingHeld) {
  arm();
  receive("first", 10, 3);
  receive("second", 11, 5);
  receive("third", 22, 9);
  receive("fourth", 33, 3);
  receive("fifth", 44, 7);
  GrabSummary summary;
  {
    const unit::Room room(5 + 18 + 6 + 4);
    summary = finish();
  }
  EXPECT_EQ(content(), "first" + delay_record(1) + "second");
  EXPECT_EQ(dropped, 3U);
  EXPECT_EQ(losses.began, 12) << "the third is the first that is missing";
  EXPECT_EQ(summary.universe_ceiling, 5);
  EXPECT_EQ(summary.universes, (std::unordered_set<qint32>{3, 5}));
}

TEST_F(RecorderTest, CountsWhatTheKernelDroppedWhileItRecorded) {
  struct Row {
    const char* what;
    std::vector<std::uint32_t> drops;  // as each datagram tells, 1 ms after the one before
    quint64 lost;
    qint64 began;
  };
  const std::vector<Row> rows = {
      {"nothing", {0, 0, 0}, 0, 0},
      {"before the recording", {7, 7, 7}, 0, 0},
      {"once", {7, 7, 9, 9}, 2, 2000000},
      {"twice", {9, 10, 10, 14}, 5, 1000000},
      {"the count begins anew", {0xFFFFFFFF, 3}, 4, 1000000},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    // A count goes up by less than half of its range at a time.
    for (std::uint32_t quarter = 1; quarter < 4; ++quarter)
      recorder.note_kernel_drops(row.drops.front() / 4 * quarter, 0);
    arm();
    std::int64_t time = 500;
    for (const std::uint32_t drops : row.drops) {
      kernel_drops = drops;
      receive("datagram", time);
      time += 1000000;
    }
    finish();
    EXPECT_EQ(losses.kernel, row.lost);
    EXPECT_EQ(losses.writer, 0U);
    EXPECT_EQ(losses.began, row.began);
  }
}

TEST_F(RecorderTest, CountsNoDropTwiceWhenOlderDatagramsComeAfterTheEnd) {
  arm();
  receive("datagram", 0);
  recorder.note_kernel_drops(5, 1000000);
  finish();
  EXPECT_EQ(losses.kernel, 5U);
  arm();
  for (const std::uint32_t told : {3U, 4U, 5U}) {
    kernel_drops = told;
    receive("datagram", 2000000);
  }
  finish();
  EXPECT_EQ(losses.kernel, 0U);
}

TEST_F(RecorderTest, CountsWhatTheKernelDroppedAfterTheLastDatagram) {
  kernel_drops = 4;
  recorder.note_kernel_drops(4, 0);
  arm();
  receive("datagram", 1000000);
  recorder.note_kernel_drops(10, 5000000);
  finish();
  EXPECT_EQ(losses.kernel, 6U);
  EXPECT_EQ(losses.began, 4000000);
}

TEST_F(RecorderTest, TellsOfNoLossBeforeTheFirstDatagram) {
  arm();
  receive("the time of reading", 61000000000);
  kernel_drops = 1;
  receive("the time of arrival", 2000000000);
  finish();
  EXPECT_EQ(losses.kernel, 1U);
  EXPECT_EQ(losses.began, 0);
}

TEST_F(RecorderTest, CountsWhatTheKernelDroppedBeforeADatagramThatIsNotRecorded) {
  arm();
  receive("datagram", 0);
  kernel_drops = 5;
  recorder.begin_datagram();
  end("no ArtDmx", 3000000);
  finish();
  EXPECT_EQ(losses.kernel, 5U);
  EXPECT_EQ(losses.began, 3000000);
}

}  // namespace
