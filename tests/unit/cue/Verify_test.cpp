#include "cue/Verify.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "unit/cue/directory.h"
#include "unit/cue/recordings.h"

using packets::dmx;
using recordings::delay;
using recordings::file_of;

namespace {

const std::string kDmx = dmx("slot");  // 22 bytes

/// Verifies files in a directory of its own.
class Verify : public testing::Test {
protected:
  /// Repairs a file of these bytes into out.cue.
  cue::Verified repair(const std::string& bytes) {
    options.repaired = cue::Output(directory / "out.cue");
    options.repaired->replace = true;
    return verify(bytes);
  }

  cue::Verified verify(const std::string& bytes) {
    return cue::verify(directory.write("show.cue", bytes), options,
                       {[this](const std::string& line) { good += without_directory(line); },
                        [this](const std::string& line) { damage += without_directory(line); }});
  }

  std::string repaired() const { return directory.content("out.cue"); }

  unit::Directory directory;
  cue::VerifyOptions options;
  std::string good;    // lines
  std::string damage;  // lines

private:
  std::string without_directory(std::string line) const {
    const std::string front = directory.path() + "/";
    for (std::size_t at = line.find(front); at != std::string::npos; at = line.find(front))
      line.erase(at, front.size());
    return line + "\n";
  }
};

TEST_F(Verify, CopiesAWholeFileAndTakesItsDatagramsApart) {
  const std::string file = file_of({{kDmx, 0}, {kDmx + kDmx, 5}});
  const cue::Verified verified = repair(file);
  EXPECT_TRUE(verified.whole);
  EXPECT_TRUE(verified.repaired);
  EXPECT_EQ(repaired(), file_of({{kDmx, 0}, {kDmx, 5}, {kDmx, 0}}));
  EXPECT_EQ(damage, "");
  EXPECT_EQ(good,
            "show.cue: whole, 2 datagrams, 0.000 s\n"
            "show.cue: 1 datagram with more than one ArtDmx packet, the first at byte 40\n"
            "out.cue: 3 datagrams, 0.000 s\n");
}

TEST_F(Verify, DoesNotRepairUnasked) {
  const cue::Verified verified = verify(kDmx + delay(5));
  EXPECT_FALSE(verified.whole);
  EXPECT_FALSE(verified.repaired);
}

TEST_F(Verify, WritesWhatIsGoodAndTellsWhatIsLost) {
  const auto frame = [](unsigned universe, unsigned sequence) {
    return dmx(std::string(512, 'x'), universe, sequence);
  };
  const std::string before = file_of({{frame(0, 254), 0}, {frame(1, 7), 5}, {frame(2, 0), 5}});
  const std::string after = file_of({{frame(0, 3), 0}, {frame(1, 8), 5}, {frame(2, 0), 5}});
  const cue::Verified verified =
      repair(before + delay(1) + std::string(4096, '\0') + delay(6) + after + delay(8) + "Art-N");
  EXPECT_FALSE(verified.whole);
  EXPECT_TRUE(verified.repaired);
  EXPECT_EQ(repaired(), before + delay(7) + after);
  EXPECT_EQ(
      damage,
      "show.cue: byte 1644: zeros where a record should be; good are the first 1626 bytes, 3 datagrams, "
      "0.000 s\n"
      "show.cue: byte 7402: cut off within a datagram\n"
      "show.cue: 2 damaged places, good in all: 6 datagrams\n"
      "show.cue: lost: 4101 bytes, the size of about 7 datagrams\n"
      "show.cue: lost by sequence number: 3 datagrams of universe 1\n");
  EXPECT_EQ(good, "out.cue: repaired, 6 datagrams, 0.000 s\n");
}

TEST_F(Verify, NamesTheFirstTenDamagedPlacesAndCountsTheOthers) {
  std::string file = kDmx;
  for (int n = 0; n < 12; ++n) file += "x" + delay(5) + kDmx;
  verify(file);
  EXPECT_EQ(std::count(damage.begin(), damage.end(), '\n'), 13);
  EXPECT_NE(
      damage.find(
          "show.cue: and 2 damaged places more\nshow.cue: 12 damaged places, good in all: 13 datagrams"),
      std::string::npos)
      << damage;
}

TEST_F(Verify, NamesTheFirstTenDatagramsThatAreMoreThanOnePacket) {
  options.strict = true;
  verify(file_of(std::vector<recordings::Datagram>(11, {kDmx + kDmx, 5})));
  EXPECT_EQ(std::count(damage.begin(), damage.end(), '\n'), 11);
  EXPECT_NE(damage.find("show.cue: and 1 datagram more with more than one ArtDmx packet\n"),
            std::string::npos)
      << damage;
}

TEST_F(Verify, SaysNoMoreOfAFileThatIsCutOff) {
  verify(kDmx + delay(5) + kDmx.substr(0, 20));
  EXPECT_EQ(
      damage,
      "show.cue: byte 40: cut off within a datagram; good are the first 22 bytes, 1 datagram, 0.000 s\n");
  damage.clear();
  repair(kDmx + delay(5) + kDmx.substr(0, 15));
  EXPECT_NE(damage.find("show.cue: lost: 15 bytes, less than a datagram\n"), std::string::npos) << damage;
}

TEST_F(Verify, CountsNoSequenceNumbersThatTookNoBytes) {
  repair(kDmx + delay(5) + "broken" + delay(5) + dmx("slot", 1, 9) + delay(1) + dmx("slot", 1, 200) +
         delay(1) + "broken" + delay(1) + dmx("slot", 1, 20));
  EXPECT_EQ(damage.find("by sequence number"), std::string::npos) << damage;
}

TEST_F(Verify, RestoresADamagedDelayRecord) {
  const std::string file = file_of({{kDmx, 0}, {kDmx, 5}, {kDmx, 6}});
  for (const std::size_t at : {22U, 29U, 30U, 31U}) {
    std::string damaged = file;
    damaged[at] = static_cast<char>(damaged[at] ^ 4);
    damage.clear();
    EXPECT_TRUE(repair(damaged).repaired);
    EXPECT_EQ(repaired(), file);
    EXPECT_EQ(damage,
              "show.cue: byte 22: a damaged delay record; good are the first 22 bytes, 1 datagram, 0.000 s\n"
              "show.cue: 1 damaged place, good in all: 3 datagrams\n"
              "show.cue: nothing is lost but pauses\n");
  }
}

TEST_F(Verify, KeepsTheDatagramAfterAPauseWithAFlippedSign) {
  const std::string file = file_of({{kDmx, 0}, {kDmx, 5}, {kDmx, 6}});
  std::string damaged = file;
  damaged[39] = '\x80';
  EXPECT_TRUE(repair(damaged).repaired);
  EXPECT_EQ(repaired(), file);
}

TEST_F(Verify, KeepsTheLastDatagramBeforeZeros) {
  const std::string file = file_of({{kDmx, 0}, {kDmx, 5}});
  EXPECT_TRUE(repair(file + std::string(8192, '\0')).repaired);
  EXPECT_EQ(repaired(), file);
}

TEST_F(Verify, LeavesABrokenDatagramOutAndKeepsTheTime) {
  std::string broken = kDmx;
  broken[8] = 'x';
  repair(kDmx + delay(5) + broken + delay(6) + kDmx);
  EXPECT_EQ(repaired(), kDmx + delay(11) + kDmx);
}

TEST_F(Verify, LeavesADelayRecordAtTheBeginningOut) {
  repair(delay(5) + kDmx + delay(6) + kDmx);
  EXPECT_EQ(repaired(), kDmx + delay(6) + kDmx);
}

TEST_F(Verify, TellsOfDatagramsToTakeApartWhenOneArtDmxIsWanted) {
  options.strict = true;
  const cue::Verified verified =
      repair(file_of({{kDmx, 0}, {kDmx + dmx("more") + packets::poll(), 5}, {kDmx, 6}}));
  EXPECT_FALSE(verified.whole);
  EXPECT_TRUE(verified.repaired);
  EXPECT_EQ(repaired(), file_of({{kDmx, 0}, {kDmx, 5}, {dmx("more"), 0}, {kDmx, 6}}));
  EXPECT_EQ(damage, "show.cue: byte 40: the datagram is more than one ArtDmx packet\n");
  EXPECT_TRUE(verify(repaired()).whole);
}

TEST_F(Verify, WritesNothingWhenNothingIsGood) {
  const cue::Verified verified = repair("no recording");
  EXPECT_FALSE(verified.whole);
  EXPECT_FALSE(verified.repaired);
  EXPECT_EQ(directory.names(), std::vector<std::string>{"show.cue"});
  EXPECT_EQ(
      damage,
      "show.cue: byte 0: bytes that belong to no packet; good are the first 0 bytes, 0 datagrams, 0.000 s\n"
      "show.cue: nothing good in it; out.cue is not written\n");
}

TEST_F(Verify, ShowsEveryDatagramThatItReads) {
  std::vector<std::size_t> sizes;
  options.on_record = [&sizes](const cue::Record& record) { sizes.push_back(record.size); };
  verify(kDmx + delay(5) + "broken" + delay(5) + dmx("a"));
  EXPECT_EQ(sizes, (std::vector<std::size_t>{22, 19}));
}

TEST_F(Verify, RepairsWhateverIsDamagedIntoAFileThatIsWhole) {
  recordings::Chance chance(12);
  for (int i = 0; i < 40; ++i) {
    std::vector<recordings::Datagram> sent;
    for (int n = 0; n < 20; ++n) sent.emplace_back(chance.dmx(), chance.pause());
    std::string damaged = file_of(sent);
    for (unsigned burst = 1 + chance.below(3); burst > 0; --burst) {
      const std::size_t at = chance.below(static_cast<unsigned>(damaged.size()));
      const std::size_t size = std::min<std::size_t>(1 + chance.below(3000), damaged.size() - at);
      damaged.replace(at, size, std::string(size, static_cast<char>(chance.below(3))));
    }
    unit::Directory here;
    options.strict = false;
    options.repaired = cue::Output(here / "out.cue");
    if (!verify(damaged).repaired) continue;
    options.repaired.reset();
    options.strict = true;
    damage.clear();
    ASSERT_TRUE(verify(here.content("out.cue")).whole) << damage;
  }
}

}  // namespace
