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
      {{"export", "a"}, "--format, --pcap or --csv is needed"},
      {{"export", "a", "--pcap", "-", "--csv", "/dev/stdout"}, "two outputs name the same file"},
      {{"export", "a", "--pcap", "/tmp/x", "--csv", "/tmp/./x"}, "two outputs name the same file"},
      {{"cut", "a", "-o", "x", "--start", "soon"},
       "\"soon\" is not a time such as 90, 1.5, 250 ms, 1m30.5 or 1:02:03.5"},
      {{"record", "a", "--for", "0"}, "\"0\" is not a time such as 90, 1.5, 250 ms, 1m30.5 or 1:02:03.5"},
      {{"record", "a", "--until-silent", "-1"},
       "\"-1\" is not a time such as 90, 1.5, 250 ms, 1m30.5 or 1:02:03.5"},
      {{"record", "a", "--name", "a/b"}, "\"a/b\" is not a name for a file in a folder"},
      {{"record", "a", "--universes", "0"}, "\"0\" is not a list of universes such as 1,3,5-8"},
      {{"plot", "a", "-o", "x", "--universe", "0"}, "\"0\" is not a universe (they count from 1)"},
      {{"play", "a", "--to", "10.0.0.9", "--loop", "0"},
       "\"0\" is not a number of passes (from 1 to 2^63), or forever"}};
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
      {{"export", show, "--pcap", pcap, "--csv", out, "--universe", "5"},
       pcap + ": 2 datagrams\n" + out + ": universe 5, 2 lines\n"},
      {{"import", pcap, "-o", out}, out + ": 2 datagrams, 1.500 s\n"},
      {{"plot", show, "--start", "1", "-o", out}, out + ": 0.500 s\n"}};
  for (const auto& [words, report] : expected) {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.out, report);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.code, 0);
    std::filesystem::remove(out);
  }
}

TEST(Commands, FailWhereThereIsNothingToWrite) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", file_of({{dmx("a", 4), 0}}));
  const std::string out = directory.write("out", "of another day");
  const std::vector<std::pair<std::vector<std::string>, std::string>> expected{
      {{"cut", show, "--only", "7", "--force", "-o", out},
       show + ": nothing to cut: it holds none of the wanted universes"},
      {{"join", show, show, "--only", "7", "--force", "-o", out},
       "nothing to join: none of the recordings holds a wanted universe"}};
  for (const auto& [words, reason] : expected) {
    EXPECT_EQ(unit::error_of([&, &line = words] { run(line); }), reason);
    EXPECT_EQ(directory.content("out"), "of another day");
  }
}

TEST(Info, ShowsATableOfTheUniverses) {
  const unit::Directory directory;
  const std::string show = directory.write(
      "show.cue",
      file_of({{dmx("ab", 0, 1), 0}, {dmx("abcd", 0x1234), 10 * kMs}, {dmx("a", 0, 3), 90'000 * kMs}}));
  const Outcome outcome = run({"info", show});
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.out,
            show +
                "\n"
                "  duration   1m30.010s\n"
                "  datagrams  3\n"
                "  bytes      97\n"
                "  universes  2\n"
                "\n"
                " uni-   net/sub   data-  rate  p50  p99                         longest\n"
                "verse      /uni   grams    Hz   ms   ms   slots   first    last     gap missing\n"
                "    1     0/0/0       2   0.0  90s  90s     1-2   0.000  1:30.0  1:30.0       1\n"
                " 4661    18/3/4       1   0.0  0.0  0.0       4   0.010   0.010   0.000       ?\n"
                "\n"
                "universe 1: 1 datagram missing in 1 hole, at 1m30.010s; 1 pause over 4 s, the longest "
                "1m30.010s\n"
                "universe 4661: the sender does not count\n"
                "1 datagram missing in 1 universe\n");
}

TEST(Info, KeepsTheTableWithin80Columns) {
  const unit::Directory directory;
  std::vector<recordings::Datagram> datagrams;
  for (unsigned universe = 0; universe < 512; ++universe)
    datagrams.emplace_back(dmx("ab", 0x7E00 + universe, 1), kMs);
  datagrams.emplace_back(dmx(std::string(512, 'a'), 0x7E00, 3), 9 * 3'600'000 * kMs);
  datagrams.emplace_back(dmx("b", 0x7E00, 4), 600'000 * kMs);
  const std::string out = run({"info", directory.write("show.cue", file_of(datagrams))}).out;
  std::istringstream lines(out.substr(out.find(" uni-")));
  std::string line;
  std::size_t count = 0;
  for (; std::getline(lines, line) && !line.empty(); ++count) EXPECT_LE(line.size(), 79U) << line;
  EXPECT_EQ(count, 514U);
  EXPECT_NE(out.find("\n32257   126/0/0       3   0.0 601s   9h   1-512   0.000 9:10:00 9:00:00       1\n"),
            std::string::npos)
      << out.substr(0, 600);
}

TEST(Info, ShowsIntervalsInMinutesBeforeHours) {
  const unit::Directory directory;
  const auto interval_text = [&](std::int64_t minutes) {
    const std::string file =
        directory.write("show.cue", file_of({{dmx("a", 0, 1), 0}, {dmx("b", 0, 2), minutes * 60'000 * kMs}}));
    return run({"info", file}).out;
  };
  EXPECT_NE(interval_text(17).find(" 17m  17m "), std::string::npos) << interval_text(17);
  EXPECT_NE(interval_text(99).find(" 99m  99m "), std::string::npos) << interval_text(99);
  EXPECT_NE(interval_text(120).find("  2h   2h "), std::string::npos) << interval_text(120);
}

TEST(Info, SaysTheSameOfManyUniversesOnce) {
  const unit::Directory directory;
  std::vector<recordings::Datagram> datagrams;
  for (const unsigned universe : {0U, 1U, 2U, 6U, 8U, 9U}) datagrams.emplace_back(dmx("a", universe), kMs);
  const std::string out = run({"info", directory.write("show.cue", file_of(datagrams))}).out;
  EXPECT_NE(
      out.find("\nuniverses 1-3,7,9-10: the sender does not count\ncomplete as far as the senders count\n"),
      std::string::npos)
      << out;
}

TEST(Info, LeavesOutWhatIsToBeSaidOfTooManyUniverses) {
  const unit::Directory directory;
  std::vector<recordings::Datagram> datagrams;
  for (const unsigned number : {1U, 3U})
    for (unsigned universe = 0; universe < 40; ++universe)
      datagrams.emplace_back(dmx("a", universe, number), kMs);
  const std::string out = run({"info", directory.write("show.cue", file_of(datagrams))}).out;
  EXPECT_NE(out.find("\nuniverse 32: 1 datagram missing in 1 hole, at 0.071 s\n"
                     "and 8 universes more, see kadrel-cue info --json\n"
                     "40 datagrams missing in 40 universes\n"),
            std::string::npos)
      << out;
}

TEST(Info, WritesJsonForPrograms) {
  const unit::Directory directory;
  const std::string show = directory.write(
      "a\"b\n.cue", file_of({{dmx("ab", 0, 1), 0}, {dmx("ab", 0, 1), 100 * kMs}, {dmx("ab", 0, 4), 0}}));
  const std::string empty = directory.write("empty.cue", "");
  const Outcome outcome = run({"info", "--json", show, empty});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(
      outcome.out,
      "[{\"file\": \"" + directory.path() +
          "/a\\\"b\\n.cue\", \"bytes\": 96, \"datagrams\": 3, \"duration_ns\": 100000000, \"damage\": null, "
          "\"verdict\": \"2 datagrams missing in 1 universe\", \"missing\": 2, \"proved\": true, "
          "\"shared\": null, \"universes\": [\n"
          "    {\"universe\": 1, \"port_address\": 0, \"datagrams\": 3, \"rate_hz\": 20.000, "
          "\"first_ns\": 0, \"last_ns\": 100000000, \"longest_gap_ns\": 100000000, "
          "\"fewest_slots\": 2, \"most_slots\": 2, \"interval_p50_ns\": 4096, "
          "\"interval_p99_ns\": 100000000, \"pauses\": 0, \"counting\": \"own\", \"not_numbered\": 0, "
          "\"unproved_pauses\": 0, \"missing\": 2, \"at_least\": false, \"holes\": 1, "
          "\"first_hole_ns\": 100000000, \"longest_hole\": 2, \"longest_hole_ns\": 100000000, "
          "\"repeated\": 1, \"repeated_same\": 1, \"out_of_order\": 0, \"jumps\": 0, "
          "\"first_jump_ns\": 0}]},\n"
          " {\"file\": \"" +
          empty +
          "\", \"bytes\": 0, \"datagrams\": 0, \"duration_ns\": 0, \"damage\": null, \"verdict\": \"empty\", "
          "\"missing\": 0, \"proved\": true, \"shared\": null, \"universes\": []}]\n");
}

TEST(Info, TellsACounterThatUniversesShare) {
  const unit::Directory directory;
  std::vector<recordings::Datagram> datagrams;
  for (unsigned number = 0; number < 400; ++number)
    if (number != 200)
      datagrams.emplace_back(dmx("a", number % 4, number % 255 + 1), (number % 4 == 0 ? 22 : 0) * kMs);
  const std::string show = directory.write("show.cue", file_of(datagrams));
  const std::string table = run({"info", show}).out;
  EXPECT_NE(table.find("\nuniverses 1-4: numbered across universes\n"
                       "count across universes: 1 datagram missing in 1 hole, at "),
            std::string::npos)
      << table;
  const std::string json = run({"info", "--json", show}).out;
  EXPECT_NE(json.find("\"shared\": {\"universes\": 4, \"missing\": 1, "), std::string::npos) << json;
}

TEST(Info, SaysWhatAFileOfAnotherProgramIs) {
  const unit::Directory directory;
  const std::string frame = delay(5) + kDmx + delay(5) + kDmx;
  const std::vector<std::pair<std::string, std::string>> files{
      {"\xD4\xC3\xB2\xA1", "a capture, see kadrel-cue import"},
      {"\xA1\xB2\xC3\xD4", "a capture, see kadrel-cue import"},
      {"\x4D\x3C\xB2\xA1", "a capture, see kadrel-cue import"},
      {"\xA1\xB2\x3C\x4D", "a capture, see kadrel-cue import"},
      {"\x0A\x0D\x0D\x0A\x1C\x1C\x1C\x1C\x4D\x3C\x2B\x1A", "a capture, see kadrel-cue import"},
      {"\x1F\x8B\x08", "compressed with gzip; unpack it, or see kadrel-cue import"},
      {"PSEQ", "an FSEQ sequence, see kadrel-cue import"},
      {"FSEQ", "an FSEQ sequence, see kadrel-cue import"},
      {"OLA Show\n", "a show of ola_recorder, see kadrel-cue import"}};
  for (const auto& [mark, kind] : files) {
    for (const std::string& rest : {std::string(), frame}) {
      const std::string file = directory.write("file", mark + rest);
      for (const std::vector<std::string>& words :
           {std::vector<std::string>{"info", file}, {"info", "--json", file}, {"verify", file}}) {
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.code, 1);
        EXPECT_EQ(outcome.err, "kadrel-cue: " + file + ": " + kind + "\n");
      }
    }
  }
}

TEST(CommandLine, TakesAFileOfAnotherProgramForNoDamagedRecording) {
  const unit::Directory directory;
  const std::string file =
      directory.write("show.pcap", "\xD4\xC3\xB2\xA1" + delay(5) + kDmx + delay(5) + kDmx);
  const std::string out = directory / "out";
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"verify", "--repair", "-o", out, file},
        {"cut", file, "-o", out},
        {"join", file, "-o", out},
        {"plot", file, "-o", out},
        {"export", file, "--csv", out},
        {"export", file, "--format", "fseq", "-o", out},
        {"play", file, "--to", "127.0.0.1:9"}}) {
    std::string said;
    said = unit::error_of([&] { said = run(words).err; }) + said;
    EXPECT_NE(said.find(file + ": a capture, see kadrel-cue import"), std::string::npos) << said;
    EXPECT_EQ(directory.names(), std::vector<std::string>{"show.pcap"});
  }
}

TEST(Info, AgreesWithVerifyOnDamage) {
  const unit::Directory directory;
  std::vector<recordings::Datagram> datagrams;
  for (unsigned number = 1; number <= 50; ++number)
    datagrams.emplace_back(dmx(std::string(200, 'a'), 0, number), 22 * kMs);
  const std::string whole = file_of(datagrams);
  for (std::size_t at = 1; at < whole.size(); at += 97) {
    std::string broken = whole;
    broken.replace(at, std::min<std::size_t>(400, whole.size() - at),
                   std::min<std::size_t>(400, whole.size() - at), '\0');
    const std::string show = directory.write("show.cue", broken);
    const Outcome table = run({"info", show});
    const Outcome json = run({"info", "--json", show});
    const Outcome verify = run({"verify", show});
    EXPECT_EQ(table.code, json.code);
    // The verdict is the last line of both.
    const std::string last = table.out.substr(table.out.rfind('\n', table.out.size() - 2) + 1);
    EXPECT_NE(verify.out.find(show + ": " + last), std::string::npos) << at << verify.out;
    EXPECT_NE(json.out.find("\"verdict\": \"" + last.substr(0, last.size() - 1) + "\""), std::string::npos);
    EXPECT_EQ(table.code, last.rfind("damaged at byte ", 0) == 0 ? 1 : 0);
  }
}

TEST(Info, WritesTheLongestTimesToTheLastDigit) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", file_of({{dmx("a"), 0}, {dmx("a"), kLongestPause}}));
  const std::string json = run({"info", "--json", show}).out;
  for (const char* name : {"duration_ns", "last_ns", "longest_gap_ns"})
    EXPECT_NE(json.find("\"" + std::string(name) + "\": " + std::to_string(kLongestPause)), std::string::npos)
        << json;
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

const std::string kUncounted = ": universe 1: the sender does not count\n";
const std::string kAsFar = ": complete as far as the senders count\n";

TEST(Verify, FailsForHolesWhenAFileIsToBeComplete) {
  const unit::Directory directory;
  const std::string good = directory.write("good.cue", file_of({{dmx("a", 0, 1), 0}, {dmx("a", 0, 2), 5}}));
  const std::string hole = directory.write("hole.cue", file_of({{dmx("a", 6, 255), 0}, {dmx("a", 6, 2), 5}}));
  const std::string zero = directory.write("zero.cue", file_of({{kDmx, 0}, {kDmx, 5}}));
  EXPECT_EQ(run({"verify", good, hole, zero}).code, 0);
  EXPECT_EQ(run({"verify", "--complete", good, zero}).code, 0);
  const Outcome outcome = run({"verify", "--complete", good, hole});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, good + ": whole, 2 datagrams, 0.000 s\n" + good + ": complete\n" + hole +
                             ": whole, 2 datagrams, 0.000 s\n" + hole +
                             ": universe 7: 1 datagram missing in 1 hole, at 0.000 s\n" + hole +
                             ": 1 datagram missing in 1 universe\n");
}

TEST(Verify, SaysThatAFileIsWhole) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", file_of({{kDmx, 0}, {kDmx, 1500 * kMs}}));
  const std::string empty = directory.write("empty.cue", "");
  const Outcome outcome = run({"verify", show, empty});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, show + ": whole, 2 datagrams, 1.500 s\n" + show + kUncounted + show + kAsFar +
                             empty + ": whole, 0 datagrams, 0.000 s\n" + empty + ": empty\n");
}

TEST(Verify, MentionsDatagramsThatAreMoreThanOneArtDmx) {
  const unit::Directory directory;
  const std::string show =
      directory.write("show.cue", file_of({{kDmx, 0}, {kDmx + '\0', 1}, {kDmx + kDmx, 2}}));
  const Outcome outcome = run({"verify", show});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.out, show + ": whole, 3 datagrams, 0.000 s\n" + show +
                             ": 2 datagrams with more than one ArtDmx packet, the first at byte 40\n" + show +
                             kUncounted + show + kAsFar);
  const Outcome strict = run({"verify", "--strict", show});
  EXPECT_EQ(strict.code, 1);
  EXPECT_EQ(strict.out, show + kUncounted + show + kAsFar);
  EXPECT_EQ(strict.err, "kadrel-cue: " + show + ": byte 40: the datagram is more than one ArtDmx packet\n" +
                            "kadrel-cue: " + show +
                            ": byte 81: the datagram is more than one ArtDmx packet\n");
}

TEST(Verify, NamesTheFirstBrokenByteOfACutOffFile) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", (kDmx + delay(5) + kDmx).substr(0, 50));
  const Outcome outcome = run({"verify", show});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.out, show + kUncounted + show + ": damaged at byte 40\n");
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
