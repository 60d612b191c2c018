#include "tools/TopView.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tools/TopTable.h"

using kadrel_cue::TopFigures;
using kadrel_cue::TopLine;
using kadrel_cue::TopSize;
using kadrel_cue::TopStyle;
using kadrel_cue::TopView;
namespace top_key = kadrel_cue::top_key;

namespace {

constexpr std::int64_t kMs = 1'000'000;
constexpr std::uint32_t kDesk = 0x0A4D0002;    // 10.77.0.2
constexpr std::uint32_t kBackup = 0x0A4D0003;  // 10.77.0.3

using Lines = std::vector<std::string>;

cue::StreamFigures stream(std::uint16_t universe, std::uint32_t sender = kDesk) {
  cue::StreamFigures made;
  made.universe = universe;
  made.sender = sender;
  made.datagrams = 1320;
  made.rate = 44.01;
  made.jitter = 0.26;
  made.counts = true;
  made.slots = 512;
  made.highest = 255;
  made.age = 12 * kMs;
  return made;
}

/// A desk on universes 1 to 3 with a backup on the second, and E1.31 on universe 5.
TopFigures usual() {
  TopFigures figures;
  figures.source = "eth0";
  figures.traffic.art_dmx = {5280, 176};
  figures.traffic.art_sync = {1320, 44.01};
  figures.traffic.art_poll = {11, 0.4};
  figures.traffic.sacn_data = {123456, 44};
  auto& streams = figures.traffic.streams;
  for (const std::uint16_t universe : std::vector<std::uint16_t>{0, 1, 1, 2, 4})
    streams.push_back(stream(universe));
  for (auto& one : streams) one.name = "Desk left";
  streams[1].contested = true;
  streams[2].contested = true;
  streams[2].sender = kBackup;
  streams[2].name.clear();
  streams[2].unicast = true;
  streams[2].rate = 22.4;
  streams[2].age = 40 * kMs;
  streams[3].missing = 12;
  streams[3].slots = 24;
  streams[3].highest = 7;
  streams[3].age = 7100 * kMs;
  streams[4].protocol = cue::Protocol::Sacn;
  streams[4].priority = 120;
  streams[4].counts = false;
  return figures;
}

Lines text_of(const std::vector<TopLine>& screen) {
  Lines text;
  for (const TopLine& line : screen) {
    text.push_back(line.text);
    text.back().erase(text.back().find_last_not_of(' ') + 1);
  }
  return text;
}

Lines screen_of(TopView& view, TopSize size = {80, 16}) {
  return text_of(view.lines(size));
}

/// The lines of streams alone, by the column of their universe.
Lines universes_of(TopView& view) {
  Lines found;
  for (const std::string& line : screen_of(view, {80, 40}))
    if (line.size() > 10 && line.find(':') != std::string::npos && line[5] >= '0' && line[5] <= '9')
      found.push_back(line.substr(0, 8) + line.substr(18, 7));
  return found;
}

TopView view_of(TopFigures figures) {
  TopView view;
  view.show(std::move(figures));
  return view;
}

void type(TopView& view, const std::string& text) {
  for (const char letter : text) EXPECT_TRUE(view.press(letter));
}

TEST(TopOverview, ShowsEveryStream) {
  TopView view = view_of(usual());
  EXPECT_EQ(
      screen_of(view),
      (Lines{" eth0   4 universes   5 streams   264 datagrams/s",
             " Art-Net  DMX 5280 (176/s)  Sync 1320 (44/s)  Poll 11 (0.4/s)", " E1.31    data 123k (44/s)",
             "  Univ  Net:Sub:U Way     Sender                     Hz  Jit  Lost Slot Max  Age",
             ">    1  0:0:0     Art bc  10.77.0.2 Desk left      44.0  0.3     0  512 255  0.0",
             "     2! 0:0:1     Art bc  10.77.0.2 Desk left      44.0  0.3     0  512 255  0.0",
             "     2! 0:0:1     Art uc  10.77.0.3                22.4  0.3     0  512 255  0.0",
             "     3- 0:0:2     Art bc  10.77.0.2 Desk left      44.0  0.3    12   24   7  7.1",
             "     5  0:0:4     sACN mc 10.77.0.2 Desk left      44.0  0.3     -  512 255  0.0", "", "", "",
             "", " ! several senders on universe 2", " - silent for more than 5 s: universe 3",
             " q end  ? help  enter levels  p pause  / filter  s sort: universe"}));
}

TEST(TopOverview, SaysNothingByStyleAlone) {
  TopView view = view_of(usual());
  const auto screen = view.lines({80, 16});
  EXPECT_EQ(screen[0].style, TopStyle::Title);
  EXPECT_EQ(screen[3].style, TopStyle::Heading);
  EXPECT_EQ(screen[4].style, TopStyle::Chosen);
  EXPECT_EQ(screen[4].text.size(), 80U);
  EXPECT_EQ(screen[5].style, TopStyle::Warning);
  EXPECT_EQ(screen[7].style, TopStyle::Plain);
  EXPECT_EQ(screen[13].style, TopStyle::Warning);
}

TEST(TopOverview, HasMoreColumnsOnAWideTerminal) {
  TopView view = view_of(usual());
  const Lines screen = screen_of(view, {120, 16});
  EXPECT_EQ(
      screen[3],
      "  Univ  Net:Sub:U Way     Sender                                         Prio    Hz  Jit  Lost Disor "
      "Slot Max  Age Total");
  EXPECT_EQ(
      screen[8],
      "     5  0:0:4     sACN mc 10.77.0.2       Desk left                       120  44.0  0.3     -     -  "
      "512 255  0.0  1320");
}

TEST(TopOverview, LeavesOutWhatMattersLeastOnANarrowTerminal) {
  TopView view = view_of(usual());
  EXPECT_EQ(screen_of(view, {50, 10}),
            (Lines{" eth0   4 universes   5 streams   264 datagrams/s",
                   " Art-Net  DMX 5280 (176/s)  Sync 1320 (44/s)  Poll", " E1.31    data 123k (44/s)",
                   "  Univ  Sender                        Hz  Lost Max",
                   ">    1  10.77.0.2 Desk left         44.0     0 255",
                   "     2! 10.77.0.2 Desk left         44.0     0 255",
                   "     2! 10.77.0.3                   22.4     0 255", " ! several senders on universe 2",
                   " - silent for more than 5 s: universe 3",
                   " q end  ? help  enter levels  p pause  / 1-3 of 5"}));
}

TEST(TopOverview, SaysWhatWasNotSeenFirst) {
  TopFigures figures;
  figures.source = "eth0";
  figures.lost = 12;
  figures.notes = {"f\x1b[2J\xC3\xBC: No space left on device"};
  figures.traffic.streams_not_shown = 3;
  figures.traffic.sacn_discovery = {2, 0};
  figures.traffic.broken = {1, 0};
  TopView view = view_of(figures);
  EXPECT_EQ(screen_of(view),
            (Lines{" eth0   0 universes   0 streams   0.0 datagrams/s", " Art-Net",
                   " E1.31    discovery 2  neither of the two 1",
                   "  Univ  Net:Sub:U Way     Sender                     Hz  Jit  Lost Slot Max  Age",
                   " Nothing heard yet.", "", "", "", "", "", "", "",
                   " 12 datagrams not seen: this computer was too slow", " f[2J?: No space left on device",
                   " more senders and universes than can be followed: one made room 3 times",
                   " q end  ? help  enter levels  p pause  / filter  s sort: universe"}));
  EXPECT_EQ(screen_of(view, {80, 5})[3], " 12 datagrams not seen: this computer was too slow");
}

TEST(TopOverview, ScrollsWithTheChosenLine) {
  TopFigures figures;
  for (std::uint16_t universe = 0; universe < 100; ++universe)
    figures.traffic.streams.push_back(stream(universe));
  TopView view = view_of(figures);
  const auto shown = [&] {
    const Lines screen = screen_of(view, {120, 10});
    std::string chosen = "none";
    for (const std::string& line : screen)
      if (line.front() == '>') chosen = line.substr(1, 5);
    return screen[4].substr(1, 5) + chosen + screen[9].substr(screen[9].rfind("  ") + 1);
  };
  const std::vector<std::pair<int, std::string>> steps{
      {0, "    1    1 1-5 of 100"},
      {top_key::kUp, "    1    1 1-5 of 100"},
      {top_key::kDown, "    1    2 1-5 of 100"},
      {top_key::kPageDown, "    3    7 3-7 of 100"},
      {top_key::kTab, "    4    8 4-8 of 100"},
      {top_key::kEnd, "   96  100 96-100 of 100"},
      {top_key::kBackTab, "   96   99 96-100 of 100"},
      {top_key::kPageUp, "   94   94 94-98 of 100"},
      {top_key::kHome, "    1    1 1-5 of 100"},
  };
  for (const auto& [key, expected] : steps) {
    view.press(key);
    EXPECT_EQ(shown(), expected) << key;
  }
}

TEST(TopOverview, KeepsTheChosenStream) {
  TopView view = view_of(usual());
  view.press(top_key::kEnd);
  TopFigures more = usual();
  more.traffic.streams.insert(more.traffic.streams.begin(), stream(0, kBackup));
  view.show(more);
  EXPECT_EQ(universes_of(view).back(), ">    5  sACN mc");
  more.traffic.streams.pop_back();
  view.show(more);
  EXPECT_EQ(universes_of(view).back(), ">    3- Art bc ");
  view.show({});
  EXPECT_EQ(universes_of(view), Lines{});
  EXPECT_TRUE(view.press(top_key::kEnter));
  EXPECT_TRUE(view.press(top_key::kEnd));
}

TEST(TopOverview, SortsByEveryColumnAndTurnsRound) {
  TopFigures figures;
  for (const std::uint16_t universe : std::vector<std::uint16_t>{0, 1, 2})
    figures.traffic.streams.push_back(stream(universe));
  auto& streams = figures.traffic.streams;
  streams[0].sender = kBackup;
  streams[1].rate = 50;
  streams[2].jitter = 3;
  streams[1].missing = 4;
  streams[2].highest = 1;
  streams[1].age = 100 * kMs;
  TopView view = view_of(figures);
  const auto order = [&] {
    std::string numbers;
    for (const std::string& line : universes_of(view)) numbers += line[5];
    return numbers;
  };
  const auto foot = [&] { return screen_of(view).back(); };
  for (const auto& [name, expected] :
       std::vector<std::pair<std::string, std::string>>{{"universe", "123"},
                                                        {"sender", "231"},
                                                        {"rate", "213"},
                                                        {"jitter", "312"},
                                                        {"lost", "213"},
                                                        {"highest level", "123"},
                                                        {"age", "213"},
                                                        {"universe", "123"}}) {
    EXPECT_EQ(order(), expected) << name;
    EXPECT_EQ(foot(), " q end  ? help  enter levels  p pause  / filter  s sort: " + name);
    view.press('s');
  }
  view.press('S');
  view.press('r');
  EXPECT_EQ(order(), "321");
  EXPECT_EQ(foot(), " q end  ? help  enter levels  p pause  / filter  s sort: universe (r)");
}

TEST(TopFilter, TakesUniversesAndPartsOfWhatIsKnown) {
  const std::vector<std::pair<std::string, std::size_t>> filters{
      {"2", 2},    {"1,3-5", 3}, {"!", 2},      {"sacn", 1}, {"ART", 4}, {"uc", 1},
      {"desk", 4}, {".0.3", 1},  {"nobody", 0}, {"", 5},     {"2,x", 0}};
  for (const auto& [filter, count] : filters) {
    TopView view = view_of(usual());
    view.press('/');
    type(view, filter);
    EXPECT_EQ(universes_of(view).size(), count) << filter;
    EXPECT_EQ(screen_of(view).back(), " Filter: " + filter + "_   enter keeps it, escape ends it");
    view.press(top_key::kEnter);
    EXPECT_EQ(universes_of(view).size(), count) << filter;
  }
}

TEST(TopFilter, IsTypedCorrectedKeptAndEnded) {
  TopView view = view_of(usual());
  view.press('/');
  type(view, "qq 3");
  for (int i = 0; i < 6; ++i) view.press(top_key::kErase);
  type(view, "5");
  view.press(top_key::kUp);
  view.press(top_key::kEnter);
  EXPECT_EQ(screen_of(view).back(), " q end  ? help  enter levels  p pause  / filter: 5  s sort: universe");
  EXPECT_EQ(universes_of(view), Lines{">    5  sACN mc"});
  view.press('/');
  EXPECT_EQ(universes_of(view).size(), 5U);
  type(view, "nothing like this");
  EXPECT_EQ(screen_of(view)[4], " No universe fits the filter.");
  view.press(top_key::kEscape);
  EXPECT_EQ(universes_of(view).size(), 5U);
  view.press('/');
  type(view, std::string(1000, '1'));
  EXPECT_LT(screen_of(view, {200, 10}).back().size(), 120U);
  view.press(top_key::kEnter);
  view.press(top_key::kEscape);
  EXPECT_EQ(universes_of(view).size(), 5U);
}

TEST(TopPause, LetsTheScreenStandStill) {
  for (const char key : {'p', ' '}) {
    TopView view = view_of(usual());
    view.press(key);
    EXPECT_TRUE(view.is_paused());
    TopFigures later = usual();
    later.traffic.art_dmx.packets = 6000;
    view.show(later);
    Lines screen = screen_of(view);
    EXPECT_EQ(screen[0], " eth0   4 universes   5 streams   264 datagrams/s                        PAUSED");
    EXPECT_EQ(screen[1], " Art-Net  DMX 5280 (176/s)  Sync 1320 (44/s)  Poll 11 (0.4/s)");
    view.press(top_key::kEnter);
    EXPECT_EQ(screen_of(view)[0].substr(73), "PAUSED");
    view.press(top_key::kEscape);
    view.press(key);
    view.show(later);
    screen = screen_of(view);
    EXPECT_EQ(screen[0], " eth0   4 universes   5 streams   264 datagrams/s");
    EXPECT_EQ(screen[1], " Art-Net  DMX 6000 (176/s)  Sync 1320 (44/s)  Poll 11 (0.4/s)");
  }
}

TEST(TopPause, IsSeenWhereTheTitleIsTooLong) {
  TopFigures figures = usual();
  figures.source = std::string(100, 'x');
  TopView view = view_of(figures);
  view.press('p');
  EXPECT_EQ(screen_of(view, {30, 5})[0], ' ' + std::string(21, 'x') + " PAUSED");
  EXPECT_EQ(screen_of(view, {5, 5})[0], " xxxx");
}

/// Levels 0, 1, ... in the first slots of 30.
TopFigures ramp() {
  TopFigures figures;
  figures.traffic.streams.push_back(stream(299));
  auto& one = figures.traffic.streams.front();
  one.name = "Desk";
  one.slots = 30;
  for (std::uint8_t slot = 0; slot < 27; ++slot) one.levels[slot] = slot;
  one.levels[27] = 128;
  one.levels[28] = 254;
  one.levels[29] = 255;
  return figures;
}

TEST(TopLevels, ShowsASlotInTwoCharacters) {
  TopView view = view_of(ramp());
  view.press(top_key::kEnter);
  Lines screen = screen_of(view, {80, 24});
  EXPECT_EQ(Lines(screen.begin(), screen.begin() + 5),
            (Lines{" Universe 300 (1:2:11)  Art bc  10.77.0.2 Desk  44.0 Hz  30 slots",
                   "      1  2  3  4  5  6  7  8  9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25",
                   "   0> .  1  1  1  2  2  2  3  3  4  4  4  5  5  5  6  6  7  7  7  8  8  9  9  9",
                   "  25 10 10 50 99 FL", "  50"}));
  EXPECT_EQ(screen[22], " 500");
  EXPECT_EQ(screen[23], " Slot 1: 0 of 255, 0.0 %, hex 00            tab next  x hex  enter back  ? help");
  view.press('x');
  screen = screen_of(view, {80, 24});
  EXPECT_EQ(screen[2], "   0> . 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 16 17 18");
  EXPECT_EQ(screen[3], "  25 19 1A 80 FE FF");
  view.press('x');
  EXPECT_EQ(screen_of(view, {80, 24})[3], "  25 10 10 50 99 FL");
}

TEST(TopLevels, MovesToASlot) {
  TopView view = view_of(ramp());
  view.press(top_key::kEnter);
  const auto foot = [&] {
    const std::string line = screen_of(view, {80, 24}).back();
    return line.substr(0, line.find("  "));
  };
  EXPECT_EQ(foot(), " Slot 1: 0 of 255, 0.0 %, hex 00");
  const std::vector<std::pair<int, std::string>> steps{
      {top_key::kLeft, " Slot 1: 0 of 255, 0.0 %, hex 00"},
      {top_key::kRight, " Slot 2: 1 of 255, 0.4 %, hex 01"},
      {top_key::kDown, " Slot 27: 26 of 255, 10.2 %, hex 1A"},
      {top_key::kRight, " Slot 28: 128 of 255, 50.2 %, hex 80"},
      {top_key::kUp, " Slot 3: 2 of 255, 0.8 %, hex 02"},
      {top_key::kPageDown, " Slot 512 is not sent"},
      {top_key::kPageUp, " Slot 1: 0 of 255, 0.0 %, hex 00"},
      {top_key::kEnd, " Slot 512 is not sent"},
      {top_key::kHome, " Slot 1: 0 of 255, 0.0 %, hex 00"},
      {'!', " Slot 1: 0 of 255, 0.0 %, hex 00"},
  };
  for (const auto& [key, expected] : steps) {
    view.press(key);
    EXPECT_EQ(foot(), expected) << key;
  }
  for (int i = 0; i < 29; ++i) view.press(top_key::kRight);
  EXPECT_EQ(foot(), " Slot 30: 255 of 255, 100.0 %, hex FF");
  const TopLine line = view.lines({80, 24})[3];
  EXPECT_EQ(line.text.substr(line.mark_begin, line.mark_size), ">FL");
}

TEST(TopLevels, ScrollsWithTheSlot) {
  TopView view = view_of(ramp());
  view.press(top_key::kEnter);
  Lines screen = screen_of(view, {40, 6});
  EXPECT_EQ(screen, (Lines{" Universe 300 (1:2:11)  Art bc  10.77.0", "      1  2  3  4  5  6  7  8  9 10",
                           "   0> .  1  1  1  2  2  2  3  3  4", "  10  4  4  5  5  5  6  6  7  7  7",
                           "  20  8  8  9  9  9 10 10 50 99 FL", " Slot 1: 0 of 255, 0.0 %, hex 00"}));
  view.press(top_key::kPageDown);
  screen = screen_of(view, {40, 6});
  EXPECT_EQ(screen[2], "  10  4  4  5  5  5  6  6  7  7  7");
  EXPECT_EQ(screen[4], "  30>");
  view.press(top_key::kEnd);
  EXPECT_EQ(screen_of(view, {40, 6})[4], " 510   >");
}

TEST(TopLevels, FollowTheUniversesOfTheTable) {
  TopView view = view_of(usual());
  view.press(top_key::kEnter);
  const auto title = [&] { return screen_of(view, {80, 24})[0]; };
  EXPECT_EQ(title(), " Universe 1 (0:0:0)  Art bc  10.77.0.2 Desk left  44.0 Hz  512 slots");
  view.press(top_key::kTab);
  EXPECT_EQ(title(), " Universe 2 (0:0:1) !  Art bc  10.77.0.2 Desk left  44.0 Hz  512 slots");
  view.press(top_key::kTab);
  EXPECT_EQ(title(), " Universe 2 (0:0:1) !  Art uc  10.77.0.3   22.4 Hz  512 slots");
  view.press(top_key::kTab);
  EXPECT_EQ(title(), " Universe 3 (0:0:2) -  Art bc  10.77.0.2 Desk left  44.0 Hz  24 slots");
  view.press(top_key::kBackTab);
  EXPECT_EQ(title(), " Universe 2 (0:0:1) !  Art uc  10.77.0.3   22.4 Hz  512 slots");
  view.press(top_key::kEscape);
  EXPECT_EQ(universes_of(view)[2], ">    2! Art uc ");
}

TEST(TopLevels, SayWhenTheSenderIsForgotten) {
  TopView view = view_of(usual());
  view.press(top_key::kEnd);
  view.press(top_key::kEnter);
  view.show({});
  EXPECT_EQ(screen_of(view, {80, 4}),
            (Lines{" Universe 5 (0:0:4)", " Its sender has been silent for a minute.", "",
                   "                                            tab next  x hex  enter back  ? help"}));
  for (const int key : {top_key::kTab, top_key::kBackTab, top_key::kRight, static_cast<int>('x')})
    view.press(key);
  EXPECT_EQ(screen_of(view, {80, 4})[0], " Universe 5 (0:0:4)");
  view.press('?');
  view.show({});
  view.press('?');
  EXPECT_EQ(screen_of(view, {80, 4})[0], " Universe 5 (0:0:4)");
  view.show(usual());
  EXPECT_EQ(screen_of(view, {80, 4})[0].substr(0, 30), " Universe 5 (0:0:4)  sACN mc  ");
  view.show({});
  view.press(top_key::kEnter);
  EXPECT_EQ(screen_of(view, {80, 24})[4], " Nothing heard yet.");
}

TEST(TopHelp, FitsOnAnUsualTerminal) {
  for (const char key : {'?', 'h'}) {
    TopView view = view_of(usual());
    view.press(key);
    const Lines help = screen_of(view, {1000, 1000});
    EXPECT_LE(help.size(), 24U);
    std::size_t longest = 0;
    for (auto line = help.begin() + 1; line != help.end(); ++line) longest = std::max(longest, line->size());
    EXPECT_LE(longest, 80U);
    EXPECT_EQ(help[10], " q                        end");
    view.press(key);
    EXPECT_EQ(screen_of(view)[0], " eth0   4 universes   5 streams   264 datagrams/s");
  }
}

TEST(TopHelp, ScrollsOnASmallOne) {
  TopView view = view_of(usual());
  view.press('?');
  Lines help = screen_of(view, {80, 3});
  EXPECT_EQ(help[1], " arrows, page, home, end  choose a line, or a slot");
  view.press(top_key::kDown);
  EXPECT_EQ(screen_of(view, {80, 3})[1], " enter                    levels of the chosen universe, and back");
  for (int i = 0; i < 100; ++i) view.press(top_key::kDown);
  help = screen_of(view, {80, 3});
  EXPECT_EQ(help[2], " Levels     the number of a slot is that at the left plus that above it");
  view.press(top_key::kUp);
  EXPECT_NE(screen_of(view, {80, 3}), help);
}

TEST(TopKeys, EndTheProgram) {
  for (const char key : {'q', 'Q'}) {
    TopView view = view_of(usual());
    EXPECT_FALSE(view.press(key));
    view.press(top_key::kEnter);
    EXPECT_FALSE(view.press(key));
    view.press('?');
    EXPECT_FALSE(view.press(key));
  }
}

TEST(TopView, FitsIntoEveryTerminal) {
  TopFigures figures = usual();
  figures.lost = 1;
  TopView view = view_of(figures);
  for (const int page : {0, top_key::kEnter, static_cast<int>('?')}) {
    view.press(page);
    for (std::size_t columns = 0; columns < 140; ++columns)
      for (std::size_t rows = 0; rows < 30; ++rows) {
        const auto screen = view.lines({columns, rows});
        ASSERT_LE(screen.size(), rows);
        for (const TopLine& line : screen) {
          ASSERT_LE(line.text.size(), columns);
          ASSERT_LE(line.mark_begin + line.mark_size, std::max(line.text.size(), line.mark_begin));
        }
      }
  }
}

TEST(TopView, ShowsNoControlCharacters) {
  TopFigures figures = usual();
  figures.source =
      "\x1b]0;x\x07"
      "a\nb";
  figures.notes = {"\x1b[31m\r\n"};
  for (auto& one : figures.traffic.streams)
    one.name =
        "\x1b[2J\n\x9b"
        "1m\xE2"
        "\x80\xAE";
  TopView view = view_of(figures);
  for (const int page : {0, top_key::kEnter, static_cast<int>('?')}) {
    view.press(page);
    for (const TopLine& line : view.lines({200, 30}))
      for (const char letter : line.text) ASSERT_TRUE(letter >= ' ' && letter < 0x7F) << line.text;
  }
}

TEST(TopText, IsTheTableWithoutAScreen) {
  TopView view = view_of(usual());
  EXPECT_EQ(view.text(80),
            "eth0   4 universes   5 streams   264 datagrams/s\n"
            "Art-Net  DMX 5280 (176/s)  Sync 1320 (44/s)  Poll 11 (0.4/s)\n"
            "E1.31    data 123k (44/s)\n"
            " Univ  Net:Sub:U Way     Sender                     Hz  Jit  Lost Slot Max  Age\n"
            "    1  0:0:0     Art bc  10.77.0.2 Desk left      44.0  0.3     0  512 255  0.0\n"
            "    2! 0:0:1     Art bc  10.77.0.2 Desk left      44.0  0.3     0  512 255  0.0\n"
            "    2! 0:0:1     Art uc  10.77.0.3                22.4  0.3     0  512 255  0.0\n"
            "    3- 0:0:2     Art bc  10.77.0.2 Desk left      44.0  0.3    12   24   7  7.1\n"
            "    5  0:0:4     sACN mc 10.77.0.2 Desk left      44.0  0.3     -  512 255  0.0\n"
            "! several senders on universe 2\n"
            "- silent for more than 5 s: universe 3\n");
  TopView empty;
  EXPECT_EQ(empty.text(80), "   0 universes   0 streams   0.0 datagrams/s\nArt-Net\nE1.31\nNothing heard.\n");
}

TEST(TopTable, NamesTheWayOfAStream) {
  cue::StreamFigures one = stream(63998);
  one.protocol = cue::Protocol::Sacn;
  EXPECT_EQ(kadrel_cue::way_text(one), "sACN mc");
  EXPECT_EQ(kadrel_cue::address_text(one.universe), "-");
  EXPECT_EQ(kadrel_cue::address_text(32767), "127:15:15");
  one.unicast = true;
  EXPECT_EQ(kadrel_cue::way_text(one), "sACN uc");
  one.ended = true;
  one.age = 9000 * kMs;
  EXPECT_EQ(kadrel_cue::sign_text(one), "x");
  one.sender = 0;
  EXPECT_EQ(kadrel_cue::way_text(one), "sACN");
  EXPECT_EQ(kadrel_cue::sender_text(one.sender), "-");
}

TEST(TopTable, ShortensNumbers) {
  using kadrel_cue::short_count;
  using kadrel_cue::short_number;
  const std::vector<std::pair<std::uint64_t, std::string>> counts{
      {0, "0"},          {99999, "99999"},          {100'000, "100k"},
      {999'499, "999k"}, {999'500, "1.0M"},         {12'345'678, "12.3M"},
      {~0ULL, ">999P"},  {18'400'000'000, "18.4G"}, {2'000'000'000'000'000, "2.0P"}};
  for (const auto& [count, expected] : counts) EXPECT_EQ(short_count(count), expected) << count;
  EXPECT_EQ(short_number(44.04, 5), "44.0");
  EXPECT_EQ(short_number(1234.5, 5), "1234");
  EXPECT_EQ(short_number(1e300, 5), "99999");
}

TEST(TopTable, ListsUniverses) {
  EXPECT_EQ(kadrel_cue::universes_text({}), "");
  EXPECT_EQ(kadrel_cue::universes_text({0, 2, 4, 5, 6, 65535}), "1, 3, 5-7, 65536");
}

}  // namespace
