#include "src/ManualNodes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

ArtnetNode node(qint32 id, qint32 universe, const char* ip = "10.0.0.9", const char* name = "S") {
  return {id, QString::fromUtf8(name), QStringLiteral("L"), universe, QString::fromUtf8(ip), 6454};
}

/// The message, or "-" for a refusal.
std::string text(const std::optional<QString>& message) {
  return message ? message->toStdString() : "-";
}

using Texts = std::vector<std::string>;

/// "id universe ip name" of each node in the list.
Texts list(const ManualNodes& nodes) {
  Texts result;
  for (const ArtnetNode& each : nodes.nodes()) {
    result.push_back(std::to_string(each.id) + ' ' + std::to_string(each.universe) + ' ' +
                     each.ip.toStdString() + ' ' + each.short_name.toStdString());
  }
  return result;
}

TEST(ManualNodes, AreAddedAtTheEnd) {
  ManualNodes nodes;
  EXPECT_EQ(text(nodes.add(node(3, 5))), "1:5:10.0.0.9:6454");
  EXPECT_EQ(text(nodes.add(node(0, -1, ""))), "1:-1::6454");
  EXPECT_EQ(list(nodes), (Texts{"3 5 10.0.0.9 S", "0 -1  S"}));
}

TEST(ManualNodes, RefuseANegativeKeyAndOneThatIsTaken) {
  ManualNodes nodes;
  nodes.add(node(3, 5));
  EXPECT_EQ(text(nodes.add(node(-1, 6))), "-");
  EXPECT_EQ(text(nodes.add(node(3, 6))), "-");
  EXPECT_EQ(list(nodes), Texts{"3 5 10.0.0.9 S"});
}

TEST(ManualNodes, AreUpdatedInTheirPlace) {
  ManualNodes nodes;
  nodes.add(node(1, 1));
  nodes.add(node(2, 5));
  nodes.add(node(3, 3));
  EXPECT_EQ(text(nodes.update(node(2, 6, "%1", "new"))), "0:5:10.0.0.9:6454;1:6:%1:6454");
  EXPECT_EQ(list(nodes), (Texts{"1 1 10.0.0.9 S", "2 6 %1 new", "3 3 10.0.0.9 S"}));
}

TEST(ManualNodes, TellOfAnUpdateThatChangesNothing) {
  ManualNodes nodes;
  nodes.add(node(2, 5));
  EXPECT_EQ(text(nodes.update(node(2, 5))), "0:5:10.0.0.9:6454;1:5:10.0.0.9:6454");
}

TEST(ManualNodes, RefuseToUpdateOrRemoveAKeyThatIsNotThere) {
  ManualNodes nodes;
  nodes.add(node(2, 5));
  for (const qint32 id : {-1, 0, 1, 3}) {
    EXPECT_EQ(text(nodes.update(node(id, 6))), "-") << id;
    EXPECT_EQ(text(nodes.remove(id)), "-") << id;
  }
  EXPECT_EQ(list(nodes), Texts{"2 5 10.0.0.9 S"});
}

TEST(ManualNodes, AreRemovedByKeyAndTheOthersKeepTheirOrder) {
  ManualNodes nodes;
  nodes.add(node(1, 1));
  nodes.add(node(0, 2));
  nodes.add(node(2, 3));
  EXPECT_EQ(text(nodes.remove(0)), "0:2:10.0.0.9:6454");
  EXPECT_EQ(list(nodes), (Texts{"1 1 10.0.0.9 S", "2 3 10.0.0.9 S"}));
}

TEST(ManualNodes, AreInitialisedInTheOrderGivenWhenThereAreNone) {
  ManualNodes nodes;
  EXPECT_EQ(text(nodes.init({node(2, 5), node(1, 6)})), "1:5:10.0.0.9:6454;1:6:10.0.0.9:6454;");
  EXPECT_EQ(text(nodes.init({node(3, 7)})), "-");
  EXPECT_EQ(text(nodes.init({})), "-");
  EXPECT_EQ(list(nodes), (Texts{"2 5 10.0.0.9 S", "1 6 10.0.0.9 S"}));
}

TEST(ManualNodes, AreInitialisedWithNothingAsOftenAsAsked) {
  ManualNodes nodes;
  EXPECT_EQ(text(nodes.init({})), "");
  EXPECT_EQ(text(nodes.init({})), "");
}

TEST(ManualNodes, RefuseAListWithANegativeKeyAsAWhole) {
  ManualNodes nodes;
  EXPECT_EQ(text(nodes.init({node(1, 1), node(-1, 2)})), "-");
  EXPECT_EQ(list(nodes), Texts{});
}

TEST(ManualNodes, ThatShareAKeyAreFoundOneAfterTheOther) {
  ManualNodes nodes;
  nodes.init({node(4, 1), node(4, 2)});
  EXPECT_EQ(text(nodes.update(node(4, 3))), "0:1:10.0.0.9:6454;1:3:10.0.0.9:6454");
  EXPECT_EQ(text(nodes.remove(4)), "0:3:10.0.0.9:6454");
  EXPECT_EQ(text(nodes.remove(4)), "0:2:10.0.0.9:6454");
  EXPECT_EQ(list(nodes), Texts{});
}

TEST(ManualNodes, AreAllRemovedWithAMessageEvenIfThereIsNone) {
  ManualNodes nodes;
  nodes.init({node(2, 5), node(1, 6)});
  EXPECT_EQ(text(nodes.remove_all()), "0:5:10.0.0.9:6454;0:6:10.0.0.9:6454;");
  EXPECT_EQ(text(nodes.remove_all()), "");
  EXPECT_EQ(text(nodes.init({node(1, 1)})), "1:1:10.0.0.9:6454;");
}

}  // namespace
