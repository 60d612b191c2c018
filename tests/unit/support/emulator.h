#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

namespace unit {

/// Whether a user-mode emulator of another processor (qemu) runs this program. It serves the system calls,
/// and not all of them.
inline bool is_emulated() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
  return getenv("KADREL_TEST_EMULATOR") != nullptr;
}

}  // namespace unit

/// Leaves out a test that needs @p WHAT of the kernel, where the emulator has no such thing.
#define NOT_UNDER_AN_EMULATOR(WHAT) \
  if (unit::is_emulated()) GTEST_SKIP() << "the emulator has no " WHAT
