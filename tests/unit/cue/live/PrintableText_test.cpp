#include "cue/live/PrintableText.h"

#include <gtest/gtest.h>

using cue::ascii_text;
using cue::printable_text;

namespace {

TEST(PrintableText, LeavesWhatCanBeRead) {
  EXPECT_EQ(printable_text(std::string()), "");
  EXPECT_EQ(printable_text("Dimmer 4 ~!"), "Dimmer 4 ~!");
  EXPECT_EQ(printable_text("B\u00FChne \u0416 \u20AC \U0001F4A1"), "B\u00FChne \u0416 \u20AC \U0001F4A1");
  EXPECT_EQ(printable_text("\U0010FFFD\uFFFD\uD7FF\uE000"), "\U0010FFFD\uFFFD\uD7FF\uE000");
}

TEST(PrintableText, EndsAtTheFirstZero) {
  EXPECT_EQ(printable_text(std::string("desk\0\xFF\n", 7)), "desk");
  EXPECT_EQ(printable_text(std::string("\0desk", 5)), "");
  EXPECT_EQ(printable_text(nullptr, 0), "");
}

TEST(PrintableText, TakesOtherBytesAsLatin1) {
  EXPECT_EQ(printable_text("Dimmer \xE4"), "Dimmer \u00E4");
  EXPECT_EQ(printable_text("\xC2"), "\u00C2");
  EXPECT_EQ(printable_text("\xE2\x82"), "\u00E2");                  // cut: 82 is a control character
  EXPECT_EQ(printable_text("\xC0\xAF"), "\u00C0\u00AF");            // not the shortest form of a slash
  EXPECT_EQ(printable_text("\xE0\x9F\xBF"), "\u00E0\u00BF");        // nor this one
  EXPECT_EQ(printable_text("\xED\xA0\xA1"), "\u00ED\u00A0\u00A1");  // a surrogate
  EXPECT_EQ(printable_text("\xF4\x90\x80\xBF"), "\u00F4\u00BF");    // above U+10FFFF
  EXPECT_EQ(printable_text("\xF8"), "\u00F8");
  EXPECT_EQ(printable_text("\xC3g"), "\u00C3g");
}

TEST(PrintableText, HidesNothingAndMovesNothing) {
  EXPECT_EQ(printable_text("a\x1B[2Jb\r\n\t\x7F"), "a[2Jb");
  EXPECT_EQ(printable_text("a\u009B2Jb"), "a2Jb");
  EXPECT_EQ(printable_text("a\x9B\xFF"), "a\u00FF");
  EXPECT_EQ(printable_text("\u202Ecba\u200B\u2066\uFEFF\u00AD"), "cba");
  EXPECT_EQ(printable_text("a\u2028b\U000E0041"), "ab");
}

TEST(PrintableText, HasNoBlanksAtItsEnds) {
  EXPECT_EQ(printable_text("  two words \x1B "), "two words");
  EXPECT_EQ(printable_text("   "), "");
}

TEST(AsciiText, HasAQuestionMarkForEachOtherCharacter) {
  EXPECT_EQ(ascii_text("B\u00FChne \U0001F4A1!"), "B?hne ?!");
  EXPECT_EQ(ascii_text("\xE4\x1B[2J"), "?[2J");
}

}  // namespace
