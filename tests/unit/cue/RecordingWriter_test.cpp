#include "cue/RecordingWriter.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "unit/cue/directory.h"
#include "unit/cue/recordings.h"

using cue::RecordingWriter;
using packets::dmx;
using recordings::bytes_of;
using recordings::delay;

namespace {

void add(RecordingWriter& writer, const std::string& datagram, std::int64_t pause) {
  writer.add(bytes_of(datagram), datagram.size(), pause);
}

TEST(RecordingWriter, WritesADelayRecordBeforeEveryDatagramButTheFirst) {
  const unit::Directory directory;
  RecordingWriter writer(directory / "out.cue");
  add(writer, dmx("one"), 99);
  add(writer, dmx("two"), 5);
  add(writer, dmx("three"), 0);
  EXPECT_EQ(writer.datagrams(), 3U);
  writer.commit();
  EXPECT_EQ(directory.content("out.cue"), dmx("one") + delay(5) + dmx("two") + delay(0) + dmx("three"));
}

TEST(RecordingWriter, WritesNoPauseThatNoRecordingHolds) {
  const unit::Directory directory;
  RecordingWriter writer(directory / "out.cue");
  add(writer, dmx("one"), 0);
  add(writer, dmx("two"), kLongestPause + 1);
  writer.commit();
  EXPECT_EQ(directory.content("out.cue"), dmx("one") + delay(kLongestPause) + dmx("two"));
}

TEST(RecordingWriter, WritesAnEmptyRecording) {
  const unit::Directory directory;
  RecordingWriter(directory / "out.cue").commit();
  EXPECT_EQ(directory.content("out.cue"), "");
}

TEST(RecordingWriter, LeavesNothingBehindWithoutACommit) {
  const unit::Directory directory;
  {
    RecordingWriter writer(directory / "out.cue");
    add(writer, dmx("one"), 0);
  }
  EXPECT_EQ(directory.names(), std::vector<std::string>{});
}

TEST(RecordingWriter, GivesTheFileTheAccessOfANewFile) {
  const unit::Directory directory;
  const mode_t before = umask(027);
  RecordingWriter(directory / "out.cue").commit();
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat((directory / "out.cue").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST(RecordingWriter, IsTheInverseOfTheReader) {
  const unit::Directory directory;
  recordings::Chance chance(3);
  std::vector<recordings::Datagram> datagrams;
  for (int i = 0; i < 200; ++i) datagrams.emplace_back(chance.dmx(), chance.pause());
  const std::string file = recordings::file_of(datagrams);
  cue::RecordingReader reader = recordings::reader_of(file);
  RecordingWriter writer(directory / "out.cue");
  cue::Record record;
  while (reader.next(record)) writer.add(record.data, record.size, record.pause);
  writer.commit();
  EXPECT_EQ(directory.content("out.cue"), file);
}

}  // namespace
