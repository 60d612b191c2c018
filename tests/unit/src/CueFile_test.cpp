#include "src/CueFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QByteArray>
#include <QFile>
#include <fstream>
#include <iterator>
#include <ossp/uuid++.hh>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "src/ThreadSignals.h"
#include "unit/support/temporary_file.h"

namespace {

std::vector<std::string> asked;  // paths whose existence was asked for
int taken = 0;                   // how many of the next ones exist
int uuid_failures = 0;           // how many of the next identifiers cannot be made

}  // namespace

// The linker sends QFile::exists(const QString&) and uuid::make(unsigned, ...) here. The names are the
// linker's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
bool __wrap__ZN5QFile6existsERK7QString(const QString& path);
void __real__ZN4uuid4makeEjz(uuid* self, unsigned int mode, ...);
void __wrap__ZN4uuid4makeEjz(uuid* self, unsigned int mode, ...);

bool __wrap__ZN5QFile6existsERK7QString(const QString& path) {
  asked.push_back(path.toStdString());
  return taken-- > 0;
}

void __wrap__ZN4uuid4makeEjz(uuid* self, unsigned int mode, ...) {
  if (uuid_failures-- > 0) throw uuid_error_t(UUID_RC_SYS);
  __real__ZN4uuid4makeEjz(self, mode);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

class NewCuePath : public testing::Test {
protected:
  NewCuePath() {
    asked.clear();
    taken = 0;
    uuid_failures = 0;
  }
};

const char* const kTimeBasedUuid = "[0-9a-f]{8}-[0-9a-f]{4}-1[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";

bool is_new_path(const std::string& path, const std::string& directory) {
  return path.substr(0, directory.size() + 1) == directory + '/' &&
         std::regex_match(path.substr(directory.size() + 1), std::regex(kTimeBasedUuid));
}

std::string cue_path(const char* directory) {
  return new_cue_path(QString::fromUtf8(directory)).toStdString();
}

TEST_F(NewCuePath, IsATimeBasedUuidInTheDirectory) {
  const std::string path = cue_path("/cues");
  EXPECT_TRUE(is_new_path(path, "/cues")) << path;
  EXPECT_EQ(asked, std::vector<std::string>{path});
}

TEST_F(NewCuePath, IsAnotherOneEveryTime) {
  std::set<std::string> paths;
  for (int i = 0; i < 100; ++i) paths.insert(cue_path("/cues"));
  EXPECT_EQ(paths.size(), 100U);
}

TEST_F(NewCuePath, TakesTheDirectoryAsItIs) {
  for (const char* const directory : {"/cues/", "", "relative", "/a b/\"%1%2%n\"/Übung", "/does/not/exist"}) {
    const std::string path = cue_path(directory);
    EXPECT_TRUE(is_new_path(path, directory)) << path;
  }
}

TEST_F(NewCuePath, TriesAgainWhenANameIsTaken) {
  for (int names = 1; names <= 2; ++names) {
    asked.clear();
    taken = names;
    const std::string path = cue_path("/cues");
    EXPECT_TRUE(is_new_path(path, "/cues")) << path;
    EXPECT_EQ(asked.size(), static_cast<std::size_t>(names + 1));
    EXPECT_EQ(asked.back(), path);
    EXPECT_EQ(std::set<std::string>(asked.begin(), asked.end()).size(), asked.size());
  }
}

TEST_F(NewCuePath, GivesUpAfterThreeTakenNames) {
  taken = 3;
  EXPECT_EQ(cue_path("/cues"), "");
  EXPECT_EQ(asked.size(), 3U);
}

TEST_F(NewCuePath, CountsANameThatCannotBeMadeAsATry) {
  uuid_failures = 2;
  EXPECT_TRUE(is_new_path(cue_path("/cues"), "/cues"));
  EXPECT_EQ(asked.size(), 1U);
  uuid_failures = 3;
  EXPECT_EQ(cue_path("/cues"), "");
  EXPECT_EQ(asked.size(), 1U);
}

QString text(const std::string& path) {
  return QString::fromStdString(path);
}

std::string content_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(CopyCue, CopiesContentAndPermissions) {
  std::string bytes((1 << 20) * 2 + 7, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  const unit::TemporaryFile file(bytes);
  ASSERT_EQ(chmod(file.path().c_str(), 0640), 0);
  const std::string copy = file.path() + "_copy";
  ASSERT_TRUE(copy_cue(text(file.path()), text(copy)));
  EXPECT_EQ(content_of(copy), bytes);
  struct stat status {};
  ASSERT_EQ(stat(copy.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  unlink(copy.c_str());
}

TEST(CopyCue, NeverWritesOverAFile) {
  const unit::TemporaryFile file("source");
  const unit::TemporaryFile other("precious");
  EXPECT_FALSE(copy_cue(text(file.path()), text(other.path())));
  EXPECT_EQ(content_of(other.path()), "precious");
}

TEST(CopyCue, CopiesOrdinaryFilesOnly) {
  const unit::TemporaryFile file("");
  const std::string pipe = file.path() + "_pipe";
  const std::string copy = file.path() + "_copy";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& other :
       {pipe, std::string("/dev/zero"), std::string("/tmp"), std::string("/does/not/exist")}) {
    EXPECT_FALSE(copy_cue(text(other), text(copy))) << other;
    EXPECT_NE(access(copy.c_str(), F_OK), 0) << other;
  }
  unlink(pipe.c_str());
}

TEST(CopyCue, GivesUpAndLeavesNothingWhenTheServiceIsToEnd) {
  const unit::TemporaryFile file("source");
  const std::string copy = file.path() + "_copy";
  EXPECT_EXIT(
      {
        request_end();
        const bool copied = copy_cue(text(file.path()), text(copy));
        _exit(!copied && access(copy.c_str(), F_OK) != 0 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
