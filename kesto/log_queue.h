#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace kesto {

/// A finished line on its way to its output.
struct LogLine {
  int level = 0;            // of the message, signed: errors and warnings are below 0
  std::int32_t output = 0;  // a Logger::Output, the one in force when the line was logged
  std::string text;         // without a newline at its end
};

/// The lines that wait for a log, oldest first, within two bounds. A new line that finds no room takes that
/// of the oldest lines that are neither error nor warning; when there are none left, an error or warning
/// takes that of the oldest of its kind, and any other line is dropped itself. A line that is larger than the
/// whole queue is taken while the queue is empty. No locks, no waits: the owner guards it.
class LogQueue {
public:
  /// What is to be written next: first how many lines were dropped (0: nothing is to be said), then a line,
  /// if there is one.
  struct Next {
    std::size_t dropped = 0;
    std::optional<LogLine> line;
  };

  /// Holds at most @p lines lines, and at most @p bytes bytes of text.
  LogQueue(std::size_t lines, std::size_t bytes) : most_lines(lines), most_bytes(bytes) {}

  void push(LogLine line);

  /// What is to be written next leaves the queue. Dropped lines are told of before the first line that leaves
  /// after them; again only when the queue has run empty or as many lines as it holds have left, so that a
  /// lasting flood does not drown in such reports.
  Next take();

  /// Whether there is nothing to be written, not even that lines were dropped.
  bool empty() const { return size() == 0 && dropped == 0; }

private:
  struct Entry {
    std::uint64_t number;  // in order of arrival
    LogLine line;
  };

  std::size_t size() const { return urgent.size() + ordinary.size(); }
  bool has_room_for(const LogLine& line) const;
  LogLine take_oldest(std::deque<Entry>& lines);

  // Constant after construction.
  std::size_t most_lines;
  std::size_t most_bytes;

  std::deque<Entry> urgent;  // errors and warnings
  std::deque<Entry> ordinary;
  std::size_t bytes_held = 0;
  std::uint64_t arrived = 0;
  std::size_t dropped = 0;       // not told yet
  std::size_t until_report = 0;  // lines that leave before dropped lines are told of again
};

}  // namespace kesto
