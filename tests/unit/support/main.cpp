#include <gtest/gtest.h>

#include "unit/support/child.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const int status = unit::run_requested_scenario(argc, argv);
  return status >= 0 ? status : RUN_ALL_TESTS();
}
