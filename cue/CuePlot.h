#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

#include "cue/Selection.h"

namespace cue {

struct PlotOptions {
  std::string file;
  std::string output;
  Selection selection;
  std::optional<std::uint16_t> port_address;  // one universe slot by slot; nothing: all, a band each
};

/// Most universes of one picture.
constexpr std::size_t kMostBands = 512;

/// Draws a recording as an SVG picture: time from left to right, a band for each universe or a row for each
/// slot, brightness for the level. @return exit code. @throws CueError
int run_plot(const PlotOptions& options, std::ostream& out);

}  // namespace cue
