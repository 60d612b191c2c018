#include "src/CueCopy.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ossp/uuid++.hh>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "src/ThreadSignals.h"
#include "unit/support/lease_holder.h"

namespace {

using unit::LeaseHolder;

std::vector<std::string> asked;  // paths whose existence was asked for
int taken = 0;                   // how many of the next ones exist
int uuid_failures = 0;           // how many of the next identifiers cannot be made

// Operations that the file system cannot do: their errno; 0: it can.
struct Lacks {
  int unnamed = 0;
  int rename = 0;
  int link = 0;
  int sync = 0;
} lacks;

void (*before_sync)() = nullptr;

int fails(int error) {
  if (error != 0) errno = error;
  return error != 0 ? -1 : 0;
}

}  // namespace

// The library warns of its object interface from 1.6.4 (Debian 13) on.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

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

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, mode_t mode);
int __wrap_open64(const char* path, int flags, mode_t mode);
int __real_renameat2(int from_folder, const char* from, int to_folder, const char* to, unsigned int flags);
int __wrap_renameat2(int from_folder, const char* from, int to_folder, const char* to, unsigned int flags);
int __real_link(const char* from, const char* to);
int __wrap_link(const char* from, const char* to);
int __real_fsync(int fd);
int __wrap_fsync(int fd);

int __wrap_open(const char* path, int flags, mode_t mode) {
  if ((flags & O_TMPFILE) == O_TMPFILE && fails(lacks.unnamed) != 0) return -1;
  return __real_open(path, flags, mode);
}

// Where offsets have 64 bits by option, open() is open64().
int __wrap_open64(const char* path, int flags, mode_t mode) {
  return __wrap_open(path, flags | O_LARGEFILE, mode);
}

int __wrap_renameat2(int from_folder, const char* from, int to_folder, const char* to, unsigned int flags) {
  return fails(lacks.rename) != 0 ? -1 : __real_renameat2(from_folder, from, to_folder, to, flags);
}

int __wrap_link(const char* from, const char* to) {
  return fails(lacks.link) != 0 ? -1 : __real_link(from, to);
}

int __wrap_fsync(int fd) {
  if (before_sync != nullptr) before_sync();
  return fails(lacks.sync) != 0 ? -1 : __real_fsync(fd);
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

/// A folder of its own, with a cue in it.
class CopyCue : public testing::Test {
public:
  CopyCue() {
    lacks = Lacks();
    before_sync = nullptr;
    if (mkdtemp(folder.data()) == nullptr) abort();
    cue = folder + "/cue";
    target = folder + "/copy";
    bytes.resize((1 << 20) * 2 + 7);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
    std::ofstream(cue, std::ios::binary) << bytes;
  }
  ~CopyCue() override { std::filesystem::remove_all(folder); }

  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
      found.insert(entry.path().filename());
    return found;
  }

  bool copy() const { return copy_cue(text(cue), text(target)); }

  std::string folder = "/tmp/kadrel_unit_XXXXXX";
  std::string cue;
  std::string target;
  std::string bytes;
};

/// A kind of file system, and whether a copy can be made on it.
struct Kind {
  const char* what;
  Lacks lacking;
  bool copied;
};

const std::vector<Kind> kKinds = {
    {"ext4", {}, true},
    {"with names only", {EOPNOTSUPP, 0, 0, 0}, true},
    {"an old kernel", {EISDIR, 0, 0, 0}, true},
    {"FAT", {EOPNOTSUPP, 0, EPERM, 0}, true},
    {"NFS", {EOPNOTSUPP, EINVAL, 0, 0}, true},
    {"neither renames nor links", {EOPNOTSUPP, EINVAL, EPERM, 0}, false},
    {"a disk that fails", {0, 0, 0, EIO}, false},
    {"a disk with names only that fails", {EOPNOTSUPP, 0, 0, EIO}, false},
};

TEST_F(CopyCue, HasContentAndPermissionsOnEveryFileSystem) {
  ASSERT_EQ(chmod(cue.c_str(), 0640), 0);
  for (const Kind& kind : kKinds) {
    SCOPED_TRACE(kind.what);
    lacks = kind.lacking;
    EXPECT_EQ(copy(), kind.copied);
    if (!kind.copied) {
      EXPECT_EQ(names(), (std::set<std::string>{"cue"}));
      continue;
    }
    EXPECT_EQ(names(), (std::set<std::string>{"copy", "cue"}));
    EXPECT_TRUE(content_of(target) == bytes);
    struct stat status {};
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    unlink(target.c_str());
  }
}

TEST_F(CopyCue, AppearsOnlyOnceTheDiskHasAllOfIt) {
  static const CopyCue* self = nullptr;
  static std::set<std::string> seen;
  self = this;
  before_sync = [] { seen = self->names(); };
  EXPECT_TRUE(copy());
  EXPECT_EQ(seen, (std::set<std::string>{"cue"}));
  unlink(target.c_str());
  lacks.unnamed = EOPNOTSUPP;
  EXPECT_TRUE(copy());
  EXPECT_EQ(seen, (std::set<std::string>{".copy.kadrel-copy", "cue"}));
}

TEST_F(CopyCue, NeverReplacesAFile) {
  std::ofstream(target) << "precious";
  for (const Kind& kind : kKinds) {
    SCOPED_TRACE(kind.what);
    lacks = kind.lacking;
    EXPECT_FALSE(copy());
    EXPECT_EQ(content_of(target), "precious");
    EXPECT_EQ(names(), (std::set<std::string>{"copy", "cue"}));
  }
}

TEST_F(CopyCue, CopiesOrdinaryFilesOnly) {
  const std::string pipe = folder + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& other :
       {pipe, std::string("/dev/zero"), std::string("/tmp"), std::string("/does/not/exist")}) {
    EXPECT_FALSE(copy_cue(text(other), text(target))) << other;
    EXPECT_EQ(names(), (std::set<std::string>{"cue", "pipe"})) << other;
  }
}

TEST_F(CopyCue, WaitsForALeaseThatIsGivenUp) {
  const LeaseHolder holder(cue, LeaseHolder::GivesItUp);
  ASSERT_TRUE(holder.holds);
  EXPECT_TRUE(copy());
  EXPECT_TRUE(content_of(target) == bytes);
}

TEST_F(CopyCue, GivesUpAFileWhoseLeaseIsKept) {
  const LeaseHolder holder(cue, LeaseHolder::KeepsIt);
  ASSERT_TRUE(holder.holds);
  EXPECT_FALSE(copy());
  EXPECT_EQ(names(), (std::set<std::string>{"cue"}));
}

TEST_F(CopyCue, NeedsAFolder) {
  EXPECT_FALSE(copy_cue(text(cue), text(folder + "/missing/copy")));
  EXPECT_EQ(names(), (std::set<std::string>{"cue"}));
}

TEST_F(CopyCue, GoesIntoTheRootAndTheWorkingDirectoryToo) {
  ASSERT_EQ(chdir(folder.c_str()), 0);
  EXPECT_TRUE(copy_cue(text(cue), QStringLiteral("copy")));
  EXPECT_EQ(names(), (std::set<std::string>{"copy", "cue"}));
  const std::string in_root = "/kadrel_unit_copy_" + std::to_string(getpid());
  EXPECT_EQ(copy_cue(text(cue), text(in_root)), access("/", W_OK) == 0);
  unlink(in_root.c_str());
}

TEST_F(CopyCue, GivesUpAndLeavesNothingWhenTheServiceIsToEnd) {
  for (const int error : {0, EOPNOTSUPP}) {
    EXPECT_EXIT(
        {
          lacks.unnamed = error;
          request_end();
          _exit(!copy() && names() == std::set<std::string>{"cue"} ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
  }
}

}  // namespace
