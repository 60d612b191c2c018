#include "tools/FolderTest.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using kadrel_cue::FolderLook;
using kadrel_cue::FolderTest;
using kadrel_cue::free_bytes_in;
using kadrel_cue::look_at_folder;
using kadrel_cue::report_on_folder;
using kadrel_cue::take_reports;

namespace {

class FolderLooks : public testing::Test {
protected:
  void SetUp() override { ASSERT_NE(mkdtemp(folder.data()), nullptr); }
  void TearDown() override { std::filesystem::remove_all(folder); }

  std::string folder = "/tmp/kadrel_unit_XXXXXX";
};

TEST_F(FolderLooks, MeasureSpaceAndSpeedAndLeaveNothing) {
  FolderTest test;
  test.most = 3 << 20;
  const FolderLook look = look_at_folder(folder, false, test);
  EXPECT_TRUE(look.answered);
  EXPECT_EQ(look.error, 0);
  EXPECT_GT(look.free_bytes, 0U);
  EXPECT_TRUE(look.files_left);
  ASSERT_TRUE(look.tested);
  EXPECT_EQ(look.write_error, 0);
  EXPECT_GT(look.written, 0U);
  EXPECT_LE(look.written, test.most);
  EXPECT_GT(look.seconds, 0);
  EXPECT_TRUE(std::filesystem::is_empty(folder));
}

TEST_F(FolderLooks, WriteNothingBesideARecording) {
  const FolderLook look = look_at_folder(folder, true);
  EXPECT_TRUE(look.answered);
  EXPECT_EQ(look.error, 0);
  EXPECT_FALSE(look.tested);
  EXPECT_EQ(look.written, 0U);
}

TEST_F(FolderLooks, WriteNothingWithoutTime) {
  FolderTest test;
  test.writing = std::chrono::milliseconds(0);
  EXPECT_EQ(look_at_folder(folder, false, test).written, 0U);
}

TEST_F(FolderLooks, SayWhyThereIsNoFolder) {
  EXPECT_EQ(look_at_folder(folder + "/missing", false).error, ENOENT);
  EXPECT_TRUE(look_at_folder(folder + "/missing", false).answered);
  EXPECT_TRUE(look_at_folder(folder + "/missing", false).files_left);
}

/// A pipe that keeps each report apart from the next one.
struct Pipe {
  Pipe() { EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_DIRECT), 0); }
  ~Pipe() {
    close(ends[0]);
    end();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  Pipe(Pipe&&) = delete;
  Pipe& operator=(Pipe&&) = delete;

  int reader() const { return ends[0]; }
  int writer() const { return ends[1]; }
  void end() {
    if (ends[1] != -1) close(ends[1]);
    ends[1] = -1;
  }

private:
  int ends[2] = {-1, -1};
};

FolderTest without_patience() {
  FolderTest test;
  test.writing = test.patience = std::chrono::milliseconds(0);
  return test;
}

TEST(FolderReports, AreGivenUpWhenTheDiskDoesNotAnswer) {
  const Pipe silent;
  FolderLook look;
  take_reports(silent.reader(), without_patience(), look);
  EXPECT_FALSE(look.answered);
}

TEST(FolderReports, DoNotComeFromAProcessThatHasEnded) {
  Pipe ended;
  ended.end();
  FolderLook look;
  take_reports(ended.reader(), FolderTest(), look);
  EXPECT_FALSE(look.answered);
}

TEST_F(FolderLooks, TellOfADiskThatTakesNothingAnyMore) {
  const Pipe whole;
  const std::vector<char> bytes(1 << 20);
  const FolderTest none = without_patience();
  ASSERT_TRUE(report_on_folder({folder.c_str(), "", bytes, none, false, whole.writer()}));
  const Pipe cut;
  std::vector<char> first(4096);
  const ssize_t size = read(whole.reader(), first.data(), first.size());
  ASSERT_GT(size, 0);
  ASSERT_EQ(write(cut.writer(), first.data(), static_cast<std::size_t>(size)), size);
  FolderLook look;
  take_reports(cut.reader(), none, look);
  EXPECT_TRUE(look.answered);
  EXPECT_GT(look.free_bytes, 0U);
  EXPECT_TRUE(look.stuck);
  EXPECT_FALSE(look.tested);
}

TEST(FolderSpace, IsCountedInFragments) {
  struct statfs status {};
  status.f_bavail = 10;
  status.f_bsize = 131072;
  status.f_frsize = 4096;
  EXPECT_EQ(free_bytes_in(status), 40960U);
  status.f_frsize = 0;
  EXPECT_EQ(free_bytes_in(status), 1310720U);
}

TEST_F(FolderLooks, EndWithTheirReader) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(pipe(ends), 0);
  const std::string name = folder + "/named";
  const std::vector<char> bytes(1 << 20);
  const FolderTest test;
  EXPECT_TRUE(report_on_folder({folder.c_str(), name.c_str(), bytes, test, false, ends[1]}));
  std::vector<char> reports(4096);
  EXPECT_GT(read(ends[0], reports.data(), reports.size()), 0);
  EXPECT_FALSE(report_on_folder({folder.c_str(), name.c_str(), bytes, test, false, -1}));
  EXPECT_TRUE(std::filesystem::is_empty(folder));
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
