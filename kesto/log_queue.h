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
  std::int32_t output = 0;  // the Logger::Output in force when the line was logged
  std::string text;         // without a newline at its end
};

/// The lines that wait for a log, oldest first, within two bounds: lines and bytes. A new line that finds no
/// room displaces the oldest ordinary lines (neither error nor warning). Without any ordinary line left, an
/// error or warning displaces the oldest errors and warnings, and an ordinary line is dropped itself. A line
/// larger than the whole queue is taken while the queue is empty. No locks, no waits: the owner guards it.
class LogQueue {
public:
  /// What to write next: the number of dropped lines (0: no report), then a line, if there is one.
  struct Next {
    std::size_t dropped = 0;
    std::optional<LogLine> line;
  };

  /// Holds at most @p lines lines, and at most @p bytes bytes of text.
  LogQueue(std::size_t lines, std::size_t bytes) : most_lines(lines), most_bytes(bytes) {}

  void push(LogLine line);

  /// Takes out what to write next. Dropped lines are reported before the next line that leaves. The next
  /// report waits until the queue is empty or a whole queue of lines has left, so that reports do not fill
  /// the log during a flood.
  Next take();

  /// Whether there is nothing to write, neither a line nor a report of dropped lines.
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
  std::size_t dropped = 0;       // not reported yet
  std::size_t until_report = 0;  // lines that leave before the next report
};

}  // namespace kesto
