#include "tools/CommandLine.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <sstream>
#include <utility>
#include <vector>

#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
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

Outcome run(const std::vector<std::string>& words) {
  std::vector<const char*> argv{"kadrel-cue"};
  for (const std::string& word : words) argv.push_back(word.c_str());
  std::ostringstream out;
  std::ostringstream err;
  const int code = kadrel_cue::run(static_cast<int>(argv.size()), argv.data(), out, err);
  return {out.str(), err.str(), code};
}

TEST(CommandLine, TellsTheVersion) {
  EXPECT_EQ(run({"--version"}).out, "kadrel-cue " KADREL_VERSION "\n");
}

TEST(CommandLine, RefusesWordsThatDoNotGoTogether) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> refused{
      {{"verify", "a", "b", "--repair", "-o", "x"}, "--repair takes one FILE"},
      {{"cut", "a", "-o", "x", "--start", "2", "--stop", "1"}, "--stop is before --start"},
      {{"plot", "a", "-o", "x", "--start", "2", "--stop", "1"}, "--stop is before --start"},
      {{"play", "a", "--to", "10.0.0.9", "--start", "2", "--stop", "1"}, "--stop is before --start"},
      {{"join", "-", "a", "-", "-o", "x"}, "- (the standard input) can be read once"},
      {{"export", "a"}, "--pcap or --csv is needed"},
      {{"export", "a", "--pcap", "/tmp/x", "--csv", "/tmp/./x"}, "--pcap and --csv name the same file"},
      {{"cut", "a", "-o", "x", "--start", "soon"},
       "\"soon\" is not a time such as 90, 1.5, 250 ms, 1m30.5 or 1:02:03.5"},
      {{"plot", "a", "-o", "x", "--universe", "0"}, "\"0\" is not a universe (they count from 1)"},
      {{"play", "a", "--to", "10.0.0.9", "--loop", "0"}, "\"0\" is not a number of passes, or forever"}};
  for (const auto& [words, message] : refused) {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.code, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find(message + " (kadrel-cue --help tells more)\n"), std::string::npos)
        << outcome.err;
  }
}

TEST(Commands, SayWhatTheyWrote) {
  const unit::Directory directory;
  const std::string show =
      directory.write("show.cue", file_of({{dmx("a", 4), 0}, {dmx("b", 4), 1500 * kMs}}));
  const std::string out = directory / "out";
  const std::string pcap = directory / "out.pcap";
  const std::vector<std::pair<std::vector<std::string>, std::string>> expected{
      {{"cut", show, "--stop", "1", "-o", out}, out + ": 1 datagram, 0.000 s\n"},
      {{"join", show, show, "--gap", "2", "-o", out}, out + ": 4 datagrams, 5.000 s\n"},
      {{"join", show, show, "--only", "7", "-o", out}, out + ": 0 datagrams, 0.000 s\n"},
      {{"export", show, "--pcap", pcap, "--csv", out, "--universe", "5"},
       pcap + ": 2 datagrams\n" + out + ": universe 5, 2 lines\n"},
      {{"import", pcap, "-o", out}, out + ": 2 datagrams, 1.500 s\n"},
      {{"import", pcap, "--port", "7", "-o", out}, out + ": 0 datagrams, 0.000 s\n"},
      {{"plot", show, "--start", "1", "-o", out}, out + ": 0.500 s\n"}};
  for (const auto& [words, report] : expected) {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.out, report);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.code, 0);
    std::filesystem::remove(out);
  }
}

TEST(Info, ShowsATableOfTheUniverses) {
  const unit::Directory directory;
  const std::string show = directory.write(
      "show.cue", file_of({{dmx("ab", 0), 0}, {dmx("abcd", 0x1234), 10 * kMs}, {dmx("a", 0), 90 * kMs}}));
  const Outcome outcome = run({"info", show});
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

TEST(Info, WritesJsonForPrograms) {
  const unit::Directory directory;
  const std::string show =
      directory.write("a\"b\n.cue", file_of({{dmx("ab", 0), 0}, {dmx("ab", 0), 100 * kMs}}));
  const std::string empty = directory.write("empty.cue", "");
  const Outcome outcome = run({"info", "--json", show, empty});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(
      outcome.out,
      "[{\"file\": \"" + directory.path() +
          "/a\\\"b\\n.cue\", \"bytes\": 58, \"datagrams\": 2, \"duration_ns\": 100000000, \"damage\": "
          "null, \"universes\": [\n"
          "    {\"universe\": 1, \"port_address\": 0, \"datagrams\": 2, \"rate_hz\": 10.000, "
          "\"first_ns\": 0, \"last_ns\": 100000000, \"longest_gap_ns\": 100000000, "
          "\"fewest_slots\": 2, \"most_slots\": 2}]},\n"
          " {\"file\": \"" +
          empty +
          "\", \"bytes\": 0, \"datagrams\": 0, \"duration_ns\": 0, \"damage\": null, \"universes\": []}]\n");
}

TEST(Info, WritesTheLongestTimesToTheLastDigit) {
  const unit::Directory directory;
  const std::string show = directory.write(
      "show.cue", file_of({{dmx("a"), 0}, {dmx("a"), std::numeric_limits<std::int64_t>::max()}}));
  const std::string json = run({"info", "--json", show}).out;
  for (const char* name : {"duration_ns", "last_ns", "longest_gap_ns"})
    EXPECT_NE(json.find("\"" + std::string(name) + "\": 9223372036854775807"), std::string::npos) << json;
}

TEST(Info, WritesANameThatIsNotUtf8WithReplacementCharacters) {
  const unit::Directory directory;
  const std::string replaced = "\xEF\xBF\xBD";
  const std::vector<std::pair<std::string, std::string>> names{
      {"\xC3\xBC \xE2\x82\xAC \xF0\x9F\x8E\xAD", "\xC3\xBC \xE2\x82\xAC \xF0\x9F\x8E\xAD"},
      {"a\xFF"
       "b",
       "a" + replaced + "b"},
      {"\xC0\x80", replaced + replaced},
      {"\xED\xA0\x80", replaced + replaced + replaced},
      {"\xF4\x90\x80\x80", replaced + replaced + replaced + replaced},
      {"\xE2\x82", replaced + replaced},
      {"\xEF\xBB\xBFmark", "\xEF\xBB\xBFmark"}};
  for (const auto& [name, text] : names) {
    const Outcome outcome = run({"info", "--json", directory.write(name, "")});
    EXPECT_NE(outcome.out.find("\"file\": \"" + directory.path() + "/" + text + "\""), std::string::npos)
        << outcome.out;
  }
}

TEST(Info, ShowsWhatIsGoodOfADamagedFile) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", kDmx + delay(5) + "Art");
  const Outcome table = run({"info", show});
  EXPECT_EQ(table.code, 1);
  EXPECT_EQ(table.err, "kadrel-cue: " + show + ": byte 40: cut off within a datagram\n");
  EXPECT_NE(table.out.find("datagrams  1\n  bytes      22\n"), std::string::npos);
  const Outcome json = run({"info", "--json", show});
  EXPECT_NE(json.out.find("\"damage\": {\"offset\": 40, \"what\": \"cut off within a datagram\"}"),
            std::string::npos);
}

TEST(Info, GoesOnWithTheNextFile) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", kDmx);
  const Outcome outcome = run({"info", "/nowhere.cue", show});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.err, "kadrel-cue: /nowhere.cue: No such file or directory\n");
  EXPECT_EQ(outcome.out.rfind(show, 0), 0U);
}

TEST(Verify, SaysThatAFileIsWhole) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", file_of({{kDmx, 0}, {kDmx, 1500 * kMs}}));
  const std::string empty = directory.write("empty.cue", "");
  const Outcome outcome = run({"verify", show, empty});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out,
            show + ": whole, 2 datagrams, 1.500 s\n" + empty + ": whole, 0 datagrams, 0.000 s\n");
}

TEST(Verify, MentionsDatagramsThatAreMoreThanOneArtDmx) {
  const unit::Directory directory;
  const std::string show =
      directory.write("show.cue", file_of({{kDmx, 0}, {kDmx + '\0', 1}, {kDmx + kDmx, 2}}));
  const Outcome outcome = run({"verify", show});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.out, show + ": whole, 3 datagrams, 0.000 s\n" + show +
                             ": 2 datagrams with more than one ArtDmx packet, the first at byte 40\n");
  const Outcome strict = run({"verify", "--strict", show});
  EXPECT_EQ(strict.code, 1);
  EXPECT_EQ(strict.out, "");
  EXPECT_EQ(strict.err, "kadrel-cue: " + show + ": byte 40: the datagram is more than one ArtDmx packet\n" +
                            "kadrel-cue: " + show +
                            ": byte 81: the datagram is more than one ArtDmx packet\n");
}

TEST(Verify, NamesTheFirstBrokenByteOfACutOffFile) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", (kDmx + delay(5) + kDmx).substr(0, 50));
  const Outcome outcome = run({"verify", show});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "kadrel-cue: " + show +
                ": byte 40: cut off within a datagram; good are the first 22 bytes, 1 datagram, 0.000 s\n");
}

TEST(Verify, EndsWithZeroWhenItHasRepaired) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", kDmx + delay(5) + kDmx + delay(8) + "Art-N");
  const std::string out = directory / "out.cue";
  EXPECT_EQ(run({"verify", show}).code, 1);
  EXPECT_EQ(run({"verify", "--repair", "-o", out, show}).code, 0);
  EXPECT_EQ(directory.content("out.cue"), kDmx + delay(5) + kDmx);
  EXPECT_EQ(run({"verify", "--strict", out}).code, 0);
}

TEST(Verify, EndsWithOneWhenThereIsNothingToRepair) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", "no recording");
  EXPECT_EQ(run({"verify", "--repair", "-o", directory / "out.cue", show}).code, 1);
  EXPECT_EQ(directory.names(), std::vector<std::string>{"show.cue"});
}

TEST(Verify, NeverReplacesTheFileThatItRepairs) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", kDmx + "Art");
  const Outcome outcome = run({"verify", "--repair", "-o", show, show});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.err, "kadrel-cue: " + show + ": the output would replace the input\n");
  EXPECT_EQ(directory.content("show.cue"), kDmx + "Art");
}

}  // namespace
