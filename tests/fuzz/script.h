#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "artnet/ArtNet.h"

/// Input of a fuzz target, read from front to back; after its end everything is 0.
class Script {
public:
  Script(const std::uint8_t* data, std::size_t size) : next(data), left(size) {}

  bool at_end() const { return left == 0; }

  std::uint8_t byte() {
    if (left == 0) return 0;
    --left;
    return *next++;
  }

  std::uint16_t word() {
    const unsigned low = byte();
    return static_cast<std::uint16_t>(low | static_cast<unsigned>(byte()) << 8U);
  }

  /// Any number; small ones and the bounds of the settings are the most likely.
  std::int32_t number() {
    static constexpr std::int32_t kBounds[] = {-1,  0,   1,     2,     3,  255,       256,
                                               512, 513, 32768, 32769, -2, INT32_MAX, INT32_MIN};
    const unsigned choice = byte();
    if (choice < 32) return kBounds[choice % (sizeof kBounds / sizeof *kBounds)];
    if (choice < 128) return byte();
    if (choice < 192) return word();
    const std::uint32_t low = word();
    return static_cast<std::int32_t>(low | static_cast<std::uint32_t>(word()) << 16U);
  }

  /// As many bytes as there are, @p size at most.
  std::vector<char> bytes(std::size_t size) {
    if (size > left) size = left;
    std::vector<char> taken(next, next + size);
    next += size;
    left -= size;
    return taken;
  }

private:
  const std::uint8_t* next;
  std::size_t left;
};

/// Ends the process with a message where the fuzzer sees it.
#define REQUIRE(condition)                                                             \
  do {                                                                                 \
    if (!(condition)) {                                                                \
      fprintf(stderr, "%s:%d: not as expected: %s\n", __FILE__, __LINE__, #condition); \
      abort();                                                                         \
    }                                                                                  \
  } while (false)
