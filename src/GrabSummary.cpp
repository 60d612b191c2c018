#include "src/GrabSummary.h"

#include <cstdio>

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
