#include "src/ControlUniverse.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "unit/src/dmx.h"

namespace {

using Refusal = ControlUniverse::Refusal;
using RecordLevel = ControlUniverse::RecordLevel;

/// Key and subkey of a trigger.
std::optional<std::pair<int, int>> values(const std::optional<Trigger>& trigger) {
  if (!trigger) return std::nullopt;
  return std::make_pair(trigger->key, trigger->subkey);
}

TEST(ControlUniverseSettings, TakeAUniverseFrom1To32768OrNone) {
  ControlUniverse control;
  for (const int universe : {1, 2, 32768, -1}) EXPECT_EQ(control.set_ctrl_universe(universe), Refusal::None);
  for (const int universe : {0, -2, 32769}) EXPECT_EQ(control.set_ctrl_universe(universe), Refusal::Universe);
}

TEST(ControlUniverseSettings, NameTheFirstValueOfAnActionThatIsOutOfRange) {
  struct Row {
    int key_channel, value_channel, step;
    Refusal refusal;
  };
  for (const Row& row : std::vector<Row>{{512, 1, 255, Refusal::None},
                                         {1, 512, 1, Refusal::None},
                                         {-1, -1, -1, Refusal::None},
                                         {513, 0, 256, Refusal::KeyChannel},
                                         {0, 1, 1, Refusal::KeyChannel},
                                         {-2, 1, 1, Refusal::KeyChannel},
                                         {1, 513, 256, Refusal::ValueChannel},
                                         {1, 0, 1, Refusal::ValueChannel},
                                         {1, -2, 1, Refusal::ValueChannel},
                                         {1, 1, 256, Refusal::Step},
                                         {1, 1, 0, Refusal::Step},
                                         {1, 1, -2, Refusal::Step}}) {
    ControlUniverse control;
    EXPECT_EQ(control.set_ctrl_action(row.key_channel, row.value_channel, row.step), row.refusal)
        << row.key_channel << ' ' << row.value_channel << ' ' << row.step;
  }
}

TEST(ControlUniverseSettings, NameTheFirstValueOfTheRecordControlThatIsOutOfRange) {
  struct Row {
    int channel, threshold;
    Refusal refusal;
  };
  for (const Row& row : std::vector<Row>{{1, 1, Refusal::None},
                                         {512, 255, Refusal::None},
                                         {-1, -1, Refusal::None},
                                         {513, 256, Refusal::RecordChannel},
                                         {0, 1, Refusal::RecordChannel},
                                         {-2, 1, Refusal::RecordChannel},
                                         {1, 256, Refusal::Threshold},
                                         {1, 0, Refusal::Threshold},
                                         {1, -2, Refusal::Threshold}}) {
    ControlUniverse control;
    EXPECT_EQ(control.set_ctrl_record(row.channel, row.threshold), row.refusal)
        << row.channel << ' ' << row.threshold;
  }
}

TEST(ControlUniverseSettings, StayAsTheyWereWhenOneValueIsRefused) {
  ControlUniverse control;
  control.set_ctrl_universe(1);
  control.set_ctrl_action(1, 2, 10);
  control.set_ctrl_record(3, 128);
  control.set_ctrl_universe(0);
  control.set_ctrl_action(4, 4, 0);
  control.set_ctrl_record(4, 0);
  const ArtDmx dmx = parsed_dmx(0, {1, 37, 128, 9});
  EXPECT_EQ(values(control.trigger_dmx_idle(dmx)), std::make_pair(1, 3));
  EXPECT_EQ(control.record_level(dmx), RecordLevel::On);
}

TEST(ControlUniverseSettings, HaveAReasonInWordsForEveryRefusal) {
  EXPECT_STREQ(ControlUniverse::reason(Refusal::GrabberNotIdle), "grabber not idle");
  EXPECT_STREQ(ControlUniverse::reason(Refusal::Universe), "out of range");
  EXPECT_STREQ(ControlUniverse::reason(Refusal::KeyChannel), "key channel out of range");
  EXPECT_STREQ(ControlUniverse::reason(Refusal::ValueChannel), "value channel out of range");
  EXPECT_STREQ(ControlUniverse::reason(Refusal::Step), "step out of range");
  EXPECT_STREQ(ControlUniverse::reason(Refusal::RecordChannel), "channel out of range");
  EXPECT_STREQ(ControlUniverse::reason(Refusal::Threshold), "threshold out of range");
}

TEST(ControlUniverseSettings, EnableTheActionOnlyWhenUniverseAndBothChannelsAreSet) {
  for (const int universe : {-1, 1}) {
    for (const int key : {-1, 1}) {
      for (const int value : {-1, 2}) {
        ControlUniverse control;
        control.set_ctrl_universe(universe);
        control.set_ctrl_action(key, value, -1);
        const bool all = universe != -1 && key != -1 && value != -1;
        EXPECT_EQ(control.ctrl_action_enabled(), all);
        EXPECT_EQ(control.trigger_dmx_idle(parsed_dmx(0, {7, 8})).has_value(), all);
      }
    }
  }
}

TEST(ControlUniverseSettings, EnableTheRecordControlOnlyWhenAllThreeAreSet) {
  for (const int universe : {-1, 1}) {
    for (const int channel : {-1, 1}) {
      for (const int threshold : {-1, 1}) {
        ControlUniverse control;
        control.set_ctrl_universe(universe);
        control.set_ctrl_record(channel, threshold);
        const bool all = universe != -1 && channel != -1 && threshold != -1;
        EXPECT_EQ(control.ctrl_record_enabled(), all);
        EXPECT_EQ(control.record_level(parsed_dmx(0, {255})), all ? RecordLevel::On : RecordLevel::Absent);
      }
    }
  }
}

TEST(ControlUniverseTriggers, DivideTheValueOfKeys1And2ByTheStep) {
  struct Row {
    int step, key, value, subkey;
  };
  for (const Row& row : std::vector<Row>{{10, 1, 55, 5},
                                         {10, 2, 59, 5},
                                         {10, 3, 55, 55},
                                         {10, 0, 55, 55},
                                         {255, 1, 254, 0},
                                         {1, 2, 255, 255},
                                         {-1, 1, 55, 55},
                                         {-1, 2, 55, 55}}) {
    ControlUniverse control;
    control.set_ctrl_universe(1);
    control.set_ctrl_action(1, 2, row.step);
    EXPECT_EQ(values(control.trigger_dmx_idle(parsed_dmx(0, {row.key, row.value}))),
              std::make_pair(row.key, row.subkey))
        << row.step << ' ' << row.key;
  }
}

TEST(ControlUniverseTriggers, NeedThePacketOfTheirUniverseWithBothChannels) {
  ControlUniverse control;
  control.set_ctrl_universe(2);
  control.set_ctrl_action(3, 1, -1);
  EXPECT_EQ(values(control.trigger_dmx_idle(parsed_dmx(1, {4, 5, 6}))), std::make_pair(6, 4));
  EXPECT_FALSE(control.trigger_dmx_idle(parsed_dmx(0, {4, 5, 6})));
  EXPECT_FALSE(control.trigger_dmx_idle(parsed_dmx(1 | 0x8000, {4, 5, 6})));
  EXPECT_FALSE(control.trigger_dmx_idle(parsed_dmx(1, {4, 5})));
  EXPECT_FALSE(control.trigger_dmx_idle(parsed_dmx(1, {})));
  control.set_ctrl_action(1, 3, -1);
  EXPECT_FALSE(control.trigger_dmx_idle(parsed_dmx(1, {4, 5})));
}

TEST(ControlUniverseRecordChannel, IsOnFromItsThresholdAndOffBelow) {
  ControlUniverse control;
  control.set_ctrl_universe(1);
  control.set_ctrl_record(2, 128);
  EXPECT_EQ(control.record_level(parsed_dmx(0, {255, 127})), RecordLevel::Off);
  EXPECT_EQ(control.record_level(parsed_dmx(0, {0, 128})), RecordLevel::On);
  EXPECT_EQ(control.record_level(parsed_dmx(0, {0, 255})), RecordLevel::On);
}

TEST(ControlUniverseRecordChannel, IsAbsentFromOtherUniversesAndShorterPackets) {
  ControlUniverse control;
  control.set_ctrl_universe(1);
  control.set_ctrl_record(2, 1);
  EXPECT_EQ(control.record_level(parsed_dmx(1, {255, 255})), RecordLevel::Absent);
  EXPECT_EQ(control.record_level(parsed_dmx(0, {255})), RecordLevel::Absent);
}

}  // namespace
