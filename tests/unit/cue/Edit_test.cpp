#include "cue/Edit.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>

#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"

using packets::dmx;
using recordings::file_of;
using unit::error_of;

namespace {

const std::string kDmx = dmx("slot");  // 22 bytes

class Cut : public testing::Test {
protected:
  const unit::Directory directory;
  const std::vector<recordings::Datagram> datagrams{
      {dmx("a", 0), 0}, {dmx("b", 1), 10}, {dmx("c", 0), 10}, {dmx("d", 1), 10}};
  const std::string show = directory.write("show.cue", file_of(datagrams));

  std::string cut(const cue::Selection& selection, bool look = false) const {
    cue::CutOptions options;
    options.file = show;
    options.selection = selection;
    options.output = directory / "out.cue";
    options.look = look;
    cue::cut(options);
    return directory.content("out.cue");
  }
};

TEST_F(Cut, KeepsAllWithoutLimits) {
  EXPECT_EQ(cut({}), file_of(datagrams));
}

TEST_F(Cut, TakesFromStartUntilBeforeStop) {
  cue::Selection selection;
  selection.start = 10;
  selection.stop = 30;
  EXPECT_EQ(cut(selection), file_of({{dmx("b", 1), 0}, {dmx("c", 0), 10}}));
}

TEST_F(Cut, KeepsThePausesBetweenWhatItTakes) {
  cue::Selection selection;
  selection.only = cue::UniverseSet();
  selection.only->insert(1);
  EXPECT_EQ(cut(selection), file_of({{dmx("b", 1), 0}, {dmx("d", 1), 20}}));
}

TEST_F(Cut, SaysWhyAPartHoldsNothingAndWritesNoFile) {
  cue::Selection behind_end;
  behind_end.start = 31;
  cue::Selection other_universe;
  other_universe.only = cue::UniverseSet();
  other_universe.only->insert(7);
  cue::Selection early_part = other_universe;
  early_part.only->insert(1);
  early_part.stop = 10;
  cue::Selection no_time;
  no_time.stop = 0;
  const std::vector<std::pair<cue::Selection, std::string>> expected{
      {behind_end, "it ends at 0.000 s, before 0.000 s"},
      {other_universe, "it holds none of the wanted universes"},
      {early_part, "it holds none of the wanted universes before 0.000 s"},
      {no_time, "it holds no datagram before 0.000 s"}};
  for (const auto& [selection, reason] : expected) {
    for (const bool look : {false, true}) {
      EXPECT_EQ(error_of([&, &wanted = selection] { cut(wanted, look); }),
                show + ": nothing to cut: " + reason);
    }
  }
  EXPECT_EQ(directory.names(), std::vector<std::string>{"show.cue"});
}

TEST_F(Cut, ExchangesUniverses) {
  cue::Selection selection;
  selection.changes = {{0, 1}, {1, 0x1234}};
  EXPECT_EQ(cut(selection),
            file_of({{dmx("a", 1), 0}, {dmx("b", 0x1234), 10}, {dmx("c", 1), 10}, {dmx("d", 0x1234), 10}}));
}

TEST_F(Cut, WritesNothingOfADamagedFile) {
  cue::CutOptions options;
  options.file = directory.write("broken.cue", kDmx + "Art");
  options.output = directory / "out.cue";
  EXPECT_EQ(error_of([&] { cue::cut(options); }),
            options.file.path() + ": byte 22: cut off within a delay record");
  EXPECT_EQ(directory.names(), (std::vector<std::string>{"broken.cue", "show.cue"}));
}

// Looks: universes 1, 2 and 4 have come before 100 ms, 3 comes later for the first time.
class CutWithLooks : public testing::Test {
protected:
  static constexpr std::int64_t kMs = 1'000'000;
  // Three looks in one frame of 22,727,272 ns.
  static constexpr std::int64_t kStep = 22'727'272 / 3;

  /// What cut() makes of datagrams and the times at which they come.
  std::string cut(const std::vector<recordings::Datagram>& datagrams) {
    options.file = directory.write("show.cue", file_at(datagrams));
    options.output = directory / "out.cue";
    options.output.replace = true;
    written = cue::cut(options);
    return directory.content("out.cue");
  }

  /// A recording of datagrams with their times instead of pauses.
  static std::string file_at(std::vector<recordings::Datagram> datagrams) {
    for (std::size_t i = datagrams.size(); i-- > 1;) datagrams[i].second -= datagrams[i - 1].second;
    return file_of(datagrams);
  }

  const unit::Directory directory;
  const std::vector<recordings::Datagram> before{
      {dmx("old", 1, 7), 0}, {dmx("one", 1, 8), 10 * kMs}, {dmx("two", 2) + dmx("four", 4, 3), 99 * kMs}};
  cue::CutOptions options = [] {
    cue::CutOptions made;
    made.selection.start = 100 * kMs;
    return made;
  }();
  cue::Written written;
};

TEST_F(CutWithLooks, BeginsWithTheLastDatagramOfEachUniverseWithinOneFrame) {
  auto datagrams = before;
  datagrams.emplace_back(dmx("three", 3), 150 * kMs);
  EXPECT_EQ(cut(datagrams), file_at({{dmx("one", 1, 8), 0},
                                     {dmx("two", 2), kStep},
                                     {dmx("four", 4, 3), 2 * kStep},
                                     {dmx("three", 3), 50 * kMs}}));
  EXPECT_EQ(written.datagrams, 4U);
  EXPECT_EQ(written.duration, 50 * kMs);
}

TEST_F(CutWithLooks, LeavesOutTheLookOfAUniverseThatComesAgainBefore) {
  auto datagrams = before;
  datagrams.emplace_back(dmx("new", 1, 9), 100 * kMs);
  datagrams.emplace_back(dmx("new", 2), 100 * kMs + kStep);
  datagrams.emplace_back(dmx("new", 4, 4), 100 * kMs + 2 * kStep + 1);
  EXPECT_EQ(cut(datagrams), file_at({{dmx("new", 1, 9), 0},
                                     {dmx("new", 2), kStep},
                                     {dmx("four", 4, 3), 2 * kStep},
                                     {dmx("new", 4, 4), 2 * kStep + 1}}));
}

TEST_F(CutWithLooks, WritesALookBeforeWhatComesAtTheSameTime) {
  auto datagrams = before;
  datagrams.emplace_back(dmx("three", 3), 100 * kMs);
  EXPECT_EQ(cut(datagrams), file_at({{dmx("one", 1, 8), 0},
                                     {dmx("three", 3), 0},
                                     {dmx("two", 2), kStep},
                                     {dmx("four", 4, 3), 2 * kStep}}));
}

TEST_F(CutWithLooks, HasTheUniversesThatAreWantedAsTheyAreWanted) {
  options.selection.only = cue::UniverseSet();
  options.selection.only->insert(4);
  options.selection.changes = {{4, 9}};
  auto datagrams = before;
  datagrams.emplace_back(dmx("one", 1), 100 * kMs);
  datagrams.emplace_back(dmx("new", 4, 4), 150 * kMs);
  EXPECT_EQ(cut(datagrams), file_at({{dmx("four", 9, 3), 0}, {dmx("new", 9, 4), 50 * kMs}}));
}

TEST_F(CutWithLooks, FitsIntoAPartThatIsShorterThanAFrame) {
  options.selection.stop = 100 * kMs + 3;
  auto datagrams = before;
  datagrams.emplace_back(dmx("three", 3), 150 * kMs);
  EXPECT_EQ(cut(datagrams), file_at({{dmx("one", 1, 8), 0}, {dmx("two", 2), 1}, {dmx("four", 4, 3), 2}}));
  options.selection.stop = options.selection.start;
  EXPECT_EQ(error_of([&] { cut(datagrams); }),
            options.file.path() + ": nothing to cut: it holds no datagram from 0.100 s on before 0.100 s");
}

TEST_F(CutWithLooks, HasNoLookBehindTheEnd) {
  EXPECT_EQ(error_of([&] { cut(before); }),
            directory / "show.cue" + ": nothing to cut: it ends at 0.099 s, before 0.100 s");
}

TEST_F(CutWithLooks, CountsOnWhenItIsToRenumber) {
  auto datagrams = before;
  datagrams.emplace_back(dmx("new", 1, 200), 150 * kMs);
  datagrams.emplace_back(dmx("new", 2), 150 * kMs);
  datagrams.emplace_back(dmx("new", 4, 3), 150 * kMs);
  options.renumber = true;
  EXPECT_EQ(cut(datagrams), file_at({{dmx("one", 1, 8), 0},
                                     {dmx("two", 2), kStep},
                                     {dmx("four", 4, 3), 2 * kStep},
                                     {dmx("new", 1, 9), 50 * kMs},
                                     {dmx("new", 2), 50 * kMs},
                                     {dmx("new", 4, 4), 50 * kMs}}));
}

/// Levels of each universe at a time of a recording: those of its last ArtDmx until then.
std::map<unsigned, std::string> looks_at(const std::string& file, std::int64_t time) {
  std::map<unsigned, std::string> looks;
  const recordings::Reading reading = recordings::read(file);
  for (std::size_t i = 0; i < reading.datagrams.size() && reading.times[i] <= time; ++i) {
    const std::string& datagram = reading.datagrams[i].first;
    cue::for_each_dmx(recordings::bytes_of(datagram), datagram.size(), [&](const cue::DmxPacket& packet) {
      looks[packet.port_address] = datagram.substr(packet.offset + 18, packet.slots);
    });
  }
  return looks;
}

// A model of cut() for any recording and any part of it.
TEST_F(CutWithLooks, ShowsTheSameLookAsTheRecordingAfterOneFrame) {
  recordings::Chance chance(13);
  for (int round = 0; round < 30; ++round) {
    std::vector<recordings::Datagram> datagrams;
    std::int64_t time = 0;
    for (int i = 0; i < 60; ++i) {
      datagrams.emplace_back(dmx(std::string(1 + chance.below(4), static_cast<char>(chance.below(256))),
                                 chance.below(12), chance.below(256)),
                             time);
      time += chance.below(2) == 0 ? 0 : chance.below(30 * kMs);
    }
    const std::int64_t start = chance.below(static_cast<unsigned>(datagrams.back().second)) + 1;
    const std::string show = file_at(datagrams);
    options.selection.start = start;
    options.look = true;
    const std::string part = cut(datagrams);
    const recordings::Reading reading = recordings::read(part);
    ASSERT_FALSE(reading.damage);
    // Without a look at the front, because its universe comes at that moment, both begin together all the
    // same.
    for (const std::int64_t after : {22'727'272, 40'000'000, 400'000'000})
      EXPECT_EQ(looks_at(part, after), looks_at(show, start + after)) << round;
  }
}

TEST_F(CutWithLooks, GivesTheRecordingBackWhenItsBarePartsAreJoined) {
  recordings::Chance chance(14);
  for (int round = 0; round < 30; ++round) {
    std::vector<recordings::Datagram> datagrams;
    datagrams.reserve(20);
    for (int i = 0; i < 20; ++i) datagrams.emplace_back(chance.dmx(), 1 + chance.pause());
    const std::string show = file_of(datagrams);
    const recordings::Reading whole = recordings::read(show);
    const std::size_t at = 1 + chance.below(19);
    options.file = directory.write("show.cue", show);
    options.look = false;
    cue::JoinOptions join;
    join.look = false;
    join.gap = whole.datagrams[at].second;
    for (const char* name : {"head.cue", "tail.cue"}) {
      options.selection = {};
      (std::string(name) == "head.cue" ? options.selection.stop.emplace() : options.selection.start) =
          whole.times[at];
      options.output = directory / name;
      options.output.replace = true;
      cue::cut(options);
      join.files.emplace_back(directory / name);
    }
    join.output = directory / "joined.cue";
    join.output.replace = true;
    cue::join(join);
    EXPECT_EQ(directory.content("joined.cue"), show) << round;
  }
}

TEST(Join, PutsRecordingsOneAfterTheOther) {
  const unit::Directory directory;
  cue::JoinOptions options;
  options.files = {directory.write("a.cue", file_of({{dmx("a"), 0}, {dmx("b"), 5}})),
                   directory.write("empty.cue", ""),
                   directory.write("b.cue", file_of({{dmx("c"), 0}, {dmx("d"), 6}}))};
  options.output = directory / "out.cue";
  const cue::Written written = cue::join(options);
  EXPECT_EQ(directory.content("out.cue"),
            file_of({{dmx("a"), 0}, {dmx("b"), 5}, {dmx("c"), 22'727'272}, {dmx("d"), 6}}));
  EXPECT_EQ(written.datagrams, 4U);
  EXPECT_EQ(written.duration, 22'727'283);
}

TEST(Join, MakesTheGapThatIsWanted) {
  const unit::Directory directory;
  cue::JoinOptions options;
  const std::string a = directory.write("a.cue", dmx("a", 1));
  options.files = {a, a};
  options.output = directory / "out.cue";
  options.gap = 0;
  options.selection.only = cue::UniverseSet();
  options.selection.only->insert(1);
  cue::join(options);
  EXPECT_EQ(directory.content("out.cue"), file_of({{dmx("a", 1), 0}, {dmx("a", 1), 0}}));
}

TEST(Join, BeginsEachFileWithTheLooksOfThoseBefore) {
  const unit::Directory directory;
  cue::JoinOptions options;
  options.files = {
      directory.write("a.cue", file_of({{dmx("a", 1, 5), 0}, {dmx("b", 2, 5), 10}, {dmx("c", 3), 10}})),
      directory.write("empty.cue", ""), directory.write("b.cue", file_of({{dmx("d", 2, 9), 0}})),
      directory.write("c.cue", file_of({{dmx("e", 4), 0}, {dmx("f", 3), 100'000'000}}))};
  options.output = directory / "out.cue";
  options.output.replace = true;
  options.gap = 1000;
  const std::int64_t third = 22'727'272 / 3;
  const std::int64_t two_thirds = 2 * std::int64_t{22'727'272} / 3;
  cue::join(options);
  EXPECT_EQ(directory.content("out.cue"), file_of({{dmx("a", 1, 5), 0},
                                                   {dmx("b", 2, 5), 10},
                                                   {dmx("c", 3), 10},
                                                   {dmx("a", 1, 5), 1000},
                                                   {dmx("d", 2, 9), 0},
                                                   {dmx("c", 3), two_thirds},
                                                   {dmx("a", 1, 5), 1000},
                                                   {dmx("e", 4), 0},
                                                   {dmx("d", 2, 9), third},
                                                   {dmx("c", 3), two_thirds - third},
                                                   {dmx("f", 3), 100'000'000 - two_thirds}}));
  options.renumber = true;
  cue::join(options);
  EXPECT_EQ(directory.content("out.cue"), file_of({{dmx("a", 1, 5), 0},
                                                   {dmx("b", 2, 5), 10},
                                                   {dmx("c", 3), 10},
                                                   {dmx("a", 1, 6), 1000},
                                                   {dmx("d", 2, 6), 0},
                                                   {dmx("c", 3), two_thirds},
                                                   {dmx("a", 1, 7), 1000},
                                                   {dmx("e", 4), 0},
                                                   {dmx("d", 2, 7), third},
                                                   {dmx("c", 3), two_thirds - third},
                                                   {dmx("f", 3), 100'000'000 - two_thirds}}));
  options.look = false;
  options.renumber = false;
  cue::join(options);
  EXPECT_EQ(directory.content("out.cue"), file_of({{dmx("a", 1, 5), 0},
                                                   {dmx("b", 2, 5), 10},
                                                   {dmx("c", 3), 10},
                                                   {dmx("d", 2, 9), 1000},
                                                   {dmx("e", 4), 1000},
                                                   {dmx("f", 3), 100'000'000}}));
}

TEST(Join, RefusesMoreTimeThanThereIs) {
  const unit::Directory directory;
  cue::JoinOptions options;
  const std::string a = directory.write("a.cue", file_of({{kDmx, 0}, {kDmx, 1}}));
  options.files = {a, a};
  options.gap = std::numeric_limits<std::int64_t>::max();
  options.output = directory / "out.cue";
  EXPECT_EQ(error_of([&] { cue::join(options); }), "longer than 292 years");
}

TEST(Join, SaysThatThereIsNothingAndWritesNoFile) {
  const unit::Directory directory;
  cue::JoinOptions options;
  options.output = directory / "out.cue";
  const std::string empty = directory.write("empty.cue", "");
  options.files = {empty, empty};
  EXPECT_EQ(error_of([&] { cue::join(options); }),
            "nothing to join: none of the recordings holds a datagram");
  options.files = {empty, directory.write("show.cue", kDmx)};
  options.selection.only = cue::UniverseSet();
  options.selection.only->insert(7);
  EXPECT_EQ(error_of([&] { cue::join(options); }),
            "nothing to join: none of the recordings holds a wanted universe");
  EXPECT_EQ(directory.names(), (std::vector<std::string>{"empty.cue", "show.cue"}));
}

TEST(Join, NeverReplacesOneOfItsInputs) {
  const unit::Directory directory;
  cue::JoinOptions options;
  options.files = {directory.write("a.cue", kDmx), directory.write("b.cue", kDmx)};
  options.output = directory / "b.cue";
  EXPECT_EQ(error_of([&] { cue::join(options); }),
            options.output.path + ": the output would replace the input");
}

}  // namespace
