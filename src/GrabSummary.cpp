#include "src/GrabSummary.h"

#include <algorithm>
#include <cstdio>
#include <utility>

std::string grab_report(const GrabSummary& summary) {
  std::string universes;
  for (const qint32 universe : summary.universes) {
    if (!universes.empty()) universes += ", ";
    universes += std::to_string(universe);
  }
  const QByteArray file_name = summary.file_name.toLocal8Bit();
  const auto print = [&](char* text, std::size_t size) {
    return snprintf(text, size, R"({"filename": "%s", "empty": %s, "uniceil": %d, "universes": [%s]})",
                    file_name.constData(), summary.empty ? "true" : "false", summary.universe_ceiling,
                    universes.c_str());
  };
  const int length = print(nullptr, 0);
  if (length < 0) return {};
  std::string report(static_cast<std::size_t>(length) + 1, '\0');
  print(report.data(), report.size());
  report.pop_back();
  return report;
}

ConcludedGrab conclude(GrabFigures figures, const ClosedFile& file) {
  ConcludedGrab grab;
  grab.summary.file_name = file.name;
  grab.summary.empty = file.empty;
  grab.dropped_at_end = figures.dropped + file.given_up;
  grab.recovered_at_end = figures.waits && grab.dropped_at_end == 0;
  grab.losses = figures.losses;
  grab.datagrams = figures.packet_count;
  grab.length = figures.length;
  if (file.given_up > 0) {
    // These may be older than what was dropped when there was no room left.
    grab.losses.note(0, file.given_up, figures.length - file.given_up_pauses);
    const qint64 kept = figures.packet_count - static_cast<qint64>(file.given_up);
    grab.datagrams = kept;
    grab.length -= file.given_up_pauses;
    figures.universe_ceiling = -1;
    for (const FirstRecord& first : figures.first_records) {
      if (first.number > kept)
        figures.universes.erase(first.universe);
      else
        figures.universe_ceiling = std::max(figures.universe_ceiling, first.universe);
    }
  }
  grab.summary.universe_ceiling = figures.universe_ceiling;
  grab.summary.universes = std::move(figures.universes);
  return grab;
}
