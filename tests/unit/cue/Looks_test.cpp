#include "cue/Looks.h"

#include <gtest/gtest.h>

#include "unit/cue/recordings.h"

using packets::dmx;

namespace {

cue::Bytes bytes_of(const std::string& datagram) {
  return {recordings::bytes_of(datagram), datagram.size()};
}

std::uint8_t* writable(std::string& datagram) {
  return reinterpret_cast<std::uint8_t*>(datagram.data());
}

TEST(Looks, KeepsTheLastPacketOfEachUniverse) {
  cue::Looks looks;
  looks.take(bytes_of("x" + dmx("a", 1) + "y" + dmx("b", 2)));
  looks.take(bytes_of(dmx("longer", 1, 9) + "z"));
  std::string all;
  for (const auto& [port_address, packet] : looks.all()) all.append(packet.begin(), packet.end());
  EXPECT_EQ(all, dmx("longer", 1, 9) + dmx("b", 2));
  looks.forget();
  EXPECT_TRUE(looks.all().empty());
}

TEST(Looks, TakesThoseOfOthersOverItsOwn) {
  cue::Looks looks;
  looks.take(bytes_of(dmx("a", 1) + dmx("b", 2)));
  cue::Looks others;
  others.take(bytes_of(dmx("B", 2) + dmx("C", 3)));
  looks.take_all(others);
  std::string all;
  for (const auto& [port_address, packet] : looks.all()) all.append(packet.begin(), packet.end());
  EXPECT_EQ(all, dmx("a", 1) + dmx("B", 2) + dmx("C", 3));
}

TEST(Looks, ScalesEveryLevelOfADatagramAndNothingElse) {
  std::string datagram = "\xFF" + dmx("\xFF\x01\x80", 1, 255) + "\xFF" + dmx("\x02", 0xFFFF);
  cue::scale_levels(writable(datagram), datagram.size(), 0.5);
  EXPECT_EQ(datagram, "\xFF" + dmx("\x80\x01\x40", 1, 255) + "\xFF" + dmx("\x01", 0xFFFF));
  const std::string half = datagram;
  cue::scale_levels(writable(datagram), datagram.size(), 1);
  EXPECT_EQ(datagram, half);
  cue::scale_levels(writable(datagram), datagram.size(), 0);
  EXPECT_EQ(datagram,
            "\xFF" + dmx(std::string(3, '\0'), 1, 255) + "\xFF" + dmx(std::string(1, '\0'), 0xFFFF));
}

TEST(SequenceNumbers, CountEachUniverseOnAndLeaveZeroAlone) {
  cue::SequenceNumbers numbers;
  std::string datagram = dmx("a", 1, 254) + "x" + dmx("b", 2, 7) + dmx("c", 1, 3) + dmx("d", 3, 0);
  numbers.number(writable(datagram), datagram.size());
  EXPECT_EQ(datagram, dmx("a", 1, 254) + "x" + dmx("b", 2, 7) + dmx("c", 1, 255) + dmx("d", 3, 0));
  datagram = dmx("a", 1, 99) + dmx("d", 3, 5) + dmx("e", 2, 0) + dmx("f", 2, 100);
  numbers.number(writable(datagram), datagram.size());
  EXPECT_EQ(datagram, dmx("a", 1, 1) + dmx("d", 3, 5) + dmx("e", 2, 0) + dmx("f", 2, 8));
}

}  // namespace
