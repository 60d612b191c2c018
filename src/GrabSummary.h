#pragma once

#include <QString>
#include <string>
#include <unordered_set>

/// Summary of a finished recording.
struct GrabSummary {
  QString file_name;
  bool empty = true;                     // the file had size 0
  qint32 universe_ceiling = -1;          // highest port-address recorded, -1: none
  std::unordered_set<qint32> universes;  // 0-based port-addresses
};

/// JSON text of a summary; the file name (local 8-bit encoding) is not escaped.
std::string grab_report(const GrabSummary& summary);
