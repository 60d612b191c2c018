#include "cue/live/Recent.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Names = cue::Recent<int, std::string>;

std::string all(const Names& names) {
  std::string text;
  for (const auto& [key, place] : names.by_key()) text += place->second;
  return text;
}

TEST(Recent, KeepsValuesByTheirKeys) {
  Names names(3);
  EXPECT_TRUE(names.is_empty());
  names.add(2, "b");
  names.add(1, "a") += "!";
  EXPECT_EQ(*names.find(1), "a!");
  EXPECT_EQ(*names.touch(2), "b");
  EXPECT_EQ(names.find(3), nullptr);
  EXPECT_EQ(names.touch(3), nullptr);
  EXPECT_EQ(all(names), "a!b");
  const Names& constant = names;
  EXPECT_EQ(*constant.find(1), "a!");
  EXPECT_EQ(constant.find(3), nullptr);
}

TEST(Recent, DropsWhatWasNotTouchedForLongest) {
  Names names(3);
  for (const int key : {1, 2, 3}) names.add(key, std::to_string(key));
  EXPECT_TRUE(names.is_full());
  names.touch(1);
  names.find(2);
  EXPECT_EQ(names.oldest(), "2");
  names.drop_oldest();
  EXPECT_EQ(all(names), "13");
  EXPECT_FALSE(names.is_full());
  names.drop_oldest();
  EXPECT_EQ(all(names), "1");
  names.drop_oldest();
  EXPECT_TRUE(names.is_empty());
}

}  // namespace
