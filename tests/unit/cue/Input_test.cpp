#include "cue/Input.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "cue/CueError.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"

using cue::Input;
using unit::error_of;

namespace {

std::string content_of(const Input& input) {
  const cue::ByteSource source = input.open();
  std::string content;
  std::array<std::uint8_t, 7> bytes{};
  while (const std::size_t count = source(bytes.data(), bytes.size()))
    content.append(bytes.begin(), bytes.begin() + count);
  return content;
}

/// Puts @p fd in the place of the standard input for its life, and closes it.
class StandardInput {
public:
  explicit StandardInput(int fd) : before(dup(STDIN_FILENO)) {
    dup2(fd, STDIN_FILENO);
    close(fd);
  }
  ~StandardInput() {
    dup2(before, STDIN_FILENO);
    close(before);
  }
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;
  StandardInput(StandardInput&&) = delete;
  StandardInput& operator=(StandardInput&&) = delete;

private:
  int before;
};

/// The reading end of a pipe that holds @p bytes and has come to its end.
int pipe_with(const std::string& bytes) {
  int ends[2] = {};
  EXPECT_EQ(pipe(ends), 0);
  EXPECT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  close(ends[1]);
  return ends[0];
}

class InputTest : public testing::Test {
protected:
  const unit::Directory directory;
  const std::string text = "a text of several portions";
  const std::string file = directory.write("file", text);
};

TEST_F(InputTest, ReadsAFileAsOftenAsWanted) {
  Input input(file);
  EXPECT_EQ(input.name(), file);
  EXPECT_EQ(content_of(input), text);
  input.keep();
  EXPECT_EQ(content_of(input), text);
}

TEST_F(InputTest, KeepsAFileWhosePathIsTakenAway) {
  Input input(file);
  input.keep();
  ASSERT_EQ(unlink(file.c_str()), 0);
  EXPECT_EQ(content_of(input), text);
  directory.write("file", "another one");
  EXPECT_EQ(content_of(input), text);
}

TEST_F(InputTest, ReadsTheStandardInput) {
  const StandardInput pipe(pipe_with(text));
  EXPECT_EQ(Input("-").name(), "standard input");
  EXPECT_EQ(content_of("-"), text);
}

TEST_F(InputTest, ReadsAFileAtTheStandardInputAsOftenAsWanted) {
  const StandardInput redirected(open(file.c_str(), O_RDONLY));
  Input input("-");
  input.keep();
  EXPECT_EQ(content_of(input), text);
  EXPECT_EQ(content_of(input), text);
}

TEST_F(InputTest, ReadsAFileThatSomebodyElseHasOpened) {
  const StandardInput opened(open(file.c_str(), O_RDONLY));
  ASSERT_EQ(chmod(file.c_str(), 0), 0);
  // As root with the rights of somebody else; they are those of this thread alone.
  std::thread([&] {
    setfsuid(65534);
    EXPECT_EQ(content_of("-"), text);
    Input twice("-");
    twice.keep();
    EXPECT_EQ(content_of(twice), text);
    EXPECT_EQ(content_of(twice), text);
  }).join();
}

TEST_F(InputTest, KeepsWhatCanBeReadOnce) {
  const StandardInput pipe(pipe_with(text));
  Input input("-");
  input.keep();
  input.keep();
  EXPECT_EQ(content_of(input), text);
  const Input copy = input;
  EXPECT_EQ(content_of(copy), text);
}

TEST_F(InputTest, ReadsANamedPipe) {
  const std::string pipe = directory / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::thread writer([&] {
    const int fd = open(pipe.c_str(), O_WRONLY);
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
  });
  Input input(pipe);
  input.keep();
  writer.join();
  EXPECT_EQ(content_of(input), text);
  EXPECT_EQ(content_of(input), text);
}

TEST_F(InputTest, TellsHowFarItIs) {
  std::vector<std::uint64_t> positions;
  std::vector<std::optional<std::uint64_t>> sizes;
  const auto note = [&](const cue::Reading& reading) {
    positions.push_back(reading.position);
    sizes.push_back(reading.size);
  };
  Input input(file);
  input.watch([&](const cue::Reading& reading) {
    EXPECT_EQ(reading.name, file);
    note(reading);
  });
  content_of(input);
  EXPECT_EQ(positions, (std::vector<std::uint64_t>{7, 14, 21, 26, 26}));
  EXPECT_EQ(sizes.back(), text.size());

  const StandardInput pipe(pipe_with("1234"));
  Input unknown("-");
  unknown.watch(note);
  content_of(unknown);
  EXPECT_EQ(positions.back(), 4U);
  EXPECT_EQ(sizes.back(), std::nullopt);
}

TEST_F(InputTest, KnowsItsFile) {
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_TRUE(Input(file).is(status));
  EXPECT_FALSE(Input(directory.path()).is(status));
  EXPECT_FALSE(Input(directory / "missing").is(status));
}

TEST_F(InputTest, NamesWhatCannotBeRead) {
  const std::string missing = directory / "missing";
  EXPECT_EQ(error_of([&] { Input(missing).open(); }), missing + ": No such file or directory");
  EXPECT_EQ(error_of([&] { Input(missing).keep(); }), missing + ": No such file or directory");
  EXPECT_EQ(error_of([&] { content_of(directory.path()); }), directory.path() + ": Is a directory");
}

TEST_F(InputTest, NamesTheDirectoryForTheCopy) {
  const StandardInput pipe(pipe_with(text));
  // NOLINTBEGIN(concurrency-mt-unsafe): one thread
  const char* const before = getenv("TMPDIR");
  const std::string restored = before == nullptr ? "" : before;
  setenv("TMPDIR", "/nowhere", 1);
  EXPECT_NE(error_of([] { Input("-").keep(); }).find("/nowhere/kadrel-cue."), std::string::npos);
  if (before == nullptr)
    unsetenv("TMPDIR");
  else
    setenv("TMPDIR", restored.c_str(), 1);
  // NOLINTEND(concurrency-mt-unsafe)
}

TEST_F(InputTest, TakesOtherBytesForItsContent) {
  Input input = directory.write("show", "packed");
  input.keep([left = std::string("unpacked")](std::uint8_t* bytes, std::size_t size) mutable {
    const std::size_t count = left.copy(reinterpret_cast<char*>(bytes), size);
    left.erase(0, count);
    return count;
  });
  EXPECT_EQ(content_of(input), "unpacked");
  EXPECT_EQ(content_of(input), "unpacked");
  EXPECT_EQ(input.name(), directory / "show");
}

}  // namespace
