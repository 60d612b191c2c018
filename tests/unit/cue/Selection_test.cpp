#include "cue/Selection.h"

#include <gtest/gtest.h>

#include "unit/cue/recordings.h"

using packets::dmx;

namespace {

cue::UniverseSet universes(std::initializer_list<std::uint16_t> port_addresses) {
  cue::UniverseSet set;
  for (const std::uint16_t port_address : port_addresses) set.insert(port_address);
  return set;
}

TEST(Selection, TakesSinglePacketsOutOfADatagramOfSeveral) {
  cue::Selection selection;
  selection.only = universes({1, 3});
  selection.changes = {{1, 9}};
  cue::Selector selector(selection);
  const std::string datagram = "x" + dmx("a", 0) + dmx("b", 1) + "y" + dmx("c", 3) + "z";
  const auto picked = selector.pick_universes(recordings::bytes_of(datagram), datagram.size());
  ASSERT_TRUE(picked);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(picked->data), picked->size),
            dmx("b", 9) + dmx("c", 3));
}

TEST(Selection, KeepsADatagramWholeWhenAllOfItIsWanted) {
  cue::Selection selection;
  selection.only = universes({0, 1});
  cue::Selector selector(selection);
  const std::string datagram = "x" + dmx("a", 0) + dmx("b", 1) + "y";
  const auto picked = selector.pick_universes(recordings::bytes_of(datagram), datagram.size());
  ASSERT_TRUE(picked);
  EXPECT_EQ(picked->data, recordings::bytes_of(datagram));
  EXPECT_EQ(picked->size, datagram.size());
}

}  // namespace
