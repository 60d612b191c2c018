#include "artnet/ArtNetPackets.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "unit/artnet/packets.h"

namespace {

NodeIdentity identity() {
  NodeIdentity result;
  result.ip_hex = "c0a80114";
  result.mac_hex = "b827eb123456";
  result.oem = 0x2111;
  result.esta_man = 0x7074;
  result.short_name = "Recorder";
  result.long_name = "Tolvek ArtNet Recorder";
  return result;
}

/// The bytes of a reply that are not zero, put into 239 zero bytes.
std::string reply_with(const std::string& short_name, const std::string& long_name) {
  std::string bytes(239, '\0');
  const auto put = [&bytes](std::size_t offset, const std::string& part) {
    bytes.replace(offset, part.size(), part);
  };
  put(0, packets::header(0x2100));
  put(10, packets::text("\xC0\xA8\x01\x14", 4));
  put(14, packets::low_first(6454));
  put(16, packets::text("\x01\x00", 2));
  put(20, packets::high_first(0x2111));
  put(24, packets::low_first(0x7074));
  put(26, short_name);
  put(44, long_name);
  put(172, packets::text("\x00\x01", 2));
  put(174, packets::text("\xC5\x00\x00\x00", 4));
  put(201, packets::text("\xB8\x27\xEB\x12\x34\x56", 6));
  put(207, packets::text("\xC0\xA8\x01\x14", 4));
  return bytes;
}

TEST(MakeArtPoll, AsksForRepliesOnChangeWithLowPriority) {
  EXPECT_EQ(packets::bytes_of(make_art_poll()), packets::text("Art-Net\0\x00\x20\x00\x0E\x02\x10", 14));
}

TEST(MakeArtPollReply, DescribesOnePortOfTheAppliance) {
  EXPECT_EQ(packets::bytes_of(make_art_poll_reply(identity())),
            reply_with("Recorder", "Tolvek ArtNet Recorder"));
}

TEST(MakeArtPollReply, FillsNameFieldsUpToTheirLastByte) {
  NodeIdentity names = identity();
  names.short_name = std::string(17, 's');
  names.long_name = std::string(63, 'l');
  EXPECT_EQ(packets::bytes_of(make_art_poll_reply(names)),
            reply_with(std::string(17, 's'), std::string(63, 'l')));
}

TEST(MakeArtPollReply, CutsLongNamesByBytes) {
  NodeIdentity names = identity();
  names.short_name =
      "0123456789abcdefg"
      "h";
  names.long_name = std::string(62, 'l') + "\xC3\xBC";
  EXPECT_EQ(packets::bytes_of(make_art_poll_reply(names)),
            reply_with("0123456789abcdefg", std::string(62, 'l') + "\xC3"));
  names.short_name = std::string(100000, 's');
  names.long_name = std::string(100000, 'l');
  EXPECT_EQ(packets::bytes_of(make_art_poll_reply(names)),
            reply_with(std::string(17, 's'), std::string(63, 'l')));
}

TEST(MakeArtPollReply, LeavesEmptyNamesZero) {
  NodeIdentity names = identity();
  names.short_name.clear();
  names.long_name.clear();
  EXPECT_EQ(packets::bytes_of(make_art_poll_reply(names)), reply_with("", ""));
}

TEST(MakeArtPollReply, EndsANameAtItsFirstZeroByte) {
  NodeIdentity names = identity();
  names.short_name = packets::text("ab\0cd", 5);
  names.long_name = packets::text("\0cd", 3);
  EXPECT_EQ(packets::bytes_of(make_art_poll_reply(names)), reply_with("ab", ""));
}

TEST(MakeArtPollReply, LeavesBytesOfAddressesThatDoNotScanZero) {
  NodeIdentity broken = identity();
  broken.ip_hex = "c0a8";
  broken.mac_hex = "b827xx123456";
  std::string expected = reply_with("Recorder", "Tolvek ArtNet Recorder");
  expected.replace(10, 4, packets::text("\xC0\xA8\x00\x00", 4));
  expected.replace(201, 6, packets::text("\xB8\x27\x00\x00\x00\x00", 6));
  expected.replace(207, 4, packets::text("\xC0\xA8\x00\x00", 4));
  EXPECT_EQ(packets::bytes_of(make_art_poll_reply(broken)), expected);
  broken.ip_hex.clear();
  broken.mac_hex.clear();
  expected.replace(10, 4, std::string(4, '\0'));
  expected.replace(201, 10, std::string(10, '\0'));
  EXPECT_EQ(packets::bytes_of(make_art_poll_reply(broken)), expected);
}

TEST(MakeArtPollReply, CodesHaveTheirByteOrders) {
  NodeIdentity codes = identity();
  codes.oem = 0x0102;
  codes.esta_man = 0x0304;
  const std::string bytes = packets::bytes_of(make_art_poll_reply(codes));
  EXPECT_EQ(bytes.substr(20, 2), packets::text("\x01\x02", 2));
  EXPECT_EQ(bytes.substr(24, 2), packets::text("\x04\x03", 2));
}

/// The bytes that set_port_address() sets: net and sub-net switch, first input and output, bind index.
std::string address_bytes(std::int32_t index) {
  ArtPollReply reply = make_art_poll_reply(identity());
  set_port_address(reply, index);
  const std::string bytes = packets::bytes_of(reply);
  // Nothing else is touched.
  std::string rest = bytes;
  rest.replace(18, 2, 2, '\0');
  for (const std::size_t offset : {186U, 190U, 211U}) rest.at(offset) = '\0';
  EXPECT_EQ(rest, reply_with("Recorder", "Tolvek ArtNet Recorder")) << index;
  return bytes.substr(18, 2) + bytes.substr(186, 1) + bytes.substr(190, 1) + bytes.substr(211, 1);
}

TEST(SetPortAddress, SplitsThePortAddressIntoSwitches) {
  EXPECT_EQ(address_bytes(0), packets::text("\x00\x00\x00\x00\x01", 5));
  EXPECT_EQ(address_bytes(1), packets::text("\x00\x00\x01\x01\x02", 5));
  EXPECT_EQ(address_bytes(2), packets::text("\x00\x00\x02\x02\x03", 5));
  EXPECT_EQ(address_bytes(15), packets::text("\x00\x00\x0F\x0F\x10", 5));
  EXPECT_EQ(address_bytes(16), packets::text("\x00\x01\x00\x00\x11", 5));
  EXPECT_EQ(address_bytes(0x123), packets::text("\x01\x02\x03\x03\x24", 5));
  EXPECT_EQ(address_bytes(32767), packets::text("\x7F\x0F\x0F\x0F\x00", 5));
}

TEST(SetPortAddress, BindIndexStartsAnewAfter256Universes) {
  EXPECT_EQ(address_bytes(254).back(), '\xFF');
  EXPECT_EQ(address_bytes(255).back(), '\x00');
  EXPECT_EQ(address_bytes(256).back(), '\x01');
}

TEST(SetPortAddress, ReplacesAnEarlierPortAddress) {
  ArtPollReply reply = make_art_poll_reply(identity());
  ArtPollReply fresh = reply;
  set_port_address(reply, 32767);
  set_port_address(reply, 5);
  set_port_address(fresh, 5);
  EXPECT_EQ(packets::bytes_of(reply), packets::bytes_of(fresh));
}

TEST(MakeDelayRecord, HoldsNanosecondsLowByteFirst) {
  const std::string head = packets::text("Art-Net\0\xFE\x00", 10);
  EXPECT_EQ(packets::bytes_of(make_delay_record(0)), head + std::string(8, '\0'));
  EXPECT_EQ(packets::bytes_of(make_delay_record(0x0102030405060708)),
            head + packets::text("\x08\x07\x06\x05\x04\x03\x02\x01", 8));
  EXPECT_EQ(packets::bytes_of(make_delay_record(25'000'000)),
            head + packets::text("\x40\x78\x7D\x01\0\0\0\0", 8));
  EXPECT_EQ(packets::bytes_of(make_delay_record(-1)), head + std::string(8, '\xFF'));
  EXPECT_EQ(packets::bytes_of(make_delay_record(std::numeric_limits<std::int64_t>::min())),
            head + packets::text("\0\0\0\0\0\0\0\x80", 8));
}

TEST(DottedAddress, TakesTheFirstPairAsTheFirstNumber) {
  EXPECT_EQ(dotted_address("c0a80114"), "192.168.1.20");
  EXPECT_EQ(dotted_address("ffffffff"), "255.255.255.255");
  EXPECT_EQ(dotted_address("00000000"), "0.0.0.0");
  EXPECT_EQ(dotted_address("0A00000A"), "10.0.0.10");
}

TEST(DottedAddress, CountsWhatDoesNotScanAsZero) {
  EXPECT_EQ(dotted_address(""), "0.0.0.0");
  EXPECT_EQ(dotted_address("c0a8"), "192.168.0.0");
  EXPECT_EQ(dotted_address("c0xx0114"), "192.0.0.0");
  EXPECT_EQ(dotted_address("none"), "0.0.0.0");
}

}  // namespace
