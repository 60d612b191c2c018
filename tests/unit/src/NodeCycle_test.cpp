#include "src/NodeCycle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "unit/src/replies.h"

namespace {

using Intake = NodeCycle::Intake;

DetectedNode node(int universe, std::uint8_t ip, const std::string& name = "node") {
  return {replies::of(ip, {universe}, name), 0};
}

DetectedNode forged(std::uint32_t number) {
  return {replies::forged(number), 0};
}

/// "universe ip name" of each node.
std::vector<std::string> texts(const DetectedNodes& nodes) {
  std::vector<std::string> result;
  for (const DetectedNode& each : nodes) {
    const ArtnetNode record = each.record();
    result.push_back(std::to_string(record.universe) + ' ' + record.ip.toStdString() + ' ' +
                     record.short_name.toStdString());
  }
  return result;
}

using Texts = std::vector<std::string>;

/// The message of a cycle, or "-" for none.
std::string message_of(const NodeCycle::Result& result) {
  return result.message ? result.message->toStdString() : "-";
}

/// A whole cycle in which these nodes answer. @return its message
std::string run(NodeCycle& cycle, const DetectedNodes& nodes) {
  cycle.begin();
  for (const DetectedNode& each : nodes) cycle.take_in(each);
  const NodeCycle::Result result = cycle.evaluate();
  cycle.conclude(result);
  return message_of(result);
}

void take_in_forged(NodeCycle& cycle, std::uint32_t first, std::uint32_t end) {
  for (std::uint32_t number = first; number < end; ++number) {
    ASSERT_NE(cycle.take_in(forged(number)), Intake::Duplicate) << number;
  }
}

constexpr std::uint32_t kLimit = NodeCycle::kLimit;

TEST(NodeCycle, KnowsNoNodeAtFirst) {
  const NodeCycle cycle;
  EXPECT_EQ(texts(*cycle.detected_nodes()), Texts{});
  EXPECT_FALSE(cycle.nodes_changed());
}

TEST(NodeCycle, WithoutAnAnswerAndWithoutKnownNodesHasNoMessage) {
  NodeCycle cycle;
  EXPECT_EQ(run(cycle, {}), "-");
  EXPECT_EQ(texts(*cycle.detected_nodes()), Texts{});
}

TEST(NodeCycle, TellsNewNodesInOrderOfArrivalAndListsThemSorted) {
  NodeCycle cycle;
  EXPECT_EQ(run(cycle, {node(7, 2), node(1, 20), node(1, 100)}),
            "1:7:10.0.0.2:6454;1:1:10.0.0.20:6454;1:1:10.0.0.100:6454;");
  EXPECT_EQ(texts(*cycle.detected_nodes()),
            (Texts{"1 10.0.0.100 node", "1 10.0.0.20 node", "7 10.0.0.2 node"}));
}

TEST(NodeCycle, SaysNothingWhenTheSameNodesAnswerAgainInAnyOrder) {
  NodeCycle cycle;
  run(cycle, {node(1, 1), node(2, 2), node(3, 3)});
  const Texts before = texts(*cycle.detected_nodes());
  EXPECT_EQ(run(cycle, {node(3, 3), node(1, 1), node(2, 2)}), "-");
  EXPECT_EQ(texts(*cycle.detected_nodes()), before);
}

TEST(NodeCycle, TellsMissingNodesInOrderOfTheListAfterTheNewOnes) {
  NodeCycle cycle;
  run(cycle, {node(9, 1), node(3, 3), node(2, 2), node(1, 1)});
  EXPECT_EQ(run(cycle, {node(8, 8), node(3, 3), node(4, 4)}),
            "1:8:10.0.0.8:6454;1:4:10.0.0.4:6454;0:1:10.0.0.1:6454;0:2:10.0.0.2:6454;0:9:10.0.0.1:6454;");
  EXPECT_EQ(texts(*cycle.detected_nodes()), (Texts{"3 10.0.0.3 node", "4 10.0.0.4 node", "8 10.0.0.8 node"}));
}

TEST(NodeCycle, TellsThatEveryNodeHasGoneAndIsEmptyThen) {
  NodeCycle cycle;
  run(cycle, {node(2, 2), node(1, 1)});
  EXPECT_EQ(run(cycle, {}), "0:1:10.0.0.1:6454;0:2:10.0.0.2:6454;");
  EXPECT_EQ(texts(*cycle.detected_nodes()), Texts{});
  EXPECT_EQ(run(cycle, {}), "-");
}

TEST(NodeCycle, TakesARenamedNodeForANewOneAndAMissingOne) {
  NodeCycle cycle;
  run(cycle, {node(5, 9, "old")});
  EXPECT_EQ(run(cycle, {node(5, 9, "new")}), "1:5:10.0.0.9:6454;0:5:10.0.0.9:6454;");
  EXPECT_EQ(texts(*cycle.detected_nodes()), Texts{"5 10.0.0.9 new"});
}

TEST(NodeCycle, SaysOfEveryAnswerWhatItWas) {
  NodeCycle cycle;
  run(cycle, {node(1, 1), node(2, 2)});
  cycle.begin();
  EXPECT_EQ(cycle.take_in(node(2, 2)), Intake::SeenAgain);
  EXPECT_EQ(cycle.take_in(node(3, 3)), Intake::New);
  EXPECT_EQ(cycle.take_in(node(2, 2)), Intake::Duplicate);
  EXPECT_EQ(cycle.take_in(node(3, 3)), Intake::Duplicate);
  EXPECT_EQ(cycle.take_in(node(1, 1)), Intake::SeenAgain);
  EXPECT_EQ(cycle.take_in(node(1, 1)), Intake::Duplicate);
}

TEST(NodeCycle, HoldsEachNodeInOneListDuringTheCycle) {
  NodeCycle cycle;
  run(cycle, {node(1, 1), node(2, 2), node(3, 3)});
  cycle.begin();
  EXPECT_EQ(texts(cycle.poll_missing_nodes()),
            (Texts{"1 10.0.0.1 node", "2 10.0.0.2 node", "3 10.0.0.3 node"}));
  EXPECT_FALSE(cycle.nodes_changed());
  cycle.take_in(node(2, 2));
  EXPECT_FALSE(cycle.nodes_changed());
  cycle.take_in(node(9, 9));
  cycle.take_in(node(8, 8));
  EXPECT_TRUE(cycle.nodes_changed());
  EXPECT_EQ(texts(cycle.poll_missing_nodes()), (Texts{"1 10.0.0.1 node", "3 10.0.0.3 node"}));
  EXPECT_EQ(texts(cycle.poll_seen_nodes()), Texts{"2 10.0.0.2 node"});
  EXPECT_EQ(texts(cycle.poll_new_nodes()), (Texts{"9 10.0.0.9 node", "8 10.0.0.8 node"}));
}

TEST(NodeCycle, ThatIsNotConcludedLeavesTheListAsItWas) {
  NodeCycle cycle;
  run(cycle, {node(1, 1), node(2, 2)});
  cycle.begin();
  cycle.take_in(node(3, 3));
  EXPECT_EQ(message_of(cycle.evaluate()), "1:3:10.0.0.3:6454;0:1:10.0.0.1:6454;0:2:10.0.0.2:6454;");
  EXPECT_EQ(texts(*cycle.detected_nodes()), (Texts{"1 10.0.0.1 node", "2 10.0.0.2 node"}));
  EXPECT_EQ(run(cycle, {node(1, 1)}), "0:2:10.0.0.2:6454;");
}

TEST(NodeCycle, ForgetsAnswersThatComeBeforeItBegins) {
  NodeCycle cycle;
  run(cycle, {node(1, 1)});
  EXPECT_EQ(cycle.take_in(node(1, 1)), Intake::New);
  EXPECT_EQ(cycle.take_in(node(2, 2)), Intake::New);
  EXPECT_EQ(cycle.take_in(node(2, 2)), Intake::Duplicate);
  EXPECT_EQ(run(cycle, {node(1, 1)}), "-");
}

TEST(NodeCycle, ForgetsEveryNodeWithAMessageInOrderOfTheList) {
  NodeCycle cycle;
  run(cycle, {node(2, 2), node(1, 1)});
  cycle.begin();
  cycle.take_in(node(1, 1));
  cycle.take_in(node(3, 3));
  EXPECT_EQ(cycle.forget().toStdString(), "0:1:10.0.0.1:6454;0:2:10.0.0.2:6454;");
  EXPECT_EQ(texts(*cycle.detected_nodes()), Texts{});
  EXPECT_EQ(texts(cycle.poll_new_nodes()), Texts{});
  EXPECT_EQ(texts(cycle.poll_seen_nodes()), Texts{});
  EXPECT_EQ(texts(cycle.poll_missing_nodes()), Texts{});
  EXPECT_FALSE(cycle.nodes_changed());
  EXPECT_EQ(cycle.forget().toStdString(), "");
}

TEST(NodeCycle, ListThatAReaderHoldsStaysAsItIs) {
  NodeCycle cycle;
  run(cycle, {node(1, 1)});
  const auto held = cycle.detected_nodes();
  run(cycle, {node(2, 2)});
  cycle.forget();
  EXPECT_EQ(texts(*held), Texts{"1 10.0.0.1 node"});
}

TEST(NodeCycle, TakesInNoMoreNewNodesThanItsLimitAndSaysSoOnce) {
  NodeCycle cycle;
  cycle.begin();
  for (std::uint32_t number = 0; number < kLimit; ++number)
    ASSERT_EQ(cycle.take_in(forged(number)), Intake::New) << number;
  EXPECT_EQ(cycle.take_in(forged(kLimit)), Intake::FirstOverLimit);
  EXPECT_EQ(cycle.take_in(forged(kLimit + 1)), Intake::OverLimit);
  EXPECT_EQ(cycle.take_in(forged(kLimit)), Intake::OverLimit);
  EXPECT_EQ(cycle.take_in(forged(0)), Intake::Duplicate);
  EXPECT_EQ(cycle.poll_new_nodes().size(), kLimit);
}

TEST(NodeCycle, CountsTheNodesOfTheCycleBeforeIntoItsLimit) {
  NodeCycle cycle;
  run(cycle, {node(1, 1), node(2, 2), node(3, 3)});
  cycle.begin();
  EXPECT_EQ(cycle.take_in(node(1, 1)), Intake::SeenAgain);
  take_in_forged(cycle, 0, kLimit + 100);
  EXPECT_EQ(cycle.poll_new_nodes().size(), kLimit - 3);
  EXPECT_EQ(cycle.take_in(node(4, 4)), Intake::OverLimit);
  EXPECT_EQ(cycle.take_in(node(2, 2)), Intake::SeenAgain) << "a known node needs no room";
  cycle.conclude(cycle.evaluate());
  EXPECT_EQ(cycle.detected_nodes()->size(), kLimit - 1);
}

TEST(NodeCycle, SaysOnceInEachCycleThatItsLimitIsReached) {
  NodeCycle cycle;
  cycle.begin();
  take_in_forged(cycle, 0, kLimit + 2);
  cycle.conclude(cycle.evaluate());
  cycle.begin();
  EXPECT_EQ(cycle.take_in(node(4, 4)), Intake::FirstOverLimit);
  EXPECT_EQ(cycle.take_in(node(4, 4)), Intake::OverLimit);
  cycle.conclude(cycle.evaluate());
  cycle.begin();
  EXPECT_EQ(cycle.take_in(node(4, 4)), Intake::New) << "the forged nodes have gone";
}

/// "Aa" and "BB" have one value in every hash that multiplies by 31.
TEST(NodeCycle, ServesAsManyNodesAsItsLimitWhoseNamesCollideInAHash) {
  DetectedNodes nodes;
  for (std::uint32_t number = 0; number < kLimit; ++number) {
    ArtPollReply reply = replies::of(1, {1});
    for (unsigned bit = 0; bit < 15; ++bit)
      memcpy(&reply.long_name[2 * bit], (number >> bit & 1U) != 0 ? "BB" : "Aa", 2);
    nodes.emplace_back(reply, 0);
  }
  NodeCycle cycle;
  run(cycle, nodes);
  std::reverse(nodes.begin(), nodes.end());
  EXPECT_EQ(run(cycle, nodes), "-");
  EXPECT_EQ(cycle.detected_nodes()->size(), kLimit);
}

}  // namespace
