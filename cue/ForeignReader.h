#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace cue {

/// A datagram made from the content of a foreign file.
struct ForeignDatagram {
  const std::uint8_t* data = nullptr;  // valid until the next call of the reader
  std::size_t size = 0;                // bytes
  std::int64_t time = 0;  // ns since the beginning of the file's time; never before its predecessor
};

/// Reads a file of another program as Art-Net datagrams, from front to back, in constant memory.
class ForeignReader {
public:
  ForeignReader() = default;
  virtual ~ForeignReader() = default;
  ForeignReader(const ForeignReader&) = delete;
  ForeignReader& operator=(const ForeignReader&) = delete;
  ForeignReader(ForeignReader&&) = delete;
  ForeignReader& operator=(ForeignReader&&) = delete;

  /// @return false at the end, or where the file breaks off: then breaks_off() says why
  /// @throws CueError when the file cannot be read, or is not of this format
  virtual bool next(ForeignDatagram& datagram) = 0;

  /// Why the file ended early, in words; empty for a whole file.
  virtual std::string breaks_off() const { return {}; }

  /// What was left out and could not be carried over, each in a few words ("12 fragments left out").
  virtual std::vector<std::string> losses() const = 0;
};

}  // namespace cue
