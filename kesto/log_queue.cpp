#include "kesto/log_queue.h"

#include <utility>

namespace kesto {

void LogQueue::push(LogLine line) {
  const bool is_urgent = line.level < 0;
  while (!has_room_for(line)) {
    ++dropped;
    if (ordinary.empty() && !is_urgent) return;
    take_oldest(ordinary.empty() ? urgent : ordinary);
  }
  bytes_held += line.text.size();
  (is_urgent ? urgent : ordinary).push_back({arrived++, std::move(line)});
}

LogQueue::Next LogQueue::take() {
  Next next;
  if (until_report == 0 || size() == 0) {
    next.dropped = std::exchange(dropped, 0);
    if (next.dropped > 0) until_report = most_lines;
  }
  if (size() == 0) return next;
  const bool urgent_is_next =
      ordinary.empty() || (!urgent.empty() && urgent.front().number < ordinary.front().number);
  next.line = take_oldest(urgent_is_next ? urgent : ordinary);
  if (until_report > 0) --until_report;
  return next;
}

bool LogQueue::has_room_for(const LogLine& line) const {
  if (size() == 0) return true;
  return size() < most_lines && bytes_held + line.text.size() <= most_bytes;
}

LogLine LogQueue::take_oldest(std::deque<Entry>& lines) {
  LogLine oldest = std::move(lines.front().line);
  lines.pop_front();
  bytes_held -= oldest.text.size();
  return oldest;
}

}  // namespace kesto
