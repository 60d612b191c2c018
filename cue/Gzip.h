#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "cue/Input.h"

namespace cue {

/// Whether a file that begins with these bytes is compressed by gzip.
bool begins_gzip(const std::uint8_t* head, std::size_t size);

/// Unpacks a gzip file (RFC 1952) of one or several members from front to back, in constant memory. Copies
/// share one position.
class Gunzip {
public:
  /// @param source  from the front of the file on
  explicit Gunzip(ByteSource source);

  /// The unpacked bytes; they end at the end of the file, or where it is damaged: then breaks_off() says so.
  ByteSource source() const;

  /// Why the bytes ended early; empty for a whole file.
  std::string breaks_off() const;

private:
  class Stream;
  std::shared_ptr<Stream> stream;
};

}  // namespace cue
