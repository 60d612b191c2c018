#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "cue/Fragments.h"
#include "cue/Selection.h"

namespace cue {

/// A captured frame. The bytes belong to the source and are valid until its next call.
struct Frame {
  int link_type = 0;            // as pcap-linktype(7) counts them
  std::uint32_t interface = 0;  // counted within the capture
  Bytes bytes;                  // as many as were captured
  std::optional<std::int64_t>
      time;  // ns since 1970; nothing when there is none, or one that 64 bits cannot hold
};

/// A capture, frame by frame.
class FrameSource {
public:
  FrameSource() = default;
  virtual ~FrameSource() = default;
  FrameSource(const FrameSource&) = delete;
  FrameSource& operator=(const FrameSource&) = delete;
  FrameSource(FrameSource&&) = delete;
  FrameSource& operator=(FrameSource&&) = delete;

  /// @return false at the end, or where the capture breaks off: then breaks_off() says why
  /// @throws CueError when the file cannot be read
  virtual bool next(Frame& frame) = 0;

  /// Why the capture ended early; empty for a whole one.
  virtual std::string breaks_off() const = 0;
};

/// A UDP datagram over IPv4. The bytes are valid until the next call of the decoder.
struct UdpDatagram {
  std::uint32_t sender = 0;    // host order
  std::uint32_t receiver = 0;  // host order
  int port = 0;                // of the receiver
  bool to_many = false;        // the frame went to everybody or to a group of the link layer
  Bytes payload;
  bool cut = false;  // the capture has only the beginning, and so has the payload
};

/// What a capture holds besides UDP datagrams over IPv4, in frames.
struct FrameCounts {
  std::uint64_t frames = 0;  // all
  std::uint64_t ipv6_udp = 0;
  std::uint64_t fragments = 0;              // of UDP datagrams, put together or not
  std::uint64_t cut_fragments = 0;          // of which the capture has only the beginning
  std::uint64_t broken = 0;                 // headers that do not hold, or that the capture cut off
  std::uint64_t without_udp = 0;            // anything else
  std::map<int, std::uint64_t> link_types;  // that are not understood
};

/// Finds the UDP datagrams in frames: link layers with VLAN tags, IPv4, fragments, UDP.
class FrameDecoder {
public:
  /// @return the datagram that the frame holds or completes
  std::optional<UdpDatagram> decode(const Frame& frame);

  const FrameCounts& counts() const { return count; }

  /// Datagrams of which not all fragments were found, or fragments that contradict each other.
  std::uint64_t incomplete() const { return fragments.incomplete(); }

private:
  std::optional<UdpDatagram> ipv4(const Frame& frame, Bytes packet);
  std::optional<UdpDatagram> udp(const std::uint8_t* ip, const Bytes& captured, std::size_t size);

  Fragments fragments;
  FrameCounts count;
  std::int64_t last_time = 0;
};

}  // namespace cue
