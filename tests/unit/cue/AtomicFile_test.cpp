#include "cue/AtomicFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "cue/CueError.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/refused_call.h"
#include "unit/support/emulator.h"

using cue::AtomicFile;
using cue::Output;
using unit::error_of;

namespace {

// A file system without files that have no name, and one that cannot rename without replacing either.
const unit::RefusedCall kNoUnnamedFiles{SYS_openat, EOPNOTSUPP, 2, O_TMPFILE & ~O_DIRECTORY};
const unit::RefusedCall kNoCarefulRename{SYS_renameat2, EINVAL};

Output replacing(const std::string& path) {
  Output output(path);
  output.replace = true;
  return output;
}

struct stat status_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0);
  return status;
}

/// Lets a descriptor lead elsewhere for its life.
class Redirected {
public:
  Redirected(int number, int to) : fd(number), before(dup(number)) { dup2(to, fd); }
  ~Redirected() {
    dup2(before, fd);
    close(before);
  }
  Redirected(const Redirected&) = delete;
  Redirected& operator=(const Redirected&) = delete;
  Redirected(Redirected&&) = delete;
  Redirected& operator=(Redirected&&) = delete;

private:
  int fd;
  int before;
};

class AtomicFileTest : public testing::Test {
protected:
  static void write(const Output& output, const std::string& bytes,
                    const std::vector<cue::Input>& inputs = {}) {
    AtomicFile file(output, inputs);
    file.write(bytes);
    file.commit();
  }

  const unit::Directory directory;
  const std::string out = directory / "out";
};

TEST_F(AtomicFileTest, AppearsWhenItIsComplete) {
  AtomicFile file(out, {});
  file.write("whole");
  EXPECT_EQ(directory.names(), std::vector<std::string>{});
  file.commit();
  EXPECT_EQ(directory.content("out"), "whole");
  EXPECT_EQ(directory.names(), std::vector<std::string>{"out"});
}

TEST_F(AtomicFileTest, TellsTheRoomOfADiskAndNoneOfAStream) {
  EXPECT_GT(AtomicFile(out, {}).room().value_or(0), 0U);
  EXPECT_EQ(AtomicFile("/dev/null", {}).room(), std::nullopt);
}

TEST_F(AtomicFileTest, LeavesAnExistingFileAlone) {
  directory.write("out", "earlier");
  EXPECT_EQ(error_of([&] { AtomicFile(out, {}); }), out + ": exists; --force replaces it");
  EXPECT_EQ(error_of([&] { cue::check_output(out, {}); }), out + ": exists; --force replaces it");
  EXPECT_EQ(directory.content("out"), "earlier");
}

TEST_F(AtomicFileTest, LeavesAFileAloneThatAppearsMeanwhile) {
  EXPECT_EQ(error_of([&] {
              AtomicFile file(out, {});
              file.write("late");
              directory.write("out", "earlier");
              file.commit();
            }),
            out + ": exists; --force replaces it");
  EXPECT_EQ(directory.content("out"), "earlier");
  EXPECT_EQ(directory.names(), std::vector<std::string>{"out"});
}

TEST_F(AtomicFileTest, ReplacesOnDemandOnlyWithTheWholeFile) {
  directory.write("out", "earlier");
  {
    AtomicFile file(replacing(out), {});
    file.write(std::string(1000000, 'x'));
  }
  EXPECT_EQ(directory.content("out"), "earlier");
  write(replacing(out), "later");
  EXPECT_EQ(directory.content("out"), "later");
  write(replacing(directory / "new"), "new");
  EXPECT_EQ(directory.names(), (std::vector<std::string>{"new", "out"}));
}

TEST_F(AtomicFileTest, KeepsTheModeOfTheFileThatItReplaces) {
  directory.write("out", "earlier");
  ASSERT_EQ(chmod(out.c_str(), 0604), 0);
  write(replacing(out), "later");
  EXPECT_EQ(status_of(out).st_mode & 07777, 0604U);
}

TEST_F(AtomicFileTest, KeepsTheOwnerOfTheFileThatItReplaces) {
  NOT_UNDER_AN_EMULATOR("seccomp filters");
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  directory.write("out", "earlier");
  ASSERT_EQ(chown(out.c_str(), 1234, 5678), 0);
  ASSERT_EQ(chmod(out.c_str(), 0640), 0);
  write(replacing(out), "later");
  EXPECT_EQ(status_of(out).st_uid, 1234U);
  EXPECT_EQ(status_of(out).st_gid, 5678U);
  EXPECT_EQ(status_of(out).st_mode & 07777, 0640U);
  unit::with_refused({{SYS_fchown, EPERM}}, [&] {
    EXPECT_EQ(error_of([&] { AtomicFile(replacing(out), {}); }),
              out + ": the owner of the existing file cannot be kept");
  });
  EXPECT_EQ(directory.content("out"), "later");
}

TEST_F(AtomicFileTest, WritesWhatASymbolicLinkLeadsTo) {
  directory.write("real", "earlier");
  std::filesystem::create_directory(directory / "links");
  std::filesystem::create_symlink("../real", directory / "links/one");
  std::filesystem::create_symlink(directory / "links/one", directory / "two");
  EXPECT_EQ(error_of([&] { AtomicFile(directory / "two", {}); }),
            directory / "two" + ": exists; --force replaces it");
  write(replacing(directory / "two"), "later");
  EXPECT_EQ(directory.content("real"), "later");
  EXPECT_TRUE(S_ISLNK(status_of(directory / "two").st_mode));
  EXPECT_EQ(directory.names(), (std::vector<std::string>{"links", "real", "two"}));
}

TEST_F(AtomicFileTest, MakesTheFileThatADanglingLinkLeadsTo) {
  std::filesystem::create_symlink("real", directory / "link");
  write(directory / "link", "new");
  EXPECT_EQ(directory.content("real"), "new");
  EXPECT_TRUE(S_ISLNK(status_of(directory / "link").st_mode));
}

TEST_F(AtomicFileTest, NamesWhatCannotBeAFile) {
  const std::string here = directory.path();
  std::filesystem::create_symlink("loop", directory / "loop");
  directory.write("file", "");
  EXPECT_EQ(error_of([&] { AtomicFile(here, {}); }), here + ": Is a directory");
  EXPECT_EQ(error_of([&] { cue::check_output(here, {}); }), here + ": Is a directory");
  EXPECT_EQ(error_of([&] { AtomicFile(here + "/new/", {}); }), here + "/new/: Is a directory");
  EXPECT_EQ(error_of([&] { AtomicFile(here + "/file/new", {}); }), here + "/file/new: Not a directory");
  EXPECT_EQ(error_of([&] { AtomicFile(here + "/loop", {}); }),
            here + "/loop: Too many levels of symbolic links");
  EXPECT_EQ(error_of([] { AtomicFile("", {}); }), ": No such file or directory");
  EXPECT_EQ(error_of([] { AtomicFile("/nowhere/out", {}); }), "/nowhere/out: No such file or directory");
}

TEST_F(AtomicFileTest, TakesTheLongestNames) {
  NOT_UNDER_AN_EMULATOR("seccomp filters");
  const std::string longest(255, 'n');
  for (const bool unnamed : {true, false}) {
    const auto make = [&] { write(replacing(directory / longest), "all"); };
    unnamed ? make() : unit::with_refused({kNoUnnamedFiles}, make);
    EXPECT_EQ(directory.names(), std::vector<std::string>{longest});
  }
  const std::string longer = directory / (longest + "n");
  EXPECT_EQ(error_of([&] { AtomicFile(longer, {}); }), longer + ": File name too long");
}

TEST_F(AtomicFileTest, IsNeverAnInput) {
  directory.write("in", "input");
  std::filesystem::create_hard_link(directory / "in", directory / "same");
  const std::string same = directory / "same";
  EXPECT_EQ(error_of([&] {
              AtomicFile(replacing(same), {directory / "other", directory / "in"});
            }),
            same + ": the output would replace the input");

  const std::string pipe = directory / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(error_of([&] { AtomicFile(pipe, {pipe}); }), pipe + ": the output would replace the input");

  const int in = open(same.c_str(), O_RDWR);
  {
    const Redirected input(STDIN_FILENO, in);
    EXPECT_EQ(error_of([&] { AtomicFile(replacing(same), {"-"}); }),
              same + ": the output would replace the input");
    const Redirected output(STDOUT_FILENO, in);
    EXPECT_EQ(error_of([&] { AtomicFile("-", {"-"}); }),
              "standard output: the output would replace the input");
  }
  close(in);
  EXPECT_EQ(directory.content("in"), "input");
}

TEST_F(AtomicFileTest, WritesTheStandardOutputUnderAllItsNames) {
  for (const char* name : {"-", "/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"}) {
    const int file = open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    {
      const Redirected output(STDOUT_FILENO, file);
      cue::check_output(name, {});
      write(name, std::string("a\0b", 3));
    }
    close(file);
    EXPECT_EQ(directory.content("out"), std::string("a\0b", 3));
  }
}

TEST_F(AtomicFileTest, WritesPipesAndDevicesStraightAway) {
  const std::string pipe = directory / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  cue::check_output(pipe, {});
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
  write(pipe, "through");
  char bytes[8] = {};
  EXPECT_EQ(read(reader, bytes, sizeof bytes), 7);
  EXPECT_STREQ(bytes, "through");
  close(reader);
  write("/dev/null", "gone");
  EXPECT_EQ(error_of([&] { write("/dev/full", "too much"); }), "/dev/full: No space left on device");
  EXPECT_EQ(directory.names(), std::vector<std::string>{"pipe"});
}

TEST_F(AtomicFileTest, WritesOnlyTextToATerminal) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_EQ(grantpt(terminal), 0);
  ASSERT_EQ(unlockpt(terminal), 0);
  char slave[64] = {};
  ASSERT_EQ(ptsname_r(terminal, slave, sizeof slave), 0);
  const std::string name = slave;
  const int keeps_open = open(name.c_str(), O_RDWR | O_NOCTTY);
  write(name, "text");
  char bytes[8] = {};
  EXPECT_EQ(read(terminal, bytes, sizeof bytes), 4);
  EXPECT_STREQ(bytes, "text");
  EXPECT_EQ(error_of([&] { write(name, std::string("Art-Net\0", 8)); }),
            name + ": a terminal, which takes no bytes that are no text");
  close(keeps_open);
  close(terminal);
}

TEST_F(AtomicFileTest, LeavesNothingWhereTheDiskTakesNoMore) {
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const auto handler = signal(SIGXFSZ, SIG_IGN);
  const rlimit small{1000, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const std::string error = error_of([&] { write(out, std::string(1001, 'x')); });
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, handler);
  EXPECT_EQ(error, out + ": File too large");
  EXPECT_EQ(directory.names(), std::vector<std::string>{});
}

TEST_F(AtomicFileTest, HasAShortNameWhereEveryFileNeedsOne) {
  NOT_UNDER_AN_EMULATOR("seccomp filters");
  unit::with_refused({kNoUnnamedFiles}, [&] {
    {
      AtomicFile file(out, {});
      ASSERT_EQ(directory.names().size(), 1U);
      EXPECT_EQ(directory.names()[0].rfind(".kadrel-cue.", 0), 0U);
    }
    EXPECT_EQ(directory.names(), std::vector<std::string>{});
    write(out, "one");
    EXPECT_EQ(directory.content("out"), "one");
    write(replacing(out), "two");
    EXPECT_EQ(directory.content("out"), "two");
    EXPECT_EQ(directory.names(), std::vector<std::string>{"out"});
    EXPECT_EQ(error_of([&] {
                AtomicFile file(directory / "late", {});
                directory.write("late", "earlier");
                file.commit();
              }),
              directory / "late" + ": exists; --force replaces it");
    EXPECT_EQ(directory.names(), (std::vector<std::string>{"late", "out"}));
  });
}

TEST_F(AtomicFileTest, SparesOtherFilesWhereARenameCannot) {
  NOT_UNDER_AN_EMULATOR("seccomp filters");
  unit::with_refused({kNoUnnamedFiles, kNoCarefulRename}, [&] {
    write(out, "one");
    EXPECT_EQ(directory.content("out"), "one");
    EXPECT_EQ(error_of([&] {
                AtomicFile file(directory / "late", {});
                directory.write("late", "earlier");
                file.commit();
              }),
              directory / "late" + ": exists; --force replaces it");
    EXPECT_EQ(directory.names(), (std::vector<std::string>{"late", "out"}));
  });
  EXPECT_EQ(directory.content("late"), "earlier");
}

TEST_F(AtomicFileTest, IsRemovedByAHandlerOfASignal) {
  NOT_UNDER_AN_EMULATOR("seccomp filters");
  AtomicFile::remove_unfinished();
  unit::with_refused({kNoUnnamedFiles}, [&] {
    const AtomicFile file(out, {});
    EXPECT_EQ(directory.names().size(), 1U);
    AtomicFile::remove_unfinished();
    EXPECT_EQ(directory.names(), std::vector<std::string>{});
  });
}

TEST_F(AtomicFileTest, SaysWhatTheSystemRefuses) {
  NOT_UNDER_AN_EMULATOR("seccomp filters");
  unit::with_refused({{SYS_linkat, EPERM}}, [&] {
    EXPECT_EQ(error_of([&] { write(out, "all"); }), out + ": Operation not permitted");
    EXPECT_EQ(error_of([&] { write(replacing(out), "all"); }), out + ": Operation not permitted");
  });
  unit::with_refused({{SYS_fsync, EIO}},
                     [&] { EXPECT_EQ(error_of([&] { write(out, "all"); }), out + ": Input/output error"); });
  unit::with_refused({{SYS_openat, EACCES, 2, O_WRONLY}},
                     [&] { EXPECT_EQ(error_of([&] { AtomicFile(out, {}); }), out + ": Permission denied"); });
  EXPECT_EQ(directory.names(), std::vector<std::string>{});
}

}  // namespace
