#include "cue/RecordingWriter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "cue/CueError.h"
#include "unit/cue/directory.h"
#include "unit/cue/recordings.h"

using cue::CueError;
using cue::RecordingWriter;
using packets::dmx;
using recordings::bytes_of;
using recordings::delay;

namespace {

void add(RecordingWriter& writer, const std::string& datagram, std::int64_t pause) {
  writer.add(bytes_of(datagram), datagram.size(), pause);
}

template <typename Action>
std::string error_of(Action&& action) {
  try {
    action();
  } catch (const CueError& error) {
    return error.what();
  }
  return "no error";
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

TEST(RecordingWriter, ReplacesAnEarlierFileOnlyWhenItIsComplete) {
  const unit::Directory directory;
  directory.write("out.cue", "earlier");
  RecordingWriter writer(directory / "out.cue");
  add(writer, std::string(1000000, 'x'), 0);
  EXPECT_EQ(directory.content("out.cue"), "earlier");
  writer.commit();
  EXPECT_EQ(directory.content("out.cue"), std::string(1000000, 'x'));
  EXPECT_EQ(directory.names(), std::vector<std::string>{"out.cue"});
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

TEST(RecordingWriter, RefusesToReplaceAnInput) {
  const unit::Directory directory;
  directory.write("in.cue", "input");
  std::filesystem::create_hard_link(directory / "in.cue", directory / "link.cue");
  const std::string link = directory / "link.cue";
  EXPECT_EQ(error_of([&] {
              RecordingWriter(link, {directory / "other.cue", directory / "in.cue"});
            }),
            link + ": the output would replace the input");
  EXPECT_EQ(directory.content("in.cue"), "input");
}

TEST(RecordingWriter, RefusesToReplaceWhatIsNoFile) {
  const unit::Directory directory;
  EXPECT_EQ(error_of([&] { RecordingWriter(directory.path()); }), directory.path() + ": not a regular file");
  EXPECT_EQ(error_of([] { RecordingWriter("/dev/null"); }), "/dev/null: not a regular file");
}

TEST(RecordingWriter, NamesAFileThatItCannotMake) {
  EXPECT_EQ(error_of([] { RecordingWriter("/nowhere/out.cue"); }),
            "/nowhere/out.cue: No such file or directory");
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
