#include "cue/Frames.h"

#include <gtest/gtest.h>

#include <limits>

#include "unit/cue/captures.h"
#include "unit/cue/recordings.h"

using captures::ethernet;
using captures::high_first;
using captures::ip;
using captures::ipv4;
using captures::low_first_32;
using captures::text;
using captures::udp;

namespace {

class Frames : public testing::Test {
protected:
  cue::FrameDecoder decoder;
  std::optional<cue::UdpDatagram> found;

  /// Payload of the datagram that a frame holds or completes; "-" without one.
  std::string decode(int link_type, const std::string& bytes, std::int64_t time = 0,
                     std::uint32_t interface = 0) {
    cue::Frame frame;
    frame.link_type = link_type;
    frame.interface = interface;
    // A copy of its own, so that a look behind its end is found.
    const std::vector<std::uint8_t> copy(bytes.begin(), bytes.end());
    frame.bytes = {copy.data(), copy.size()};
    frame.time = time;
    found = decoder.decode(frame);
    if (!found) return "-";
    return {reinterpret_cast<const char*>(found->payload.data), found->payload.size};
  }

  /// The same of a raw IPv4 packet. @param place  flags and offset
  std::string fragment(const std::string& payload, unsigned place, unsigned id = 1, std::int64_t time = 0,
                       std::uint32_t interface = 0) {
    return decode(101, ipv4(payload, place, id), time, interface);
  }
};

constexpr unsigned kMore = 0x2000;

TEST_F(Frames, FindsADatagramBehindEveryUsualLinkLayer) {
  const std::string packet = ip("hello");
  const std::string vlan = high_first(5);
  EXPECT_EQ(decode(1, ethernet(packet)), "hello");
  EXPECT_EQ(decode(1, ethernet(packet, text("\x88\xA8\0\7\x81\0\0\5", 8))), "hello");
  for (const int raw : {12, 14, 101, 228}) EXPECT_EQ(decode(raw, packet), "hello") << raw;
  EXPECT_EQ(decode(113, std::string(14, '\0') + high_first(0x0800) + packet), "hello");
  EXPECT_EQ(decode(113, std::string(14, '\0') + high_first(0x8100) + vlan + high_first(0x0800) + packet),
            "hello");
  EXPECT_EQ(decode(276, high_first(0x0800) + std::string(18, '\0') + packet), "hello");
  EXPECT_EQ(decode(276, high_first(0x8100) + std::string(18, '\0') + vlan + high_first(0x0800) + packet),
            "hello");
  EXPECT_EQ(decode(0, low_first_32(2) + packet), "hello");
  EXPECT_EQ(decode(0, captures::high_first_32(2) + packet), "hello");
  EXPECT_EQ(decode(108, captures::high_first_32(2) + packet), "hello");
  EXPECT_EQ(decode(9, text("\xFF\x03\x00\x21", 4) + packet), "hello");
  EXPECT_EQ(decode(9, text("\x00\x21", 2) + packet), "hello");
  EXPECT_EQ(decode(50, text("\xFF\x03\x21", 3) + packet), "hello");
  EXPECT_EQ(found->sender, captures::kSender);
  EXPECT_EQ(found->receiver, 0x0A000002U);
  EXPECT_EQ(found->port, 6454);
  EXPECT_FALSE(found->cut);
}

TEST_F(Frames, CountsWhatIsNone) {
  const std::string six = captures::ipv6("hello");
  EXPECT_EQ(decode(1, ethernet(six, "", 0x86DD)), "-");
  EXPECT_EQ(decode(229, six), "-");
  EXPECT_EQ(decode(0, low_first_32(30) + six), "-");
  EXPECT_EQ(decode(9, text("\x00\x57", 2) + six), "-");
  EXPECT_EQ(decoder.counts().ipv6_udp, 4U);
  EXPECT_EQ(decode(1, ethernet("arp", "", 0x0806)), "-");
  EXPECT_EQ(decode(101, "?"), "-");
  EXPECT_EQ(decode(0, low_first_32(99) + six), "-");
  EXPECT_EQ(decode(101, ipv4("tcp", 0, 0, 1, "", 6)), "-");
  EXPECT_EQ(decode(229, six.substr(0, 30)), "-");
  EXPECT_EQ(decoder.counts().without_udp, 5U);
  EXPECT_EQ(decode(105, "wireless"), "-");
  EXPECT_EQ(decoder.counts().link_types.at(105), 1U);
  EXPECT_EQ(decoder.counts().broken, 0U);
  EXPECT_EQ(decoder.counts().frames, 10U);
}

TEST_F(Frames, CountsHeadersThatDoNotHold) {
  const std::string whole = ip("hello");
  std::uint64_t broken = 0;
  const auto is_broken = [&](const std::string& packet) {
    return decode(101, packet) == "-" && decoder.counts().broken == ++broken;
  };
  const auto changed = [&](std::size_t at, const std::string& bytes) {
    return std::string(whole).replace(at, bytes.size(), bytes);
  };
  EXPECT_TRUE(is_broken(""));
  EXPECT_TRUE(is_broken(whole.substr(0, 19)));
  EXPECT_TRUE(is_broken(whole.substr(0, 27)));
  EXPECT_TRUE(is_broken(changed(0, "\x44")));            // a header of 16 bytes
  EXPECT_TRUE(is_broken(changed(0, "\x4F")));            // a header longer than the packet
  EXPECT_TRUE(is_broken(changed(2, high_first(19))));    // a packet shorter than its header
  EXPECT_TRUE(is_broken(changed(24, high_first(7))));    // a datagram shorter than its header
  EXPECT_TRUE(is_broken(changed(24, high_first(100))));  // and one longer than the packet
  ++broken;
  EXPECT_EQ(decode(228, captures::ipv6("hello")), "-");
  --broken;
  for (const int link_type : {0, 1, 9, 113, 276}) {
    EXPECT_EQ(decode(link_type, ""), "-");
    EXPECT_EQ(decoder.counts().broken, ++broken) << link_type;
  }
  EXPECT_EQ(decode(1, std::string(12, '\2') + high_first(0x8100) + "12"), "-");
  EXPECT_EQ(decoder.counts().broken, ++broken);
}

TEST_F(Frames, TellsWhetherTheFrameWentToMany) {
  const std::string packet = ip("hello");
  const auto to_many = [&](int link_type, const std::string& header) {
    EXPECT_EQ(decode(link_type, header + packet), "hello");
    return found->to_many;
  };
  const std::string rest = std::string(11, '\2') + high_first(0x0800);
  EXPECT_TRUE(to_many(1, "\xFF" + rest));
  EXPECT_TRUE(to_many(1, "\x01" + rest));
  EXPECT_FALSE(to_many(1, "\x02" + rest));
  const std::vector<bool> many = {false, true, true, false, false};
  for (unsigned kind = 0; kind < many.size(); ++kind) {
    EXPECT_EQ(to_many(113, high_first(kind) + std::string(12, '\0') + high_first(0x0800)), many[kind])
        << kind;
    EXPECT_EQ(
        to_many(276, high_first(0x0800) + std::string(8, '\0') + packets::byte(kind) + std::string(9, '\0')),
        many[kind])
        << kind;
  }
  EXPECT_FALSE(to_many(101, ""));
}

TEST_F(Frames, MarksADatagramThatTheCaptureCutOff) {
  EXPECT_EQ(decode(101, ip("hello").substr(0, 30)), "he");
  EXPECT_TRUE(found->cut);
  EXPECT_EQ(found->port, 6454);
}

TEST_F(Frames, PutsFragmentsTogetherInAnyOrder) {
  const std::string whole = udp("0123456789abcdefghij");  // 28 bytes
  EXPECT_EQ(fragment(whole.substr(0, 8), kMore), "-");
  EXPECT_EQ(fragment(whole.substr(8, 16), kMore | 1U), "-");
  EXPECT_EQ(fragment(whole.substr(24), 3), "0123456789abcdefghij");
  EXPECT_EQ(fragment(whole.substr(24), 3), "-");
  EXPECT_EQ(fragment(whole.substr(8, 16), kMore | 1U), "-");
  EXPECT_EQ(fragment(whole.substr(8, 16), kMore | 1U), "-");  // twice does no harm
  EXPECT_EQ(fragment(whole.substr(24), 3), "-");
  EXPECT_EQ(fragment(whole.substr(0, 8), kMore), "0123456789abcdefghij");
  EXPECT_EQ(decoder.incomplete(), 0U);
  EXPECT_EQ(decoder.counts().fragments, 8U);
}

TEST_F(Frames, KeepsThePacketsOfFragmentsApart) {
  const std::string a = udp("aaaaaaaa");
  const std::string b = udp("bbbbbbbb");
  EXPECT_EQ(fragment(a.substr(0, 8), kMore, 1), "-");
  EXPECT_EQ(fragment(b.substr(0, 8), kMore, 2), "-");
  EXPECT_EQ(fragment(b.substr(0, 8), kMore, 1, 0, 7), "-");  // seen on another interface
  EXPECT_EQ(fragment(a.substr(8), 1, 1), "aaaaaaaa");
  EXPECT_EQ(fragment(b.substr(8), 1, 2), "bbbbbbbb");
  EXPECT_EQ(decoder.incomplete(), 1U);
}

TEST_F(Frames, GivesUpFragmentsThatContradictEachOther) {
  const std::string whole = udp("0123456789abcdefghij");
  std::uint64_t given_up = 0;
  const auto gives_up = [&](const std::string& payload, unsigned place) {
    return fragment(payload, place) == "-" && decoder.incomplete() == ++given_up;
  };
  fragment(whole.substr(0, 16), kMore);
  EXPECT_TRUE(gives_up("otherwise678", 1));  // overlaps, and ends elsewhere
  fragment(whole.substr(0, 16), kMore);
  EXPECT_TRUE(gives_up("other678", kMore | 1U));  // the same place, other bytes
  fragment(whole.substr(24), 3);
  EXPECT_TRUE(gives_up("12345678", kMore | 9U));  // behind the last one
  fragment(whole.substr(0, 16), kMore);
  EXPECT_TRUE(gives_up("1234", 1));           // ends before what is there
  EXPECT_TRUE(gives_up("", kMore | 9U));      // nothing
  EXPECT_TRUE(gives_up("123", kMore));        // ends in the middle of a unit
  EXPECT_TRUE(gives_up("12345678", 0x1FFF));  // behind the longest packet
}

TEST_F(Frames, WaitsForFragmentsInBoundedMemoryAndTime) {
  const std::string whole = udp("0123456789abcdefghij");
  fragment(whole.substr(0, 8), kMore, 0);
  for (unsigned id = 1; id <= cue::Fragments::kAssemblies; ++id) fragment(whole.substr(0, 8), kMore, id);
  EXPECT_EQ(decoder.incomplete(), cue::Fragments::kAssemblies + 1);
  EXPECT_EQ(fragment(whole.substr(8), 1, 0), "-");  // the oldest had to go
  EXPECT_EQ(fragment(whole.substr(8), 1, 64), "0123456789abcdefghij");
  EXPECT_EQ(fragment(whole.substr(8), 1, 63, cue::Fragments::kPatience + 1), "-");
  fragment(whole.substr(0, 8), kMore, 99, std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(fragment(whole.substr(8), 1, 99, std::numeric_limits<std::int64_t>::max()), "-");
}

TEST_F(Frames, CountsAFragmentThatTheCaptureCutOff) {
  EXPECT_EQ(decode(101, ipv4(udp("0123456789"), kMore).substr(0, 30)), "-");
  EXPECT_EQ(decoder.counts().cut_fragments, 1U);
  EXPECT_EQ(decoder.incomplete(), 0U);
}

TEST_F(Frames, SurvivesAnyRowOfFragments) {
  recordings::Chance chance(8);
  const std::string whole = udp(std::string(600, 'x'));
  int completed = 0;
  for (int i = 0; i < 200'000; ++i) {
    const unsigned first = chance.below(4);
    const std::size_t at = first * std::size_t{152};
    const std::size_t size = chance.below(50) == 0 ? chance.below(300) : 152;
    if (fragment(whole.substr(at, size), (at + size < whole.size() ? kMore : 0) | first * 19,
                 chance.below(90), static_cast<std::int64_t>(i) * 1'000'000) != "-")
      ++completed;
  }
  EXPECT_GT(completed, 1000);
}

}  // namespace
