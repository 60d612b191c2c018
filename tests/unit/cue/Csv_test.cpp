#include "cue/Csv.h"

#include <gtest/gtest.h>

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

}  // namespace
