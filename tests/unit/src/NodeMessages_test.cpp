#include "src/NodeMessages.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace {

ArtnetNode node(qint32 universe, const char* ip, qint32 port, const char* short_name = "S",
                const char* long_name = "L") {
  return {7,        QString::fromUtf8(short_name), QString::fromUtf8(long_name),
          universe, QString::fromUtf8(ip),         port};
}

std::string utf8(const QString& text) {
  return text.toStdString();
}

TEST(NodeEntries, NameOperationUniverseAddressAndPort) {
  EXPECT_EQ(utf8(appeared_entry(node(5, "10.0.0.9", 6454))), "1:5:10.0.0.9:6454");
  EXPECT_EQ(utf8(vanished_entry(node(5, "10.0.0.9", 6454))), "0:5:10.0.0.9:6454");
}

TEST(NodeEntries, TakeAnyValueAsItIs) {
  EXPECT_EQ(utf8(appeared_entry(node(-1, "", 0))), "1:-1::0");
  EXPECT_EQ(utf8(vanished_entry(
                node(std::numeric_limits<qint32>::min(), "Ü;:\n", std::numeric_limits<qint32>::max()))),
            "0:-2147483648:Ü;:\n:2147483647");
}

TEST(NodeEntries, FillPlaceholdersInOnePass) {
  EXPECT_EQ(utf8(appeared_entry(node(5, "%1%3%n%s", 6454))), "1:5:%1%3%n%s:6454");
  EXPECT_EQ(utf8(vanished_entry(node(5, "%3", 6454))), "0:5:%3:6454");
  EXPECT_EQ(utf8(changed_entry(node(5, "%4%5", 1), node(6, "%1%2", 2))), "0:5:%4%5:1;1:6:%1%2:2");
}

TEST(NodeEntries, OfAListEachEndWithASemicolon) {
  const std::vector<ArtnetNode> nodes{node(2, "10.0.0.2", 6454), node(1, "10.0.0.1", 6455)};
  EXPECT_EQ(utf8(appeared_entries(nodes)), "1:2:10.0.0.2:6454;1:1:10.0.0.1:6455;");
  EXPECT_EQ(utf8(vanished_entries(nodes)), "0:2:10.0.0.2:6454;0:1:10.0.0.1:6455;");
}

TEST(NodeEntries, OfAnEmptyListAreAnEmptyText) {
  EXPECT_EQ(utf8(appeared_entries(std::vector<ArtnetNode>())), "");
  EXPECT_EQ(utf8(vanished_entries(std::vector<ArtnetNode>())), "");
}

TEST(NodeEntries, OfAChangeHaveTheOldStateFirst) {
  EXPECT_EQ(utf8(changed_entry(node(5, "10.0.0.9", 6454), node(6, "10.0.0.9", 6454))),
            "0:5:10.0.0.9:6454;1:6:10.0.0.9:6454");
  EXPECT_EQ(utf8(changed_entry(node(5, "a", 1), node(5, "a", 1))), "0:5:a:1;1:5:a:1");
}

DetectedNode detected(const std::string& short_name, const std::string& long_name, unsigned universe,
                      std::uint8_t ip, std::uint16_t port) {
  ArtPollReply reply{};
  memcpy(reply.short_name, short_name.data(), short_name.size());
  memcpy(reply.long_name, long_name.data(), long_name.size());
  reply.net_switch = static_cast<std::uint8_t>(universe >> 8U);
  reply.sub_switch = static_cast<std::uint8_t>(universe >> 4U & 15U);
  reply.sw_out[0] = static_cast<std::uint8_t>(universe & 15U);
  reply.ip[0] = 10;
  reply.ip[3] = ip;
  reply.port = port;
  return {reply, 0};
}

TEST(NodeEntries, OfDetectedNodesAreTheSame) {
  const DetectedNodes nodes{detected("a", "A", 2, 2, 6454), detected("b", "B", 0x7FFF, 1, 65535)};
  EXPECT_EQ(utf8(appeared_entries(nodes)), "1:2:10.0.0.2:6454;1:32767:10.0.0.1:65535;");
  EXPECT_EQ(utf8(vanished_entries(nodes)), "0:2:10.0.0.2:6454;0:32767:10.0.0.1:65535;");
  EXPECT_EQ(utf8(appeared_entries(DetectedNodes())), "");
}

TEST(NodesJson, OfAnEmptyListIsItsFrame) {
  EXPECT_EQ(utf8(nodes_json({})), "{ \"nodes\":[]}");
}

TEST(NodesJson, ListsTheNodesInOrder) {
  EXPECT_EQ(
      utf8(nodes_json({detected("one", "Node one", 3, 2, 6454)})),
      R"({ "nodes":[{ "short_name": "one", "long_name": "Node one", "universe": 3, "ip": "10.0.0.2", "port": 6454 }]})");
  EXPECT_EQ(
      utf8(nodes_json(
          {detected("x", "X", 3, 2, 2), detected("y", "Y", 65535, 1, 65535), detected("", "", 0, 0, 0)})),
      R"({ "nodes":[{ "short_name": "x", "long_name": "X", "universe": 3, "ip": "10.0.0.2", "port": 2 },)"
      R"({ "short_name": "y", "long_name": "Y", "universe": 65535, "ip": "10.0.0.1", "port": 65535 },)"
      R"({ "short_name": "", "long_name": "", "universe": 0, "ip": "10.0.0.0", "port": 0 }]})");
}

TEST(NodesJson, InsertsNamesAsTheyAre) {
  EXPECT_EQ(utf8(nodes_json({detected("\"%2\\\n}", "%1%4 \xDC}", 1, 3, 2)})),
            "{ \"nodes\":[{ \"short_name\": \"\"%2\\\n}\", \"long_name\": \"%1%4 Ü}\", "
            "\"universe\": 1, \"ip\": \"10.0.0.3\", \"port\": 2 }]}");
}

}  // namespace
