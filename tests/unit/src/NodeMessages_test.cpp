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
  EXPECT_EQ(utf8(appeared_entries({})), "");
  EXPECT_EQ(utf8(vanished_entries({})), "");
}

TEST(NodeEntries, OfAChangeHaveTheOldStateFirst) {
  EXPECT_EQ(utf8(changed_entry(node(5, "10.0.0.9", 6454), node(6, "10.0.0.9", 6454))),
            "0:5:10.0.0.9:6454;1:6:10.0.0.9:6454");
  EXPECT_EQ(utf8(changed_entry(node(5, "a", 1), node(5, "a", 1))), "0:5:a:1;1:5:a:1");
}

TEST(NodesJson, OfAnEmptyListIsItsFrame) {
  EXPECT_EQ(utf8(nodes_json({})), "{ \"nodes\":[]}");
}

TEST(NodesJson, ListsTheNodesInOrder) {
  EXPECT_EQ(
      utf8(nodes_json({node(3, "10.0.0.2", 6454, "one", "Node one")})),
      R"({ "nodes":[{ "short_name": "one", "long_name": "Node one", "universe": 3, "ip": "10.0.0.2", "port": 6454 }]})");
  EXPECT_EQ(
      utf8(nodes_json({node(3, "b", 2, "x", "X"), node(-1, "a", -2, "y", "Y"), node(0, "c", 0, "", "")})),
      R"({ "nodes":[{ "short_name": "x", "long_name": "X", "universe": 3, "ip": "b", "port": 2 },)"
      R"({ "short_name": "y", "long_name": "Y", "universe": -1, "ip": "a", "port": -2 },)"
      R"({ "short_name": "", "long_name": "", "universe": 0, "ip": "c", "port": 0 }]})");
}

TEST(NodesJson, InsertsNamesAsTheyAre) {
  EXPECT_EQ(utf8(nodes_json({node(1, "%5", 2, "\"%2\\\n", "%1%4 Ü \xF0\x9F\x8E\xAC")})),
            "{ \"nodes\":[{ \"short_name\": \"\"%2\\\n\", \"long_name\": \"%1%4 Ü \xF0\x9F\x8E\xAC\", "
            "\"universe\": 1, \"ip\": \"%5\", \"port\": 2 }]}");
}

TEST(AcceptedPort, OutputsDmx512OrArtNet) {
  for (int index = 0; index < 4; ++index) {
    for (unsigned type = 0; type < 256; ++type) {
      ArtPollReply reply{};
      reply.port_types[index] = static_cast<std::uint8_t>(type);
      const bool expected = type == 0x80 || type == 0x85 || type == 0xC0 || type == 0xC5;
      EXPECT_EQ(is_accepted_port(reply, index), expected) << type;
    }
  }
}

ArtPollReply reply_with_names(const char* short_name, const char* long_name) {
  ArtPollReply reply{};
  const std::uint8_t ip[4] = {10, 0, 255, 21};
  memcpy(reply.ip, ip, sizeof ip);
  reply.port = 6454;
  strncpy(reply.short_name, short_name, sizeof reply.short_name - 1);
  strncpy(reply.long_name, long_name, sizeof reply.long_name - 1);
  return reply;
}

std::string fields(const ArtnetNode& n) {
  return std::to_string(n.id) + '|' + utf8(n.short_name) + '|' + utf8(n.long_name) + '|' +
         std::to_string(n.universe) + '|' + utf8(n.ip) + '|' + std::to_string(n.port);
}

TEST(NodeOfReply, TakesNamesAddressAndPort) {
  EXPECT_EQ(fields(node_of_reply(reply_with_names("short", "long name"), 0)),
            "-1|short|long name|0|10.0.255.21|6454");
}

TEST(NodeOfReply, ReadsNamesAsLatin1) {
  EXPECT_EQ(fields(node_of_reply(reply_with_names("\xDC"
                                                  "bung",
                                                  "\xFF%1\""),
                                 0)),
            "-1|Übung|ÿ%1\"|0|10.0.255.21|6454");
}

TEST(NodeOfReply, TakesTheWholePortNumber) {
  ArtPollReply reply = reply_with_names("", "");
  reply.port = 65535;
  EXPECT_EQ(fields(node_of_reply(reply, 0)), "-1|||0|10.0.255.21|65535");
}

TEST(NodeOfReply, ComposesTheUniverseFromTheSwitches) {
  ArtPollReply reply = reply_with_names("", "");
  reply.net_switch = 1;
  reply.sub_switch = 2;
  const std::uint8_t outputs[4] = {0x13, 0x00, 0xFF, 0x0A};
  memcpy(reply.sw_out, outputs, sizeof outputs);
  EXPECT_EQ(node_of_reply(reply, 0).universe, 0x123);
  EXPECT_EQ(node_of_reply(reply, 1).universe, 0x120);
  EXPECT_EQ(node_of_reply(reply, 2).universe, 0x12F);
  EXPECT_EQ(node_of_reply(reply, 3).universe, 0x12A);
  reply.net_switch = 0xFF;
  reply.sub_switch = 0xFF;
  EXPECT_EQ(node_of_reply(reply, 2).universe, 0xFFFF);
  reply.net_switch = 0;
  reply.sub_switch = 0x10;
  EXPECT_EQ(node_of_reply(reply, 1).universe, 0);
}

}  // namespace
