#include "kesto/wait_budget.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr seconds kNow(1000);

class WaitBudgetTest : public testing::Test {
protected:
  kesto::WaitBudget budget{milliseconds(25), 40};
};

TEST_F(WaitBudgetTest, IsFullAtFirst) {
  EXPECT_EQ(budget.left(kNow), milliseconds(25));
}

TEST_F(WaitBudgetTest, IsLessByWhatIsSpent) {
  budget.spend(kNow, milliseconds(10));
  EXPECT_EQ(budget.left(kNow), milliseconds(15));
  budget.spend(kNow, milliseconds(15));
  EXPECT_EQ(budget.left(kNow), nanoseconds(0));
}

TEST_F(WaitBudgetTest, FillsUpAgainWithAShareOfTheTimeThatPasses) {
  budget.spend(kNow, milliseconds(25));
  EXPECT_EQ(budget.left(kNow + milliseconds(400)), milliseconds(10));
  EXPECT_EQ(budget.left(kNow + seconds(1)), milliseconds(25));
  EXPECT_EQ(budget.left(kNow + seconds(100)), milliseconds(25));
}

TEST_F(WaitBudgetTest, WhatIsSpentBeyondItIsOwed) {
  budget.spend(kNow, milliseconds(50));
  EXPECT_EQ(budget.left(kNow + seconds(1)), nanoseconds(0));
  EXPECT_EQ(budget.left(kNow + milliseconds(1400)), milliseconds(10));
}

TEST_F(WaitBudgetTest, ManySmallWaitsAddUp) {
  for (int i = 0; i < 100; ++i) budget.spend(kNow, std::chrono::microseconds(250));
  EXPECT_EQ(budget.left(kNow), nanoseconds(0));
}

}  // namespace
