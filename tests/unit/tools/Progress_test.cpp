#include "tools/Progress.h"

#include <gtest/gtest.h>

#include <sstream>

using kadrel_cue::reading_text;

namespace {

std::string text(const std::string& name, std::uint64_t position, std::optional<std::uint64_t> size,
                 std::size_t columns = 80) {
  return reading_text({name, position, size}, columns);
}

TEST(Progress, ShowsThePartOfAFile) {
  EXPECT_EQ(text("show.cue", 450, 1000), "show.cue  45 %");
  EXPECT_EQ(text("dir/show.cue", 0, 1000), "show.cue  0 %");
  EXPECT_EQ(text("grows.cue", 2000, 1000), "grows.cue  100 %");
}

TEST(Progress, ShowsBytesWhereNoSizeIsKnown) {
  EXPECT_EQ(text("standard input", 12'345'678, std::nullopt), "standard input  12.3 MB");
  EXPECT_EQ(text("/proc/x", 1'000'000, 0), "x  1.0 MB");
}

TEST(Progress, FitsTheTerminalInWholeLetters) {
  EXPECT_EQ(text("show.cue", 1, 1, 12), "show  100 %");
  EXPECT_EQ(text("\u00e9\u00e9\u00e9.cue", 1, 1, 12), "\u00e9\u00e9  100 %");
  EXPECT_EQ(text("\u00e9\u00e9\u00e9.cue", 1, 1, 11), "\u00e9  100 %");
  EXPECT_EQ(text("show.cue", 1, 1, 3), "  100 %");
}

TEST(Progress, ShowsNoLetterThatMovesTheCursor) {
  EXPECT_EQ(text("a\n\033[2Jb\x7F", 1, 1), "a??[2Jb?  100 %");
}

}  // namespace
