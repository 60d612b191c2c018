#include "cue/Csv.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>

#include "cue/Looks.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"

using packets::dmx;
using packets::text;
using recordings::file_of;
using unit::error_of;

namespace {

TEST(Csv, WritesTheSlotsOfAUniverseOverTime) {
  const unit::Directory directory;
  const std::string show = directory.write(
      "show.cue",
      file_of({{dmx("\x01\x02\x03", 4), 0}, {dmx("x", 5), 7}, {dmx(text("\xFF\0", 2), 4), 1'000'000'000}}));
  const cue::ExportedCsv exported = cue::export_csv(show, 4, directory / "out.csv");
  EXPECT_EQ(directory.content("out.csv"),
            "time_s,slot1,slot2,slot3\n0.000000000,1,2,3\n1.000000007,255,0,\n");
  EXPECT_EQ(exported.port_address, 4);
  EXPECT_EQ(exported.lines, 2U);
}

TEST(Csv, ChoosesTheOnlyUniverseAndNoOther) {
  const unit::Directory directory;
  const std::string one = directory.write("one.cue", dmx("a", 4));
  const std::string two = directory.write("two.cue", file_of({{dmx("a", 4), 0}, {dmx("a", 5), 1}}));
  const std::string none = directory.write("none.cue", "");
  cue::export_csv(one, std::nullopt, directory / "out.csv");
  EXPECT_EQ(directory.content("out.csv"), "time_s,slot1\n0.000000000,97\n");
  const auto error = [&](const std::string& file, std::optional<std::uint16_t> universe) {
    return error_of([&] { cue::export_csv(file, universe, directory / "out.csv"); });
  };
  EXPECT_EQ(error(two, std::nullopt), two + ": holds 2 universes; choose one with --universe");
  EXPECT_EQ(error(two, 6), two + ": holds no universe 7");
  EXPECT_EQ(error(none, std::nullopt), none + ": holds no universe");
}

TEST(Csv, PadsShorterLinesOfALongTable) {
  const unit::Directory directory;
  std::vector<recordings::Datagram> datagrams;
  std::string expected = "time_s";
  for (int slot = 1; slot <= 512; ++slot) expected += ",slot" + std::to_string(slot);
  expected += "\n";
  for (int line = 0; line < 500; ++line) {
    const std::size_t slots = line % 2 == 0 ? 512 : 3;
    datagrams.emplace_back(dmx(std::string(slots, '\xC8'), 4), 1'000'000'000);
    expected += std::to_string(line) + ".000000000";
    for (std::size_t slot = 0; slot < 512; ++slot) expected += slot < slots ? ",200" : ",";
    expected += "\n";
  }
  cue::export_csv(directory.write("show.cue", file_of(datagrams)), 4, directory / "out.csv");
  EXPECT_EQ(directory.content("out.csv"), expected);
}

TEST(Csv, WritesTheChangesOfAllUniverses) {
  const unit::Directory directory;
  const std::string show = directory.write(
      "show.cue", file_of({{dmx(text("\1\0\3", 3), 4), 0},
                           {dmx(text("\1\0\3", 3), 4), 1'000},        // unchanged
                           {dmx("", 6), 0},                           // no slots, no lines
                           {dmx("\xFF", 5) + dmx("\xFE", 5), 1'000},  // two packets in a datagram
                           {dmx(text("\1\0\2\0", 4), 4), 1'000},      // one changed, one new
                           {dmx("\1", 4), 9'999'999'997'000},         // three slots fewer
                           {dmx(text("\1\0", 2), 4), 0},              // one of them is back
                           {dmx("\1\1", 0x8000), 0}}));
  const cue::ExportedLongCsv exported = cue::export_csv_long(show, directory / "out.csv");
  EXPECT_EQ(directory.content("out.csv"),
            "time_s,universe,slot,level\n"
            "0.000000000,5,1,1\n0.000000000,5,2,0\n0.000000000,5,3,3\n"
            "0.000002000,6,1,255\n0.000002000,6,1,254\n"
            "0.000003000,5,3,2\n0.000003000,5,4,0\n"
            "10000.000000000,5,2,\n10000.000000000,5,3,\n10000.000000000,5,4,\n"
            "10000.000000000,5,2,0\n"
            "10000.000000000,32769,1,1\n10000.000000000,32769,2,1\n");
  EXPECT_EQ(exported.universes, 4U);
  EXPECT_EQ(exported.lines, 13U);
}

/// The levels of each universe after the lines up to a time.
std::map<int, std::vector<int>> looks_of_lines(const std::string& csv) {
  std::map<int, std::vector<int>> looks;
  std::istringstream lines(csv);
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line)) {
    int universe = 0;
    std::size_t slot = 0;
    int level = -1;
    if (sscanf(line.c_str(), "%*[0-9.],%d,%zu,%d", &universe, &slot, &level) < 2) ADD_FAILURE() << line;
    std::vector<int>& look = looks[universe];
    look.resize(std::max(look.size(), slot), -1);
    look[slot - 1] = level;
  }
  for (auto& [universe, look] : looks) look.erase(std::find(look.begin(), look.end(), -1), look.end());
  return looks;
}

TEST(Csv, TellsEveryLookByItsChanges) {
  const unit::Directory directory;
  recordings::Chance chance(3);
  cue::Looks looks;
  std::vector<recordings::Datagram> datagrams;
  for (int round = 0; round < 300; ++round) {
    std::string slots(chance.below(513), '\0');
    for (char& slot : slots) slot = static_cast<char>(chance.below(2));
    datagrams.emplace_back(dmx(slots, chance.below(3)), chance.pause());
    const std::string& bytes = datagrams.back().first;
    looks.take({recordings::bytes_of(bytes), bytes.size()});
  }
  cue::export_csv_long(directory.write("show.cue", file_of(datagrams)), directory / "out.csv");
  std::map<int, std::vector<int>> expected;
  for (const auto& [port_address, packet] : looks.all())
    expected[port_address + 1].assign(packet.begin() + 18, packet.end());
  EXPECT_EQ(looks_of_lines(directory.content("out.csv")), expected);
}

TEST(Csv, GoesOnBehindDamageWhenItIsPassedOver) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", dmx("a", 4) + recordings::delay(1'000'000'000) +
                                                           dmx("b", 4) + recordings::delay(1) + "rubbish");
  const std::string refused = error_of([&] { cue::export_csv_long(show, directory / "out.csv"); });
  EXPECT_EQ(refused.rfind(show + ": byte ", 0), 0U) << refused;
  EXPECT_EQ(directory.names(), std::vector<std::string>{"show.cue"});
  int damages = 0;
  const auto count = [&damages](const auto&, const auto&) { ++damages; };
  cue::export_csv_long(show, directory / "long.csv", count);
  EXPECT_EQ(directory.content("long.csv"),
            "time_s,universe,slot,level\n0.000000000,5,1,97\n1.000000000,5,1,98\n");
  EXPECT_EQ(damages, 1);
  cue::export_csv(show, std::nullopt, directory / "table.csv", count);
  EXPECT_EQ(directory.content("table.csv"), "time_s,slot1\n0.000000000,97\n1.000000000,98\n");
  EXPECT_EQ(damages, 2);
}

}  // namespace
