#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cue/AtomicFile.h"
#include "cue/Capture.h"
#include "cue/ForeignReader.h"
#include "cue/Input.h"

namespace cue {

/// What the formats are told; each takes what concerns it.
struct ImportOptions {
  CaptureOptions capture;
};

/// A file of another program, recognised by its content.
struct ForeignFile {
  const char* format = nullptr;  // "pcap"
  std::unique_ptr<ForeignReader> reader;
};

/// Bytes by which every format is recognised.
constexpr std::size_t kForeignFront = 64;

/// What a file is that can be imported, by its first bytes: "a capture, see kadrel-cue import". Empty for
/// everything else.
std::string foreign_kind(const std::vector<std::uint8_t>& front);

/// Opens a recording. @throws CueError when it cannot be opened, or is such a file of another program
ByteSource open_recording(const Input& input);

/// Opens a file of any format that is known; it may be compressed by gzip. Reads it once from front to back.
/// @throws CueError when the file cannot be read or its content is not recognised
ForeignFile open_foreign(const Input& input, const ImportOptions& options);

/// The same of bytes that @p input would deliver.
ForeignFile open_foreign(ByteSource source, const Input& input, const ImportOptions& options);

/// Outcome of an import.
struct Imported {
  const char* format = nullptr;  // as in ForeignFile
  std::uint64_t datagrams = 0;
  std::int64_t duration = 0;        // ns
  std::vector<std::string> losses;  // what was left out, each in a few words
  std::string breaks_off;           // why the file ended early; empty for a whole one
};

/// Makes a recording of a file of another program. Of a file that breaks off, the good part is written.
/// @throws CueError when the file cannot be read, its content is not recognised, or there is nothing to
/// import; then nothing is written
Imported import_recording(const Input& input, const ImportOptions& options, const Output& output);

}  // namespace cue
