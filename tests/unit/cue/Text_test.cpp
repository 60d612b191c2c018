#include "cue/Text.h"

#include <gtest/gtest.h>

namespace {

TEST(Text, CountsOneAndOthers) {
  EXPECT_EQ(cue::counted(0, "line"), "0 lines");
  EXPECT_EQ(cue::counted(1, "line"), "1 line");
  EXPECT_EQ(cue::counted(2, "line"), "2 lines");
}

TEST(Text, NamesPortAddresses) {
  EXPECT_EQ(cue::port_address_text(0), "0/0/0");
  EXPECT_EQ(cue::port_address_text(0x1234), "18/3/4");
  EXPECT_EQ(cue::port_address_text(0x7FFF), "127/15/15");
}

}  // namespace
