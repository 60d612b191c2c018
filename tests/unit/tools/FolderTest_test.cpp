#include "tools/FolderTest.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using kadrel_cue::FolderLook;
using kadrel_cue::FolderTest;
using kadrel_cue::look_at_folder;
using kadrel_cue::report_on_folder;

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
}

TEST_F(FolderLooks, GiveUpADiskThatDoesNotAnswer) {
  FolderTest test;
  test.patience = std::chrono::milliseconds(-1);
  EXPECT_FALSE(look_at_folder(folder, false, test).answered);
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
