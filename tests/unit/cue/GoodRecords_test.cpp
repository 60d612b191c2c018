#include "cue/GoodRecords.h"

#include <gtest/gtest.h>

#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"

using packets::dmx;
using recordings::delay;
using unit::error_of;

namespace {

const std::string kDmx = dmx("slot");  // 22 bytes

/// The times of all records of a file of these bytes, and the damage on the way.
struct Passed {
  std::vector<std::int64_t> times;
  std::vector<std::string> damages;
};

Passed pass(const std::string& bytes) {
  const unit::Directory directory;
  Passed passed;
  cue::GoodRecords records(directory.write("show.cue", bytes),
                           [&passed](const cue::RecordingReader&, const cue::Damage& damage) {
                             passed.damages.push_back(damage.what);
                           });
  cue::Record record;
  while (records.next(record)) passed.times.push_back(record.time);
  EXPECT_FALSE(records.next(record));
  return passed;
}

TEST(GoodRecords, GivesAllOfAWholeFile) {
  const Passed passed = pass(kDmx + delay(5) + kDmx);
  EXPECT_EQ(passed.times, (std::vector<std::int64_t>{0, 5}));
  EXPECT_TRUE(passed.damages.empty());
}

TEST(GoodRecords, GoesOnInTimeBehindEveryDamage) {
  const Passed passed = pass(kDmx + delay(5) + "broken" + delay(6) + kDmx + "brt-Net" + delay(7).substr(7) +
                             kDmx + delay(8) + kDmx + std::string(9000, '\0'));
  EXPECT_EQ(passed.times, (std::vector<std::int64_t>{0, 11, 18, 26}));
  EXPECT_EQ(passed.damages,
            (std::vector<std::string>{"bytes that belong to no packet", "a damaged delay record",
                                      "zeros where a record should be"}));
}

TEST(GoodRecords, TakesDamageForAnErrorWhenNobodyPassesItOver) {
  const unit::Directory directory;
  const std::string show = directory.write("show.cue", kDmx + delay(5) + "broken" + delay(6) + kDmx);
  cue::GoodRecords records(show, {});
  cue::Record record;
  EXPECT_TRUE(records.next(record));
  EXPECT_EQ(error_of([&] { records.next(record); }), show + ": byte 40: bytes that belong to no packet");
  EXPECT_EQ(records.reader().name(), show);
}

}  // namespace
