#pragma once

#include <cstddef>
#include <cstdint>

#include "artnet/ArtNet.h"

/// Sizes on which the writers and readers of recordings must agree (docs/recording-format.md).

/// Longest datagram, in bytes, that the recorder receives and a recording can hold.
constexpr std::size_t kLongestDatagram = 8191;

/// Every packet begins with identifier and OpCode.
constexpr std::size_t kArtHeaderSize = sizeof(ArtHeader);
static_assert(kArtHeaderSize == kArtNetIdSize + sizeof(std::uint16_t));

/// The record between two datagrams, which holds the pause between them.
constexpr std::size_t kDelaySize = sizeof(ArtOemVfpsNs);
static_assert(kDelaySize == kArtHeaderSize + sizeof(std::int64_t), "the pause is a count of 64 bits");

/// Longest pause, in nanoseconds, that a delay record can hold: 366 days. No recorder waits longer for a
/// datagram.
constexpr std::int64_t kLongestPause = std::int64_t{366} * 24 * 3600 * 1'000'000'000;

/// Bytes of an ArtDmx before its slots.
constexpr std::size_t kDmxHeaderSize = offsetof(ArtDmx, data);
static_assert(kDmxHeaderSize + kDmxSlots == sizeof(ArtDmx));
static_assert(kDmxHeaderSize == 18 && kDelaySize == 18, "the files that are there already");
static_assert(sizeof(ArtDmx) <= kLongestDatagram);
