#pragma once

#include <cstddef>
#include <cstdint>

/// Where a datagram of a recording ends, and whether its bytes are such as senders send
/// (docs/recording-format.md, "Where a datagram ends").
namespace cue {

/// Whether identifier and OpCode of a delay record are at @p bytes (10 readable).
bool begins_delay(const std::uint8_t* bytes);

/// Whether they are at @p bytes with damage in two bytes at most.
bool begins_damaged_delay(const std::uint8_t* bytes);

/// Pause of the delay record at @p bytes (18 readable) in nanoseconds; negative only by damage.
std::int64_t delay_pause(const std::uint8_t* bytes);

/// Size of the whole ArtDmx at @p bytes, 0 when there is none.
std::size_t dmx_size(const std::uint8_t* bytes, std::size_t available);

/// Size of the ArtDmx at @p bytes with what its sender has added up to a rounded size, 0 when there is none.
std::size_t padded_dmx_size(const std::uint8_t* bytes, std::size_t available);

/// What follows a datagram.
enum class Behind {
  Delay,         // a delay record
  End,           // the end of the file
  CutDelay,      // the beginning of a delay record, then the end of the file
  CutPacket,     // the beginning of a packet, then the end of the file
  DamagedDelay,  // nearly a delay record
  Zeros,
  Unknown,  // other bytes that belong to no packet
  TooLong,  // a packet that would make the datagram too long
  Within,   // nothing good: a good record begins within the slots and reaches beyond them
};

/// Why what follows a datagram is damage: "cut off within a datagram".
const char* text_of(Behind behind);

struct DatagramBounds {
  std::size_t size = 0;  // of the datagram at the beginning; 0 when there is none with an ArtDmx
  Behind behind = Behind::Unknown;
  bool row = false;  // nothing but ArtDmx packets: one that begins with a later of them ends in the same way

  /// Whether what follows shows that the datagram ends there.
  bool ends_well() const {
    return behind == Behind::Delay || behind == Behind::End || behind == Behind::CutDelay ||
           behind == Behind::DamagedDelay;
  }
};

/// The datagram at @p bytes.
/// @param available  bytes of the file from there on: all, or more than a datagram and a delay record
DatagramBounds bounds_of(const std::uint8_t* bytes, std::size_t available);

}  // namespace cue
