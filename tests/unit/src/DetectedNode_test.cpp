#include "src/DetectedNode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

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

ArtnetNode record_of(const ArtPollReply& reply, int index) {
  return DetectedNode(reply, index).record();
}

std::string fields(const ArtnetNode& n) {
  return std::to_string(n.id) + '|' + n.short_name.toStdString() + '|' + n.long_name.toStdString() + '|' +
         std::to_string(n.universe) + '|' + n.ip.toStdString() + '|' + std::to_string(n.port);
}

TEST(DetectedNode, TakesNamesAddressAndPort) {
  EXPECT_EQ(fields(record_of(reply_with_names("short", "long name"), 0)),
            "-1|short|long name|0|10.0.255.21|6454");
}

TEST(DetectedNode, ReadsNamesAsLatin1) {
  EXPECT_EQ(fields(record_of(reply_with_names("\xDC"
                                              "bung",
                                              "\xFF%1\""),
                             0)),
            "-1|Übung|ÿ%1\"|0|10.0.255.21|6454");
}

TEST(DetectedNode, TakesTheWholePortNumber) {
  ArtPollReply reply = reply_with_names("", "");
  reply.port = 65535;
  EXPECT_EQ(fields(record_of(reply, 0)), "-1|||0|10.0.255.21|65535");
}

TEST(DetectedNode, ComposesTheUniverseFromTheSwitches) {
  ArtPollReply reply = reply_with_names("", "");
  reply.net_switch = 1;
  reply.sub_switch = 2;
  const std::uint8_t outputs[4] = {0x13, 0x00, 0xFF, 0x0A};
  memcpy(reply.sw_out, outputs, sizeof outputs);
  EXPECT_EQ(record_of(reply, 0).universe, 0x123);
  EXPECT_EQ(record_of(reply, 1).universe, 0x120);
  EXPECT_EQ(record_of(reply, 2).universe, 0x12F);
  EXPECT_EQ(record_of(reply, 3).universe, 0x12A);
  reply.net_switch = 0xFF;
  reply.sub_switch = 0xFF;
  EXPECT_EQ(record_of(reply, 2).universe, 0xFFFF);
  reply.net_switch = 0;
  reply.sub_switch = 0x10;
  EXPECT_EQ(record_of(reply, 1).universe, 0);
}

TEST(DetectedNode, TellsItsNumbersAndAddressWithoutARecord) {
  ArtPollReply reply = reply_with_names("a", "b");
  reply.net_switch = 0xFF;
  reply.port = 65534;
  const DetectedNode node(reply, 0);
  EXPECT_EQ(node.universe(), 0xFF00);
  EXPECT_STREQ(node.ip(), "10.0.255.21");
  EXPECT_EQ(node.port(), 65534);
  const std::uint8_t longest[4] = {255, 254, 253, 252};
  memcpy(reply.ip, longest, sizeof longest);
  EXPECT_STREQ(DetectedNode(reply, 0).ip(), "255.254.253.252");
}

TEST(DetectedNode, EndsANameThatHasNoZeroByteBeforeItsLastByte) {
  ArtPollReply reply = reply_with_names("", "");
  memset(reply.short_name, 's', sizeof reply.short_name);
  memset(reply.long_name, 'l', sizeof reply.long_name);
  EXPECT_EQ(fields(record_of(reply, 0)),
            "-1|" + std::string(17, 's') + '|' + std::string(63, 'l') + "|0|10.0.255.21|6454");
}

TEST(DetectedNode, WhatLiesBehindTheEndOfANameDoesNotCount) {
  ArtPollReply a = reply_with_names("short", "long");
  ArtPollReply b = a;
  a.short_name[6] = 'x';
  b.long_name[5] = 'y';
  EXPECT_TRUE(DetectedNode(a, 0) == DetectedNode(b, 0));
}

TEST(DetectedNode, OfAnotherPortDiffersInItsUniverseOnly) {
  ArtPollReply reply = reply_with_names("short", "long");
  reply.sub_switch = 3;
  reply.sw_out[0] = 1;
  reply.sw_out[3] = 9;
  DetectedNode node(reply, 0);
  node.set_port(reply, 3);
  EXPECT_EQ(fields(node.record()), "-1|short|long|57|10.0.255.21|6454");
  EXPECT_TRUE(node == DetectedNode(reply, 3));
}

TEST(DetectedNode, IsOrderedAsItsRecordIs) {
  std::vector<DetectedNode> nodes;
  for (const int universe : {0, 1, 0x100, 0xFF00}) {
    for (const int ip : {2, 10, 100, 255}) {
      for (const int port : {0, 255, 256, 65535}) {
        for (const char* const short_name : {"", "a", "a b", "ab", "\xDC"}) {
          for (const char* const long_name : {"", "Z", "a", "\xFF"}) {
            ArtPollReply reply = reply_with_names(short_name, long_name);
            reply.net_switch = static_cast<std::uint8_t>(universe >> 8);
            reply.sw_out[0] = static_cast<std::uint8_t>(universe);
            reply.ip[1] = static_cast<std::uint8_t>(ip);
            reply.port = static_cast<std::uint16_t>(port);
            nodes.emplace_back(reply, 0);
          }
        }
      }
    }
  }
  std::shuffle(nodes.begin(), nodes.end(), std::mt19937(1));
  std::vector<ArtnetNode> records;
  for (const DetectedNode& node : nodes) records.push_back(node.record());
  std::sort(nodes.begin(), nodes.end());
  std::sort(records.begin(), records.end());
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    ASSERT_EQ(fields(nodes[i].record()), fields(records[i])) << i;
    ASSERT_FALSE(i > 0 && nodes[i] == nodes[i - 1]) << i;
  }
}

}  // namespace
