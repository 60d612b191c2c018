#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "cue/CueEdit.h"
#include "cue/CueError.h"
#include "cue/CueInfo.h"
#include "cue/CueVerify.h"
#include "unit/cue/directory.h"
#include "unit/cue/recordings.h"

using packets::dmx;
using recordings::delay;
using recordings::file_of;

namespace {

constexpr std::int64_t kMs = 1'000'000;

const std::string kDmx = dmx("slot");  // 22 bytes

/// A command's output, errors and exit code.
struct Outcome {
  std::string out;
  std::string err;
  int code = 0;
};

template <typename Command>
Outcome outcome_of(Command&& command) {
  std::ostringstream out;
  std::ostringstream err;
  Outcome outcome;
  outcome.code = command(out, err);
  outcome.out = out.str();
  outcome.err = err.str();
  return outcome;
}

Outcome info(const std::vector<std::string>& files, bool json) {
  return outcome_of([&](auto& out, auto& err) { return cue::run_info(files, json, out, err); });
}

Outcome verify(const cue::VerifyOptions& options) {
  return outcome_of([&](auto& out, auto& err) { return cue::run_verify(options, out, err); });
}

template <typename Action>
std::string error_of(Action&& action) {
  try {
    action();
  } catch (const cue::CueError& error) {
    return error.what();
  }
  return "no error";
}

TEST(CueInfo, ShowsATableOfTheUniverses) {
  const unit::Directory directory;
  const std::string show = directory.write(
      "show.cue", file_of({{dmx("ab", 0), 0}, {dmx("abcd", 0x1234), 10 * kMs}, {dmx("a", 0), 90 * kMs}}));
  const Outcome outcome = info({show}, false);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.out, show +
                             "\n"
                             "  duration   0.100 s\n"
                             "  datagrams  3\n"
                             "  bytes      97\n"
                             "  universes  2\n"
                             "\n"
                             "  universe  net/sub/uni   datagrams  rate (Hz)    slots         first          "
                             "last   longest gap\n"
                             "         1        0/0/0           2      10.00      1-2       0.000 s       "
                             "0.100 s       0.100 s\n"
                             "      4661       18/3/4           1       0.00        4       0.010 s       "
                             "0.010 s       0.000 s\n");
}

TEST(CueInfo, WritesJsonForPrograms) {
  const unit::Directory directory;
  const std::string show =
      directory.write("a\"b\n.cue", file_of({{dmx("ab", 0), 0}, {dmx("ab", 0), 100 * kMs}}));
  const std::string empty = directory.write("empty.cue", "");
  const Outcome outcome = info({show, empty}, true);
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(
      outcome.out,
      "[{\"file\": \"" + directory.path() +
          "/a\\\"b\\u000a.cue\", \"bytes\": 58, \"datagrams\": 2, \"duration_ns\": 100000000, \"damage\": "
          "null, "
          "\"universes\": [\n"
          "    {\"universe\": 1, \"port_address\": 0, \"datagrams\": 2, \"rate_hz\": 10.000, \"first_ns\": "
          "0, "
          "\"last_ns\": 100000000, \"longest_gap_ns\": 100000000, \"fewest_slots\": 2, \"most_slots\": "
          "2}]},\n"
          " {\"file\": \"" +
          empty +
          "\", \"bytes\": 0, \"datagrams\": 0, \"duration_ns\": 0, \"damage\": null, \"universes\": []}]\n");
}

TEST(CueInfo, CountsEveryArtDmxOfADatagram) {
  cue::RecordingReader reader = recordings::reader_of(dmx("a", 1) + dmx("b", 2) + "x" + dmx("c", 1));
  const cue::RecordingInfo found = cue::read_info(reader);
  EXPECT_EQ(found.datagrams, 1U);
  ASSERT_EQ(found.universes.size(), 2U);
  EXPECT_EQ(found.universes[0].datagrams, 2U);
  EXPECT_EQ(found.universes[1].datagrams, 1U);
  EXPECT_EQ(found.universes[0].rate(), 0);
}

TEST(CueInfo, TellsTheLongestGap) {
  cue::RecordingReader reader = recordings::reader_of(
      file_of({{dmx("a", 1), 0}, {dmx("b", 2), 5}, {dmx("a", 1), 6}, {dmx("a", 1), 40}, {dmx("a", 1), 3}}));
  const cue::RecordingInfo found = cue::read_info(reader);
  EXPECT_EQ(found.universes[0].longest_gap, 40);
  EXPECT_EQ(found.universes[1].longest_gap, 0);
}

TEST(CueInfo, ShowsWhatIsGoodOfADamagedFile) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", kDmx + delay(5) + "Art");
  const Outcome table = info({show}, false);
  EXPECT_EQ(table.code, 1);
  EXPECT_EQ(table.err, "kadrel-cue: " + show + ": byte 40: cut off within a datagram\n");
  EXPECT_NE(table.out.find("datagrams  1\n  bytes      22\n"), std::string::npos);
  const Outcome json = info({show}, true);
  EXPECT_NE(json.out.find("\"damage\": {\"offset\": 40, \"what\": \"cut off within a datagram\"}"),
            std::string::npos);
}

TEST(CueInfo, GoesOnWithTheNextFile) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", kDmx);
  const Outcome outcome = info({"/nowhere.cue", show}, false);
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.err, "kadrel-cue: /nowhere.cue: No such file or directory\n");
  EXPECT_EQ(outcome.out.rfind(show, 0), 0U);
}

TEST(CueVerify, SaysThatAFileIsWhole) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", file_of({{kDmx, 0}, {kDmx, 1500 * kMs}}));
  const std::string empty = directory.write("empty.cue", "");
  const Outcome outcome = verify({{show, empty}, false, ""});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out,
            show + ": whole, 2 datagrams, 1.500 s\n" + empty + ": whole, 0 datagrams, 0.000 s\n");
}

TEST(CueVerify, MentionsDatagramsThatAreMoreThanOneArtDmx) {
  const unit::Directory directory;
  const std::string show =
      directory.write("show.cue", file_of({{kDmx, 0}, {kDmx + "x", 1}, {kDmx + kDmx, 2}}));
  const Outcome outcome = verify({{show}, false, ""});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.out, show + ": whole, 3 datagrams, 0.000 s\n" + show +
                             ": 2 datagrams with more than one ArtDmx packet, the first at byte 40\n");
  const Outcome strict = verify({{show}, true, ""});
  EXPECT_EQ(strict.code, 1);
  EXPECT_EQ(strict.out, "");
  EXPECT_EQ(strict.err, "kadrel-cue: " + show + ": byte 40: the datagram is more than one ArtDmx packet\n" +
                            "kadrel-cue: " + show +
                            ": byte 81: the datagram is more than one ArtDmx packet\n");
}

TEST(CueVerify, NamesTheFirstBrokenByteOfACutOffFile) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", (kDmx + delay(5) + kDmx).substr(0, 50));
  const Outcome outcome = verify({{show}, false, ""});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "kadrel-cue: " + show +
                ": byte 40: cut off within a datagram; good are the first 22 bytes, 1 datagram, 0.000 s\n");
}

TEST(CueVerify, WritesTheGoodPart) {
  const unit::Directory directory;
  const std::string good = file_of({{kDmx, 0}, {kDmx, 5}});
  const std::string rest = file_of({{kDmx, 0}, {kDmx, 7}});
  const std::string show = directory.write(
      "show.cue", good + delay(1) + std::string(9000, 'x') + delay(6) + rest + delay(8) + "Art-N");
  const std::string out = directory / "out.cue";
  const Outcome outcome = verify({{show}, false, out});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.err, "kadrel-cue: " + show +
                             ": byte 80: no whole datagram of at most 8191 bytes; good are the first 62 "
                             "bytes, 2 datagrams, 0.000 "
                             "s\n" +
                             "kadrel-cue: " + show + ": byte 9178: cut off within a datagram\n" +
                             "kadrel-cue: " + show + ": 4 datagrams in all are good\n");
  EXPECT_EQ(outcome.out, out + ": 4 datagrams, 0.000 s\n");
  EXPECT_EQ(directory.content("out.cue"), good + delay(6) + rest);
  EXPECT_EQ(verify({{out}, false, ""}).code, 0);
}

TEST(CueVerify, LeavesABrokenDatagramWithItsDelayRecordOut) {
  const unit::Directory directory;
  std::string broken = kDmx;
  broken[8] = 'x';
  const std::string show = directory.write("show.cue", kDmx + delay(5) + broken + delay(6) + kDmx);
  const std::string out = directory / "out.cue";
  const Outcome outcome = verify({{show}, false, out});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.err,
            "kadrel-cue: " + show +
                ": byte 22: a delay record without a datagram of its own; the file is damaged here, or the "
                "bytes were sent like this\n");
  EXPECT_EQ(directory.content("out.cue"), kDmx + delay(6) + kDmx);
}

TEST(CueVerify, LeavesADelayRecordAtTheBeginningOut) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", delay(5) + kDmx + delay(6) + kDmx);
  EXPECT_EQ(verify({{show}, false, directory / "out.cue"}).code, 1);
  EXPECT_EQ(directory.content("out.cue"), kDmx + delay(6) + kDmx);
}

TEST(CueVerify, NeverReplacesTheFileThatItRepairs) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", kDmx + "Art");
  const Outcome outcome = verify({{show}, false, show});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.err, "kadrel-cue: " + show + ": the output would replace the input\n");
  EXPECT_EQ(directory.content("show.cue"), kDmx + "Art");
}

class CueCut : public testing::Test {
protected:
  const unit::Directory directory;
  const std::vector<recordings::Datagram> datagrams{
      {dmx("a", 0), 0}, {dmx("b", 1), 10}, {dmx("c", 0), 10}, {dmx("d", 1), 10}};
  const std::string show = directory.write("show.cue", file_of(datagrams));

  std::string cut(const cue::Selection& selection) const {
    std::ostringstream out;
    EXPECT_EQ(cue::run_cut(show, selection, directory / "out.cue", out), 0);
    return directory.content("out.cue");
  }
};

TEST_F(CueCut, KeepsAllWithoutLimits) {
  EXPECT_EQ(cut({}), file_of(datagrams));
}

TEST_F(CueCut, TakesFromStartUntilBeforeStop) {
  cue::Selection selection;
  selection.start = 10;
  selection.stop = 30;
  EXPECT_EQ(cut(selection), file_of({{dmx("b", 1), 0}, {dmx("c", 0), 10}}));
}

TEST_F(CueCut, KeepsThePausesBetweenWhatItTakes) {
  cue::Selection selection;
  selection.only = cue::parse_universes("2");
  EXPECT_EQ(cut(selection), file_of({{dmx("b", 1), 0}, {dmx("d", 1), 20}}));
}

TEST_F(CueCut, MakesAnEmptyRecordingOfNothing) {
  cue::Selection selection;
  selection.start = 31;
  EXPECT_EQ(cut(selection), "");
}

TEST_F(CueCut, ExchangesUniverses) {
  cue::Selection selection;
  selection.changes = {{0, 1}, {1, 0x1234}};
  EXPECT_EQ(cut(selection),
            file_of({{dmx("a", 1), 0}, {dmx("b", 0x1234), 10}, {dmx("c", 1), 10}, {dmx("d", 0x1234), 10}}));
}

TEST_F(CueCut, WritesNothingOfADamagedFile) {
  const std::string broken = directory.write("broken.cue", kDmx + "Art");
  std::ostringstream out;
  EXPECT_EQ(error_of([&] { cue::run_cut(broken, {}, directory / "out.cue", out); }),
            broken + ": byte 22: cut off within a delay record");
  EXPECT_EQ(directory.names(), (std::vector<std::string>{"broken.cue", "show.cue"}));
}

TEST(Selection, TakesSinglePacketsOutOfADatagramOfSeveral) {
  cue::Selection selection;
  selection.only = cue::parse_universes("2,4");
  selection.changes = {{1, 9}};
  cue::Selector selector(selection);
  const std::string datagram = "x" + dmx("a", 0) + dmx("b", 1) + "y" + dmx("c", 3) + "z";
  const auto picked = selector.pick_universes(recordings::bytes_of(datagram), datagram.size());
  ASSERT_TRUE(picked);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(picked->data), picked->size),
            dmx("b", 9) + dmx("c", 3));
}

TEST(Selection, KeepsADatagramWholeWhenAllOfItIsWanted) {
  cue::Selection selection;
  selection.only = cue::parse_universes("1-2");
  cue::Selector selector(selection);
  const std::string datagram = "x" + dmx("a", 0) + dmx("b", 1) + "y";
  const auto picked = selector.pick_universes(recordings::bytes_of(datagram), datagram.size());
  ASSERT_TRUE(picked);
  EXPECT_EQ(picked->data, recordings::bytes_of(datagram));
  EXPECT_EQ(picked->size, datagram.size());
}

TEST(CueJoin, PutsRecordingsOneBehindTheOther) {
  const unit::Directory directory;
  cue::JoinOptions options;
  options.files = {directory.write("a.cue", file_of({{dmx("a"), 0}, {dmx("b"), 5}})),
                   directory.write("empty.cue", ""),
                   directory.write("b.cue", file_of({{dmx("c"), 0}, {dmx("d"), 6}}))};
  options.output = directory / "out.cue";
  std::ostringstream out;
  EXPECT_EQ(cue::run_join(options, out), 0);
  EXPECT_EQ(directory.content("out.cue"),
            file_of({{dmx("a"), 0}, {dmx("b"), 5}, {dmx("c"), 22'727'272}, {dmx("d"), 6}}));
  EXPECT_EQ(out.str(), options.output + ": 4 datagrams, 0.023 s\n");
}

TEST(CueJoin, MakesTheGapThatIsWanted) {
  const unit::Directory directory;
  cue::JoinOptions options;
  const std::string a = directory.write("a.cue", dmx("a", 1));
  options.files = {a, a};
  options.output = directory / "out.cue";
  options.gap = 0;
  options.selection.only = cue::parse_universes("2");
  std::ostringstream out;
  EXPECT_EQ(cue::run_join(options, out), 0);
  EXPECT_EQ(directory.content("out.cue"), file_of({{dmx("a", 1), 0}, {dmx("a", 1), 0}}));
}

TEST(CueJoin, RefusesMoreTimeThanThereIs) {
  const unit::Directory directory;
  cue::JoinOptions options;
  const std::string a =
      directory.write("a.cue", file_of({{kDmx, 0}, {kDmx, std::numeric_limits<std::int64_t>::max()}}));
  options.files = {a, a};
  options.output = directory / "out.cue";
  std::ostringstream out;
  EXPECT_EQ(error_of([&] { cue::run_join(options, out); }), "longer than 292 years");
}

TEST(CueJoin, NeverReplacesOneOfItsInputs) {
  const unit::Directory directory;
  cue::JoinOptions options;
  options.files = {directory.write("a.cue", kDmx), directory.write("b.cue", kDmx)};
  options.output = directory / "b.cue";
  std::ostringstream out;
  EXPECT_EQ(error_of([&] { cue::run_join(options, out); }),
            options.output + ": the output would replace the input");
}

}  // namespace
