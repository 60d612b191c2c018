#include "tools/ReservedFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <utility>

#include "unit/cue/directory.h"
#include "unit/cue/errors.h"

using kadrel_cue::ReservedFile;

namespace {

TEST(ReservedFile, TakesANameThatIsFree) {
  const unit::Directory directory;
  const ReservedFile file(directory / "show.cue");
  EXPECT_EQ(file.path(), directory / "show.cue");
  EXPECT_TRUE(file.is_in_place());
  EXPECT_TRUE(file.is_unused());
  EXPECT_FALSE(file.was_emptied());
}

TEST(ReservedFile, RefusesANameThatIsTaken) {
  const unit::Directory directory;
  const std::string taken = directory.write("show.cue", "mine");
  EXPECT_EQ(unit::error_of([&] { const ReservedFile file(taken); }),
            taken + ": exists; a recording never replaces a file");
  std::filesystem::create_symlink("nowhere", directory / "link");
  EXPECT_EQ(unit::error_of([&] { const ReservedFile file(directory / "link"); }),
            directory / "link" + ": exists; a recording never replaces a file");
  EXPECT_EQ(directory.content("show.cue"), "mine");
}

TEST(ReservedFile, SaysWhyThereCanBeNone) {
  const unit::Directory directory;
  EXPECT_EQ(unit::error_of([&] { const ReservedFile file(directory / "no/show.cue"); }),
            directory / "no/show.cue: No such file or directory");
  EXPECT_EQ(unit::error_of([&] { ReservedFile::in_folder(directory / "no", "show.cue"); }),
            directory / "no/show.cue: No such file or directory");
}

TEST(ReservedFile, TakesTheNextNumberInAFolder) {
  const unit::Directory directory;
  std::vector<ReservedFile> files;
  for (int count = 0; count < 3; ++count)
    files.push_back(ReservedFile::in_folder(directory.path(), "show.cue"));
  EXPECT_EQ(ReservedFile::in_folder(directory.path() + "/", "other").path(), directory / "other");
  EXPECT_EQ(directory.names(), (std::vector<std::string>{"other", "show-2.cue", "show-3.cue", "show.cue"}));
}

TEST(ReservedFile, GivesUpWhenThousandNamesAreTaken) {
  const unit::Directory directory;
  for (int count = 0; count < 999; ++count) ReservedFile::in_folder(directory.path(), "show.cue");
  EXPECT_EQ(unit::error_of([&] { ReservedFile::in_folder(directory.path(), "show.cue"); }),
            directory / "show-999.cue: File exists");
}

TEST(ReservedFile, KnowsThatItWasEmptied) {
  const unit::Directory directory;
  const ReservedFile file(directory / "show.cue");
  directory.write("show.cue", "");
  EXPECT_TRUE(file.was_emptied());
  EXPECT_TRUE(file.is_unused());
  directory.write("show.cue", "recorded");
  EXPECT_TRUE(file.was_emptied());
  EXPECT_FALSE(file.is_unused());
}

TEST(ReservedFile, TakesAwayOnlyItself) {
  const unit::Directory directory;
  const ReservedFile file(directory / "show.cue");
  const ReservedFile moved(directory / "moved.cue");
  std::filesystem::rename(directory / "moved.cue", directory / "elsewhere.cue");
  directory.write("moved.cue", "theirs");
  EXPECT_FALSE(moved.is_in_place());
  moved.remove();
  file.remove();
  file.remove();
  EXPECT_FALSE(file.is_in_place());
  EXPECT_EQ(directory.names(), (std::vector<std::string>{"elsewhere.cue", "moved.cue"}));
}

}  // namespace
