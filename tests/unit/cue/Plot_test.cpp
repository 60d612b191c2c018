#include "cue/Plot.h"

#include <gtest/gtest.h>

#include <limits>

#include "cue/Time.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"

using cue::kSecond;
using packets::dmx;
using recordings::file_of;
using unit::error_of;

namespace {

constexpr std::int64_t kMs = 1'000'000;

class Plot : public testing::Test {
protected:
  const unit::Directory directory;
  cue::PlotOptions options;
  std::int64_t shown = 0;

  void record(const std::vector<recordings::Datagram>& datagrams) {
    options.file = directory.write("a<b>&.cue", file_of(datagrams));
    options.output = directory / "out.svg";
    options.output.replace = true;
  }

  std::string plot() {
    shown = cue::plot(options);
    return directory.content("out.svg");
  }

  static std::string image_of(const std::string& svg) {
    const std::size_t begin = svg.find("base64,");
    return svg.substr(begin, svg.find('"', begin) - begin);
  }

  static int count(const std::string& svg, const std::string& what) {
    int found = 0;
    for (std::size_t at = svg.find(what); at != std::string::npos; at = svg.find(what, at + 1)) ++found;
    return found;
  }
};

TEST_F(Plot, DrawsABandForEachUniverse) {
  record({{dmx("ab", 0), 0}, {dmx("ab", 6), 0}, {dmx("ab", 0), 2 * kSecond}});
  const std::string svg = plot();
  EXPECT_EQ(count(svg, "<image "), 1);
  EXPECT_NE(svg.find(">a&lt;b&gt;&amp;.cue</text>"), std::string::npos);
  EXPECT_NE(svg.find(">2.000 s, 3 datagrams, 2 universes</text>"), std::string::npos);
  EXPECT_NE(svg.find(">7</text>"), std::string::npos);
  EXPECT_NE(svg.find(">0.5 Hz</text>"), std::string::npos);
  EXPECT_NE(svg.find(">1.2 s</text>"), std::string::npos);
  EXPECT_EQ(svg.rfind("</svg>\n"), svg.size() - 7);
}

TEST_F(Plot, DrawsTheSlotsOfOneUniverse) {
  record({{dmx("abcd", 0), 0}, {dmx("ab", 6), 0}, {dmx("abcd", 0), 2 * kSecond}});
  options.port_address = 0;
  const std::string svg = plot();
  EXPECT_EQ(count(svg, "<image "), 1);
  EXPECT_NE(svg.find(">universe 1</text>"), std::string::npos);
  EXPECT_NE(svg.find(">4</text>"), std::string::npos);
}

TEST_F(Plot, DrawsAPart) {
  record({{dmx("a", 0), 0}, {dmx("b", 1), kSecond}, {dmx("c", 0), 20 * kMs}, {dmx("d", 2), 3 * kSecond}});
  options.selection.start = kSecond;
  options.selection.stop = 2 * kSecond;
  options.selection.only = cue::UniverseSet();
  options.selection.only->insert(0);
  options.selection.only->insert(1);
  const std::string svg = plot();
  EXPECT_EQ(count(svg, "<image "), 1);
  EXPECT_EQ(shown, kSecond);
  EXPECT_NE(svg.find("; shown from 1.000 s to 2.000 s</text>"), std::string::npos);
}

TEST_F(Plot, DrawsManyUniversesAndRefusesTooMany) {
  std::vector<recordings::Datagram> datagrams;
  for (unsigned universe = 0; universe < 512; ++universe) datagrams.emplace_back(dmx("a", universe), kMs);
  record(datagrams);
  const std::string svg = plot();
  // Bands of 13 pixels, and their numbers.
  EXPECT_EQ(count(svg, "height=\"6656\" preserveAspectRatio"), 1);
  EXPECT_EQ(count(svg, ">512</text>"), 1);
  // So high a picture has its times at the top, too.
  EXPECT_EQ(count(svg, ">0.10 s</text>"), 2);
  datagrams.emplace_back(dmx("a", 512), kMs);
  record(datagrams);
  EXPECT_EQ(error_of([this] { plot(); }),
            options.file.path() + ": holds 513 universes; choose at most 512 with --only");
}

TEST_F(Plot, RefusesToDrawNothing) {
  record({});
  EXPECT_EQ(error_of([this] { plot(); }), options.file.path() + ": holds nothing to draw");
  options.port_address = 3;
  EXPECT_EQ(error_of([this] { plot(); }), options.file.path() + ": holds no universe 4");
}

TEST_F(Plot, NamesTheSlotsInUseAndLeavesTheOthersOut) {
  std::string levels(512, '\0');
  for (const std::size_t slot : {0U, 1U, 100U, 104U, 108U}) levels[slot] = 'x';
  record({{dmx(levels, 0), 0}, {dmx(levels, 0), kSecond}});
  std::string svg = plot();
  EXPECT_NE(svg.find(">5 of 512 slots</text>"), std::string::npos);
  options.port_address = 0;
  svg = plot();
  for (const char* words :
       {"1", "2", "101", "105", "109", "5 of 512 slots in use", "501 slots that stay", "at 0 are left out"})
    EXPECT_EQ(count(svg, ">" + std::string(words) + "</text>"), 1) << words;
  EXPECT_EQ(svg.find(">3</text>"), std::string::npos);

  levels = std::string(512, 'x');
  levels[511] = 0;
  record({{dmx(levels, 0), 0}});
  svg = plot();
  EXPECT_NE(svg.find(">1 slot that stays</text>"), std::string::npos);
  EXPECT_NE(svg.find(">20</text>"), std::string::npos);
  EXPECT_EQ(svg.find(">19</text>"), std::string::npos);
}

TEST_F(Plot, ShowsAPauseOfMoreThanTenSecondsAsAGapAtAnyRate) {
  const auto image_of_pause = [this](std::int64_t pause) {
    // The pauses of 9 s hold the rate below 1/3 Hz, whose gap would otherwise be longer.
    record({{dmx("a", 0), 0}, {dmx("a", 0), 9 * kSecond}, {dmx("a", 0), pause}, {dmx("a", 0), 9 * kSecond}});
    return image_of(plot());
  };
  EXPECT_EQ(image_of_pause(9 * kSecond), image_of_pause(10 * kSecond));
  EXPECT_NE(image_of_pause(9 * kSecond), image_of_pause(11 * kSecond));
}

TEST_F(Plot, NamesDistinctTimesHoweverShortThePart) {
  record({{dmx("a", 0), 0}, {dmx("a", 0), 1234 * kSecond}});
  options.selection.start = 600 * kSecond;
  options.selection.stop = 600 * kSecond + 10 * kMs;
  std::string svg = plot();
  EXPECT_NE(svg.find("; shown from 10m00.000s to 10m00.010s</text>"), std::string::npos);
  for (const char* tick : {"10:00.000", "10:00.001", "10:00.010"})
    EXPECT_EQ(count(svg, ">" + std::string(tick) + "</text>"), 1) << tick;
  options.selection.stop = 600 * kSecond + 5;
  svg = plot();
  EXPECT_NE(svg.find("; shown from 10:00.000000000 to 10:00.000000005</text>"), std::string::npos);
  EXPECT_EQ(count(svg, ">10:00.000000003</text>"), 1);
}

TEST_F(Plot, RefusesAPartBehindTheEnd) {
  record({{dmx("a", 0), 0}, {dmx("a", 0), kSecond}});
  options.selection.start = 2 * kSecond;
  EXPECT_EQ(error_of([this] { plot(); }), options.file.path() + ": ends at 1.000 s, before 2.000 s");
}

TEST_F(Plot, GoesOnBehindDamageWhenItIsPassedOver) {
  options.file = directory.write(
      "show.cue", dmx("a", 0) + recordings::delay(kSecond) + dmx("b", 0) + recordings::delay(1) + "rubbish");
  options.output = directory / "out.svg";
  EXPECT_EQ(error_of([this] { plot(); }).rfind(options.file.path() + ": byte ", 0), 0U);
  EXPECT_EQ(directory.names(), std::vector<std::string>{"show.cue"});
  int damages = 0;
  options.on_damage = [&damages](const auto&, const auto&) { ++damages; };
  plot();
  EXPECT_EQ(damages, 1);
  EXPECT_EQ(shown, kSecond);
}

TEST_F(Plot, DrawsOneDatagramAndTheLongestTime) {
  record({{dmx("", 0), 0}});
  EXPECT_EQ(count(plot(), "<image "), 1);
  record({{dmx("a", 0), 0}, {dmx("a", 0), kLongestPause}});
  EXPECT_EQ(count(plot(), "<image "), 1);
}

}  // namespace
