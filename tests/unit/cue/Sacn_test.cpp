#include "cue/Sacn.h"

#include <gtest/gtest.h>

#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"
#include "unit/cue/sacn.h"

using cue::SacnKind;
using packets::byte;
using packets::high_first;
using recordings::bytes_of;

namespace {

std::string text_of(const cue::Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data), bytes.size};
}

cue::SacnPacket parse(const std::string& bytes) {
  return cue::parse_sacn(bytes_of(bytes), bytes.size());
}

/// The packet with other bytes from @p offset on.
std::string changed(std::string packet, std::size_t offset, const std::string& bytes) {
  return packet.replace(offset, bytes.size(), bytes);
}

cue::SacnSource source(const std::string& name = "desk") {
  cue::SacnSource of;
  of.cid.fill('C');
  of.name = name;
  return of;
}

cue::SacnData levels(const std::string& of, std::uint16_t universe = 1) {
  cue::SacnData data;
  data.universe = universe;
  data.slots = {bytes_of(of), of.size()};
  return data;
}

TEST(SacnBuilder, WritesTheBytesOfTheStandard) {
  cue::SacnSource of = source();
  of.priority = 120;
  cue::SacnBuilder builder(of);
  const std::string full(512, 'x');
  cue::SacnData data = levels(full, 63999);
  data.sequence = 255;
  data.sync_universe = 7;
  data.preview = true;
  data.terminated = true;
  sacn::Data expected{full, 63999, 255, 120, 0xC0};
  expected.sync_universe = 7;
  EXPECT_EQ(text_of(builder.packet(data)), sacn::data(expected));
  // The next one holds nothing of the one before.
  EXPECT_EQ(text_of(builder.packet(levels("ab"))), sacn::data({"ab", 1, 0, 120}));
}

TEST(SacnBuilder, CutsANameBehindAWholeCharacter) {
  const auto name_in = [](const std::string& name) {
    return text_of(cue::SacnBuilder(source(name)).packet(levels("a"))).substr(44, 64);
  };
  EXPECT_EQ(name_in(std::string(63, 'n')), std::string(63, 'n') + '\0');
  EXPECT_EQ(name_in(std::string(64, 'n')), std::string(63, 'n') + '\0');
  EXPECT_EQ(name_in(std::string(62, 'n') + "\xC3\xA4"), std::string(62, 'n') + std::string(2, '\0'));
  EXPECT_EQ(name_in(std::string(61, 'n') + "\xC3\xA4n"), std::string(61, 'n') + "\xC3\xA4" + '\0');
}

TEST(SacnBuilder, RefusesWhatE131CannotSay) {
  cue::SacnBuilder builder(source());
  EXPECT_EQ(unit::error_of([&] { builder.packet(levels("a", 0)); }), "E1.31 has no universe 0");
  EXPECT_EQ(unit::error_of([&] { builder.packet(levels("a", 64000)); }), "E1.31 has no universe 64000");
  EXPECT_EQ(unit::error_of([&] { builder.packet(levels("")); }), "E1.31 cannot carry 0 slots");
  EXPECT_EQ(unit::error_of([&] { builder.packet(levels(std::string(513, 'a'))); }),
            "E1.31 cannot carry 513 slots");
}

TEST(SacnParser, ReadsEveryFieldOfADataPacket) {
  sacn::Data sent{"levels", 0x1234, 200, 77, 0x80, 0xDD, 9, "0123456789abcdef"};
  const std::string bytes = sacn::data(sent);
  cue::SacnPacket packet = parse(bytes);
  EXPECT_EQ(packet.kind, SacnKind::Data);
  EXPECT_EQ(std::string(packet.cid.begin(), packet.cid.end()), sent.cid);
  EXPECT_EQ(packet.data.universe, 0x1234);
  EXPECT_EQ(packet.data.sequence, 200);
  EXPECT_EQ(packet.data.priority, 77);
  EXPECT_EQ(packet.data.start_code, 0xDD);
  EXPECT_EQ(packet.data.sync_universe, 9);
  EXPECT_TRUE(packet.data.preview);
  EXPECT_FALSE(packet.data.terminated);
  EXPECT_EQ(packet.data.slots.size, 6U);
  EXPECT_EQ(text_of(packet.data.name), "desk");
  const std::string long_name(64, 'n');
  sent.name = long_name;
  const std::string with_long_name = sacn::data(sent);
  EXPECT_EQ(text_of(parse(with_long_name).data.name), long_name);
  sent.name = "";
  EXPECT_EQ(parse(sacn::data(sent)).data.name.size, 0U);

  const std::string with_tail = sacn::data({"levels", 1, 0, 100, 0x40}) + "padding";
  packet = parse(with_tail);
  EXPECT_TRUE(packet.data.terminated);
  EXPECT_FALSE(packet.data.preview);
  EXPECT_EQ(text_of(packet.data.slots), "levels");
}

TEST(SacnParser, TellsTheKinds) {
  EXPECT_EQ(parse(sacn::data({})).kind, SacnKind::Data);  // no slots
  EXPECT_EQ(parse(sacn::data({std::string(512, 'x')})).kind, SacnKind::Data);
  EXPECT_EQ(parse(sacn::sync()).kind, SacnKind::Sync);
  EXPECT_EQ(parse(sacn::discovery()).kind, SacnKind::Discovery);
  EXPECT_EQ(parse(sacn::root(8, sacn::layer(6) + sacn::long_word(3))).kind, SacnKind::Other);
  EXPECT_EQ(parse(sacn::root(5, "")).kind, SacnKind::Other);
  EXPECT_EQ(parse(changed(sacn::data({"a"}), 40, sacn::long_word(3))).kind, SacnKind::Other);
  EXPECT_EQ(parse(packets::dmx("a")).kind, SacnKind::Broken);
  EXPECT_EQ(parse("").kind, SacnKind::Broken);
}

TEST(SacnParser, ChecksLengthsAndFlags) {
  const std::string whole = sacn::data({"abcd"});
  const auto kind_with = [&](std::size_t offset, unsigned word) {
    return parse(changed(whole, offset, high_first(word))).kind;
  };
  for (const std::size_t layer : {16U, 38U, 115U}) {
    const auto size = static_cast<unsigned>(whole.size() - layer);
    EXPECT_EQ(kind_with(layer, 0x7000 | size), SacnKind::Data);
    EXPECT_EQ(kind_with(layer, 0x7000 | (size + 1)), SacnKind::Broken) << layer;
    EXPECT_EQ(kind_with(layer, 0x7000 | (size - 1)), SacnKind::Broken) << layer;
    EXPECT_EQ(kind_with(layer, 0x7000), SacnKind::Broken) << layer;
    EXPECT_EQ(kind_with(layer, 0x3000 | size), SacnKind::Broken) << layer;
    EXPECT_EQ(kind_with(layer, 0xF000 | size), SacnKind::Broken) << layer;
  }
  EXPECT_EQ(kind_with(123, 6), SacnKind::Broken);
  EXPECT_EQ(kind_with(123, 0), SacnKind::Broken);
  EXPECT_EQ(kind_with(113, 0), SacnKind::Broken);
  EXPECT_EQ(kind_with(113, 64000), SacnKind::Broken);
  EXPECT_EQ(kind_with(117, 0x0300), SacnKind::Broken);
  EXPECT_EQ(kind_with(119, 1), SacnKind::Broken);
  EXPECT_EQ(parse(sacn::data({std::string(513, 'x')})).kind, SacnKind::Broken);
  EXPECT_EQ(parse(sacn::root(8, sacn::layer(5) + "abc")).kind, SacnKind::Broken);
}

TEST(SacnParser, CallsEveryBeginningBroken) {
  for (const std::string& whole : {sacn::data({"abcd"}), sacn::sync(), sacn::discovery()}) {
    for (std::size_t size = 0; size < whole.size(); ++size) {
      // A copy of its own, so that a look behind its end is found.
      const std::vector<std::uint8_t> part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
      EXPECT_EQ(cue::parse_sacn(part.data(), part.size()).kind, SacnKind::Broken) << size;
    }
  }
}

TEST(SequencePair, CountsOnWhereEitherSideBeginsAgain) {
  cue::SequencePair pair = cue::pair_of_sacn({}, 254);
  EXPECT_EQ(pair.artnet, 254);
  for (const int artnet : {255, 1, 2, 3}) {
    pair = cue::pair_of_sacn(pair, static_cast<std::uint8_t>(pair.sacn + 1));
    EXPECT_EQ(pair.artnet, artnet);
  }
  pair = cue::pair_of_artnet({}, 254);
  EXPECT_EQ(pair.sacn, 254);
  for (const auto& [artnet, sacn] : {std::pair{255, 255}, {1, 0}, {2, 1}}) {
    pair = cue::pair_of_artnet(pair, static_cast<std::uint8_t>(artnet));
    EXPECT_EQ(pair.sacn, sacn);
  }
}

TEST(SequencePair, KeepsHolesRepeatsAndOrder) {
  EXPECT_EQ(cue::pair_of_sacn(cue::SequencePair{250, 255}, 9).artnet, 5);  // nine are missing
  EXPECT_EQ(cue::pair_of_sacn(cue::SequencePair{7, 7}, 7).artnet, 7);
  EXPECT_EQ(cue::pair_of_sacn(cue::SequencePair{1, 0}, 255).artnet, 255);
  EXPECT_EQ(cue::pair_of_artnet(cue::SequencePair{250, 255}, 5).sacn, 9);
  EXPECT_EQ(cue::pair_of_artnet(cue::SequencePair{1, 0}, 255).sacn, 255);
}

TEST(SequencePair, CountsSendersThatDoNot) {
  cue::SequencePair pair = cue::pair_of_artnet({}, 0);
  EXPECT_EQ(pair.sacn, 1);
  pair = cue::pair_of_artnet(pair, 0);
  EXPECT_EQ(pair.sacn, 2);
  EXPECT_EQ(pair.artnet, 2);
  EXPECT_EQ(cue::pair_of_sacn({}, 0).artnet, 255);
}

TEST(SequencePair, ComesBackFromAnyRowOfNumbers) {
  recordings::Chance chance(11);
  std::optional<cue::SequencePair> there;
  std::optional<cue::SequencePair> back;
  for (int i = 0; i < 5000; ++i) {
    const auto artnet = static_cast<std::uint8_t>(1 + chance.below(255));
    there = cue::pair_of_artnet(there, artnet);
    back = cue::pair_of_sacn(back, there->sacn);
    ASSERT_EQ(back->artnet, artnet) << i;
  }
}

TEST(SacnGroup, HoldsTheUniverse) {
  EXPECT_EQ(cue::sacn_group(1), 0xEFFF0001U);
  EXPECT_EQ(cue::sacn_group(63999), 0xEFFFF9FFU);
}

}  // namespace
