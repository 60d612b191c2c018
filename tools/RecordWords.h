#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "cue/Selection.h"

/// Names and words of a recording that is made now.
namespace kadrel_cue {

/// Date and time, as strftime(3) writes them.
constexpr const char* kDefaultName = "%Y-%m-%d_%H-%M-%S.cue";

/// A file name by date and time. @param pattern  with conversions of strftime(3)
/// @return nothing when that is no name in a folder: empty, longer than 255 bytes, ".", "..", with '/' or
///         control characters
std::optional<std::string> name_by_time(const std::string& pattern, const std::tm& time);

/// "show.cue" as "show-2.cue" where @p number is 2; 1: as it is.
std::string numbered_name(const std::string& name, int number);

/// The hidden file beside the recording @p name, for the time before the first change: ".show.cue.waiting".
/// Of a long name only the front, so that it stays a name of UTF-8 when it is numbered, too.
std::string waiting_name(const std::string& name);

/// Whether a terminal would take a part of a text as a command: control characters (C0, DEL, C1). @param text
/// UTF-8
bool has_control_characters(const std::string& text);

/// Whether D-Bus takes a text: UTF-8 (RFC 3629).
bool is_utf8(const std::string& text);

/// "812 B", "1.2 MB", "3.45 GB"; decimal, as disks are sold.
std::string size_text(std::uint64_t bytes);

/// Universes of @p wanted that @p present does not hold, counted from 1.
std::vector<int> missing_universes(const cue::UniverseSet& wanted, const cue::UniverseSet& present);

/// What the live line shows.
struct RecordLine {
  enum class Phase {
    Armed,    // no datagram is recorded yet
    Waiting,  // for the first changed level
    Recording,
  };
  Phase phase = Phase::Armed;
  std::int64_t time = 0;                  // ns since the first datagram; Armed: of waiting
  std::optional<std::int64_t> length;     // ns, after which it ends
  std::optional<std::int64_t> unchanged;  // ns since the last changed level
  std::optional<std::int64_t> silence;    // ns without a changed level, after which it ends
  std::size_t universes = 0;
  std::uint64_t rate = 0;     // datagrams per second
  std::uint64_t bytes = 0;    // of the file
  std::uint64_t lost = 0;     // datagrams, by their numbers
  std::uint64_t dropped = 0;  // by the socket of the service
};

/// "recording 1:23  64 universes  2816/s  125.3 MB  lost 0". @param columns  at most so many bytes
std::string line_text(const RecordLine& line, std::size_t columns);

}  // namespace kadrel_cue
