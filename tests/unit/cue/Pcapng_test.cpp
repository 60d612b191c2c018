#include "cue/Pcapng.h"

#include <gtest/gtest.h>

#include <limits>

#include "unit/cue/captures.h"
#include "unit/cue/recordings.h"

using captures::byte;
using captures::Pcapng;

namespace {

struct Found {
  std::string bytes;
  int link_type = 0;
  std::uint32_t interface = 0;
  std::optional<std::int64_t> time;

  bool operator==(const Found& other) const {
    return bytes == other.bytes && link_type == other.link_type && interface == other.interface &&
           time == other.time;
  }
};

struct Reading {
  std::vector<Found> frames;
  std::string error;
};

Reading read(const std::string& file, std::size_t portion = 1U << 20U) {
  cue::PcapngReader reader(recordings::source_of(file, portion));
  Reading reading;
  cue::Frame frame;
  while (reader.next(frame))
    reading.frames.push_back({std::string(reinterpret_cast<const char*>(frame.bytes.data), frame.bytes.size),
                              frame.link_type, frame.interface, frame.time});
  reading.error = reader.breaks_off();
  return reading;
}

class PcapngOrder : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Both, PcapngOrder, testing::Bool());

TEST_P(PcapngOrder, ReadsFramesOfEveryKindOfBlock) {
  const Pcapng ng{GetParam()};
  // 5 s after the start, in 2^-10 s and in microseconds from 100 s on.
  const std::string offset = GetParam() ? std::string(7, '\0') + byte(100) : byte(100) + std::string(7, '\0');
  const std::string file = ng.section() + ng.block(0xBAD, std::string(700'000, 'x')) +
                           ng.interface(1, ng.option(2, "eth0") + ng.option(9, byte(0x8A)), 3) +
                           ng.interface(113, ng.option(14, offset) + ng.option(0, "") + "rest") +
                           ng.enhanced("enhanced", 0, 5120) + ng.obsolete("obsolete", 1, 5'000'000) +
                           ng.simple("simple") + ng.enhanced("", 1);
  const std::vector<Found> expected = {{"enhanced", 1, 0, 5'000'000'000},
                                       {"obsolete", 113, 1, 105'000'000'000},
                                       {"sim", 1, 0, std::nullopt},
                                       {"", 113, 1, 100'000'000'000}};
  for (const std::size_t portion : {1U << 20U, 7U}) {
    const Reading reading = read(file, portion);
    EXPECT_EQ(reading.frames, expected);
    EXPECT_EQ(reading.error, "");
  }
}

TEST(Pcapng, BeginsAgainWithEachSection) {
  const Pcapng low{false};
  const Pcapng high{true};
  const Reading reading = read(low.section() + low.interface(1) + low.enhanced("a") + high.section() +
                               high.interface(113) + high.enhanced("b") + low.section() + low.enhanced("c"));
  ASSERT_EQ(reading.frames.size(), 2U);
  EXPECT_EQ(reading.frames[1], (Found{"b", 113, 1, 0}));
  EXPECT_EQ(reading.error, "byte 196: a frame of an interface that is not described");
}

TEST(Pcapng, SaysWhereItBreaksOff) {
  const Pcapng ng;
  const std::string head = ng.section() + ng.interface();  // 28 + 20 bytes
  const auto error = [&](const std::string& rest) { return read(head + ng.enhanced("good") + rest).error; };
  const auto at_end = [](const std::string& what) { return "byte 84: " + what; };
  EXPECT_EQ(error(""), "");
  EXPECT_EQ(error("abc"), at_end("cut off within a block"));
  EXPECT_EQ(error(ng.enhanced("x").substr(0, 30)), at_end("cut off within a block"));
  EXPECT_EQ(error(ng.section().substr(0, 10)), at_end("cut off within a block"));
  EXPECT_EQ(error(ng.four(5) + ng.four(11)), at_end("a block of 11 bytes"));
  EXPECT_EQ(error(ng.four(5) + ng.four(14)), at_end("a block of 14 bytes"));
  EXPECT_EQ(error(ng.four(6) + ng.four(0x1000004)), at_end("a block of 16777220 bytes"));
  EXPECT_EQ(error(ng.four(6) + ng.four(12) + ng.four(16)), at_end("a block whose two lengths differ"));
  EXPECT_EQ(error(ng.block(6, "short")), at_end("a frame without its fields"));
  EXPECT_EQ(error(ng.block(3, "")), at_end("a frame without its fields"));
  EXPECT_EQ(error(ng.block(1, "tiny")), at_end("an interface description that is too short"));
  EXPECT_EQ(error(ng.enhanced("x", 1)), at_end("a frame of an interface that is not described"));
  EXPECT_EQ(error(ng.block(6, std::string(12, '\0') + ng.four(5) + ng.four(5) + "four")),
            at_end("a frame longer than its block"));
  EXPECT_EQ(error(ng.section() + ng.simple("x")), "byte 112: a frame of an interface that is not described");
  std::string strange = ng.section();
  strange[8] = 'x';
  EXPECT_EQ(error(strange), at_end("a section of unknown byte order"));
  // A block that does not matter may have any length; its end is outside the file.
  EXPECT_EQ(read(head + ng.four(5) + ng.four(0xFFFFFFFC) + "x").error, "byte 57: cut off within a block");
}

TEST(Pcapng, HasABoundForInterfaces) {
  const Pcapng ng;
  std::string file = ng.section();
  for (int i = 0; i <= 65536; ++i) file += ng.interface();
  EXPECT_EQ(read(file).error, "byte 1310748: too many interfaces");
}

TEST(Pcapng, TakesOptionsThatAreCutOff) {
  const Pcapng ng;
  for (const std::string& options : {ng.two(9) + ng.two(400), ng.option(9, ""), ng.option(14, "12")}) {
    const Reading reading = read(ng.section() + ng.interface(1, options) + ng.enhanced("a", 0, 1));
    ASSERT_EQ(reading.frames.size(), 1U);
    EXPECT_EQ(reading.frames[0].time, 1000);
  }
}

TEST(PcapngTime, KnowsEveryResolution) {
  using cue::pcapng_time;
  EXPECT_EQ(pcapng_time(7, 0, 0), 7'000'000'000);
  EXPECT_EQ(pcapng_time(1'500'000, 6, 2), 3'500'000'000);
  EXPECT_EQ(pcapng_time(1'234'567'891, 9, 0), 1'234'567'891);
  EXPECT_EQ(pcapng_time(1'234'567'891'999, 12, 0), 1'234'567'891);
  EXPECT_EQ(pcapng_time(10'000'000'000'000'000'000U, 19, 0), 1'000'000'000);
  EXPECT_EQ(pcapng_time(10'000'000'000'000'000'000U, 20, 0), 100'000'000);
  EXPECT_EQ(pcapng_time(UINT64_MAX, 28, 0), 1);
  EXPECT_EQ(pcapng_time(UINT64_MAX, 29, 0), 0);
  EXPECT_EQ(pcapng_time(UINT64_MAX, 127, 0), 0);
  EXPECT_EQ(pcapng_time(7, 0x80, 0), 7'000'000'000);
  EXPECT_EQ(pcapng_time(3, 0x81, 0), 1'500'000'000);
  EXPECT_EQ(pcapng_time(UINT64_MAX, 0x80 | 32, 0), 4'294'967'295'999'999'999);
  EXPECT_EQ(pcapng_time(std::uint64_t{3} << 62U, 0x80 | 63, 0), 1'500'000'000);
  EXPECT_EQ(pcapng_time(std::uint64_t{1} << 63U, 0x80 | 64, 0), 500'000'000);
  EXPECT_EQ(pcapng_time(UINT64_MAX, 0x80 | 95, 0), 0);
  EXPECT_EQ(pcapng_time(UINT64_MAX, 0x80 | 127, 0), 0);
}

TEST(PcapngTime, IsNoneBeyond64Bits) {
  using cue::pcapng_time;
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(pcapng_time(9'223'372'036, 0, 0), 9'223'372'036'000'000'000);
  EXPECT_EQ(pcapng_time(9'223'372'037, 0, 0), std::nullopt);
  EXPECT_EQ(pcapng_time(9'223'372'036'999'999'999U, 9, 0), std::nullopt);
  EXPECT_EQ(pcapng_time(UINT64_MAX, 0, 0), std::nullopt);
  EXPECT_EQ(pcapng_time(UINT64_MAX, 0x80, 0), std::nullopt);
  EXPECT_EQ(pcapng_time(1, 0, kMost), std::nullopt);
  EXPECT_EQ(pcapng_time(0, 0, std::numeric_limits<std::int64_t>::min()), std::nullopt);
  EXPECT_EQ(pcapng_time(0, 0, -9), -9'000'000'000);
}

TEST(Pcapng, IsRecognisedInBothByteOrders) {
  const auto begins = [](const std::string& head) {
    return cue::begins_pcapng(recordings::bytes_of(head), head.size());
  };
  EXPECT_TRUE(begins(Pcapng{false}.section()));
  EXPECT_TRUE(begins(Pcapng{true}.section()));
  EXPECT_FALSE(begins(Pcapng{true}.section().substr(0, 11)));
  EXPECT_FALSE(begins(captures::pcap_head()));
  EXPECT_FALSE(begins(captures::low_first_32(0x0A0D0D0A) + "12345678"));
}

}  // namespace
