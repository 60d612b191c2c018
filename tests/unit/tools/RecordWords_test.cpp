#include "tools/RecordWords.h"

#include <gtest/gtest.h>

#include <utility>

#include "cue/Time.h"

using kadrel_cue::line_text;
using kadrel_cue::name_by_time;
using kadrel_cue::RecordLine;

namespace {

constexpr std::size_t kWide = 200;

/// The 2nd of March 2026, 20:05:09.
std::tm evening() {
  std::tm time{};
  time.tm_year = 126;
  time.tm_mon = 2;
  time.tm_mday = 2;
  time.tm_hour = 20;
  time.tm_min = 5;
  time.tm_sec = 9;
  return time;
}

TEST(RecordWords, NamesAreMadeOfDateAndTime) {
  EXPECT_EQ(name_by_time(kadrel_cue::kDefaultName, evening()), "2026-03-02_20-05-09.cue");
  EXPECT_EQ(name_by_time("show.cue", evening()), "show.cue");
  EXPECT_EQ(name_by_time("%H.%M", evening()), "20.05");
  EXPECT_EQ(name_by_time(std::string(255, 'x'), evening()), std::string(255, 'x'));
}

TEST(RecordWords, WhatIsNoNameInAFolderIsRefused) {
  for (const std::string& pattern :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"), std::string("%D"),
        std::string("a%n"), std::string("%tb"), std::string("\x7F"), std::string("\xC2\x9B"),
        std::string(256, 'x'), std::string("\0x", 2)})
    EXPECT_FALSE(name_by_time(pattern, evening())) << pattern;
}

TEST(RecordWords, TheFileOfTheWaitingHasANameOfUtf8) {
  EXPECT_EQ(kadrel_cue::waiting_name("show.cue"), ".show.cue.waiting");
  EXPECT_EQ(kadrel_cue::waiting_name(std::string(200, 'x')), "." + std::string(200, 'x') + ".waiting");
  EXPECT_EQ(kadrel_cue::waiting_name(std::string(255, 'x')), "." + std::string(200, 'x') + ".waiting");
  const std::string front(198, 'x');
  // 2, 3 and 4 bytes, over the 200th.
  EXPECT_EQ(kadrel_cue::waiting_name(front + "x\xC3\xBCx"), "." + front + "x.waiting");
  EXPECT_EQ(kadrel_cue::waiting_name(front + "\xC3\xBCx"), "." + front + "\xC3\xBC.waiting");
  EXPECT_EQ(kadrel_cue::waiting_name(front + "\xE2\x82\xAC"), "." + front + ".waiting");
  EXPECT_EQ(kadrel_cue::waiting_name(front + "\xF0\x9F\x8E\xAD"), "." + front + ".waiting");
}

TEST(RecordWords, WhatATerminalTakesAsACommandIsKnown) {
  for (const char* text : {"\x1B[2J", "a\nb", "\x7F", "\xC2\x80", "\xC2\x9B", "\xC2\x9F", "\t"})
    EXPECT_TRUE(kadrel_cue::has_control_characters(text)) << text;
  for (const char* text : {"", "a b", "~", "\xC2\xA0", "\xC3\x80", "\xE2\x82\x9B", "\xF0\x9F\x8E\xAD"})
    EXPECT_FALSE(kadrel_cue::has_control_characters(text)) << text;
}

TEST(RecordWords, ANumberStandsBeforeTheExtension) {
  EXPECT_EQ(kadrel_cue::numbered_name("show.cue", 1), "show.cue");
  EXPECT_EQ(kadrel_cue::numbered_name("show.cue", 2), "show-2.cue");
  EXPECT_EQ(kadrel_cue::numbered_name("act.2.cue", 13), "act.2-13.cue");
  EXPECT_EQ(kadrel_cue::numbered_name("show", 2), "show-2");
  EXPECT_EQ(kadrel_cue::numbered_name(".cue", 2), ".cue-2");
}

TEST(RecordWords, Utf8IsKnown) {
  for (const char* text : {"", "plain", "B\xC3\xBChne", "\xE2\x82\xAC", "\xF0\x9F\x8E\xAD", "\xED\x9F\xBF",
                           "\xF4\x8F\xBF\xBF", "\xE0\xA0\x80", "\xF0\x90\x80\x80"})
    EXPECT_TRUE(kadrel_cue::is_utf8(text)) << text;
  for (const char* text :
       {"\xFF", "\xC3", "\xC3x", "\x80", "\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF0\x80\x80\x80",
        "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xE2\x82", "\xE2\x82x"})
    EXPECT_FALSE(kadrel_cue::is_utf8(text)) << text;
}

TEST(RecordWords, SizesHaveUnits) {
  const std::pair<std::uint64_t, const char*> sizes[] = {{0, "0 B"},
                                                         {999, "999 B"},
                                                         {1000, "1.0 kB"},
                                                         {999'949, "999.9 kB"},
                                                         {999'950, "1.0 MB"},
                                                         {125'300'000, "125.3 MB"},
                                                         {3'450'000'000, "3.45 GB"},
                                                         {5'000'000'000'000, "5000.00 GB"}};
  for (const auto& [bytes, text] : sizes) EXPECT_EQ(kadrel_cue::size_text(bytes), text);
}

TEST(RecordWords, UniversesThatDoNotComeAreFound) {
  cue::UniverseSet wanted;
  cue::UniverseSet present;
  for (const unsigned number : {0U, 1U, 7U, 65535U}) wanted.insert(static_cast<std::uint16_t>(number));
  for (const unsigned number : {1U, 2U}) present.insert(static_cast<std::uint16_t>(number));
  EXPECT_EQ(kadrel_cue::missing_universes(wanted, present), (std::vector<int>{1, 8, 65536}));
  EXPECT_TRUE(kadrel_cue::missing_universes(present, present).empty());
}

TEST(RecordLine, TellsWhatIsWaitedFor) {
  RecordLine line;
  line.time = 12 * cue::kSecond;
  EXPECT_EQ(line_text(line, kWide), "waiting for the first datagram, or the record channel  0:12");
  line.phase = RecordLine::Phase::Waiting;
  line.universes = 1;
  line.rate = 44;
  line.bytes = 48'200;
  line.length = line.silence = line.unchanged = cue::kSecond;
  EXPECT_EQ(line_text(line, kWide), "waiting for a change 0:12  1 universe  44/s  48.2 kB");
}

TEST(RecordLine, TellsHowTheRecordingGoes) {
  RecordLine line;
  line.phase = RecordLine::Phase::Recording;
  line.time = 3723 * cue::kSecond;
  line.universes = 512;
  line.rate = 22'528;
  line.bytes = 125'300'000;
  EXPECT_EQ(line_text(line, kWide), "recording 1:02:03  512 universes  22528/s  125.3 MB  lost 0");
  line.lost = 7;
  line.dropped = 3;
  line.length = 7200 * cue::kSecond;
  line.unchanged = 12 * cue::kSecond;
  EXPECT_EQ(line_text(line, kWide),
            "recording 1:02:03 of 2:00:00  512 universes  22528/s  125.3 MB  lost 7  dropped 3");
  line.silence = 30 * cue::kSecond;
  EXPECT_EQ(line_text(line, kWide),
            "recording 1:02:03 of 2:00:00  512 universes  22528/s  125.3 MB  lost 7  dropped 3  still 0:12 "
            "of 0:30");
  EXPECT_EQ(line_text(line, 9), "recording");
  EXPECT_EQ(line_text(line, 0), "");
}

}  // namespace
