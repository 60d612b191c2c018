#pragma once

#include <cstddef>
#include <cstdint>

#include "artnet/ArtNet.h"

/// The sizes that whoever writes a recording and whoever reads one must agree on (docs/recording-format.md).

/// Longest datagram that the recorder takes from its socket and that a recording can hold, in bytes.
constexpr std::size_t kLongestDatagram = 8191;

/// Identifier and OpCode, with which every packet begins.
constexpr std::size_t kArtHeaderSize = sizeof(ArtHeader);
static_assert(kArtHeaderSize == kArtNetIdSize + sizeof(std::uint16_t));

/// The record that stands between two datagrams and holds the pause between them.
constexpr std::size_t kDelaySize = sizeof(ArtOemVfpsNs);
static_assert(kDelaySize == kArtHeaderSize + sizeof(std::int64_t), "the pause is a count of 64 bits");

/// Bytes of an ArtDmx before its slots.
constexpr std::size_t kDmxHeaderSize = offsetof(ArtDmx, data);
static_assert(kDmxHeaderSize + kDmxSlots == sizeof(ArtDmx));
static_assert(kDmxHeaderSize == 18 && kDelaySize == 18, "the files that are there already");
static_assert(sizeof(ArtDmx) <= kLongestDatagram);
