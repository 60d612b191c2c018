#include "tools/Keyboard.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <vector>

#include "cue/CueError.h"
#include "cue/Time.h"

using kadrel_cue::Key;
using Kind = cue::PlayCommand::Kind;

namespace {

std::vector<Key> keys_in(const std::string& bytes) {
  kadrel_cue::KeyParser parser;
  std::vector<Key> keys;
  for (const char byte : bytes)
    if (const auto key = parser.take(byte)) keys.push_back(*key);
  return keys;
}

using Keys = std::vector<Key>;

TEST(KeyParser, FindsTheKeysOfSeveralTerminals) {
  EXPECT_EQ(keys_in(" qQ\r\n"), (Keys{Key::Space, Key::Quit, Key::Quit, Key::Enter, Key::Enter}));
  EXPECT_EQ(keys_in("\x1B[A\x1B[B\x1B[C\x1B[D"), (Keys{Key::Up, Key::Down, Key::Right, Key::Left}));
  EXPECT_EQ(keys_in("\x1BOA\x1BOB\x1BOC\x1BOD"), (Keys{Key::Up, Key::Down, Key::Right, Key::Left}));
  EXPECT_EQ(keys_in("\x1B[H\x1BOH\x1B[1~\x1B[7~"), (Keys{Key::Home, Key::Home, Key::Home, Key::Home}));
  EXPECT_EQ(keys_in("\x1B[1;5C"), Keys{Key::Right});
}

TEST(KeyParser, PassesOverOtherKeys) {
  EXPECT_EQ(keys_in("axz\t\x7F\xC3\xBC"), Keys{});
  EXPECT_EQ(keys_in("\x1B[2~\x1B[15~\x1B[F\x1BOP\x1B[200~"), Keys{});
}

TEST(KeyParser, IsNotHeldUpByAnUnfinishedSequence) {
  EXPECT_EQ(keys_in("\x1Bq"), Keys{Key::Quit});
  EXPECT_EQ(keys_in("\x1B\x1B[A"), Keys{Key::Up});
  EXPECT_EQ(keys_in("\x1B[1\x1B[A"), Keys{Key::Up});
  EXPECT_EQ(keys_in("\x1B[" + std::string(1000, ';') + "q "), (Keys{Key::Quit, Key::Space}));
}

TEST(Keys, MoveThroughARecording) {
  const std::vector<std::pair<Key, cue::PlayCommand>> expected{{Key::Space, {Kind::Pause, 0}},
                                                               {Key::Left, {Kind::Seek, -5 * cue::kSecond}},
                                                               {Key::Right, {Kind::Seek, 5 * cue::kSecond}},
                                                               {Key::Down, {Kind::Seek, -30 * cue::kSecond}},
                                                               {Key::Up, {Kind::Seek, 30 * cue::kSecond}},
                                                               {Key::Home, {Kind::Home, 0}},
                                                               {Key::Quit, {Kind::Quit, 0}}};
  for (const auto& [key, command] : expected) {
    const auto found = kadrel_cue::command_of(key);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->kind, command.kind);
    EXPECT_EQ(found->by, command.by);
  }
  EXPECT_FALSE(kadrel_cue::command_of(Key::Enter));
}

TEST(Keyboard, TakesNoKeysOfATerminalThatBelongsToOthers) {
  int controller = -1;
  int terminal = -1;
  ASSERT_EQ(openpty(&controller, &terminal, nullptr, nullptr, nullptr), 0);
  termios before{};
  tcgetattr(terminal, &before);
  {
    kadrel_cue::Keyboard keyboard(dup(terminal));
    ASSERT_EQ(write(controller, " \n", 2), 2);
    EXPECT_FALSE(keyboard.next_command());
    termios now{};
    tcgetattr(terminal, &now);
    EXPECT_EQ(now.c_lflag, before.c_lflag);
  }
  close(terminal);
  close(controller);
}

/// The standard input is something else for a while.
class OtherInput {
public:
  explicit OtherInput(int fd) : kept(dup(STDIN_FILENO)) { dup2(fd, STDIN_FILENO); }
  ~OtherInput() {
    dup2(kept, STDIN_FILENO);
    close(kept);
  }
  OtherInput(const OtherInput&) = delete;
  OtherInput& operator=(const OtherInput&) = delete;
  OtherInput(OtherInput&&) = delete;
  OtherInput& operator=(OtherInput&&) = delete;

private:
  int kept;
};

TEST(Enter, IsALineWhereThereIsNoTerminal) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const OtherInput input(ends[0]);
  EXPECT_EQ(kadrel_cue::terminal_of_keys(false), -1);
  ASSERT_EQ(write(ends[1], "go\n", 3), 3);
  const std::atomic<bool> stop = false;
  EXPECT_TRUE(kadrel_cue::wait_for_enter(nullptr, stop));
  close(ends[1]);
  EXPECT_THROW(kadrel_cue::wait_for_enter(nullptr, stop), cue::CueError);
  close(ends[0]);
}

TEST(Enter, CannotComeFromWhatCannotBeRead) {
  const int root = open("/", O_RDONLY | O_CLOEXEC);
  const OtherInput input(root);
  const std::atomic<bool> stop = false;
  EXPECT_THROW(kadrel_cue::wait_for_enter(nullptr, stop), cue::CueError);
  close(root);
}

TEST(Enter, IsNotAwaitedAfterAStop) {
  const std::atomic<bool> stop = true;
  EXPECT_FALSE(kadrel_cue::wait_for_enter(nullptr, stop));
}

}  // namespace
