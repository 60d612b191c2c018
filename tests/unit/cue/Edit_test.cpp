#include "cue/Edit.h"

#include <gtest/gtest.h>

#include <limits>

#include "cue/CueError.h"
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

TEST_F(Cut, MakesAnEmptyRecordingOfNothing) {
  cue::Selection selection;
  selection.start = 31;
  EXPECT_EQ(cut(selection, true), "");
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

TEST(Join, RefusesMoreTimeThanThereIs) {
  const unit::Directory directory;
  cue::JoinOptions options;
  const std::string a =
      directory.write("a.cue", file_of({{kDmx, 0}, {kDmx, std::numeric_limits<std::int64_t>::max()}}));
  options.files = {a, a};
  options.output = directory / "out.cue";
  EXPECT_EQ(error_of([&] { cue::join(options); }), "longer than 292 years");
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
