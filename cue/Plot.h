#pragma once

#include <cstdint>
#include <optional>

#include "cue/AtomicFile.h"
#include "cue/GoodRecords.h"
#include "cue/Input.h"
#include "cue/Selection.h"

namespace cue {

struct PlotOptions {
  Input file;
  Output output;
  OnDamage on_damage;  // see GoodRecords
  Selection selection;
  std::optional<std::uint16_t> port_address;  // one universe, slot by slot; nothing: all, one band each
};

/// Most universes in one picture.
constexpr std::size_t kMostBands = 512;

/// Draws a recording as an SVG picture: time from left to right, a band for each universe or a row for each
/// slot, brightness for the level. @return length of the time axis in ns. @throws CueError
std::int64_t plot(PlotOptions options);

}  // namespace cue
