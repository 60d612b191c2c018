#include "cue/Plot.h"

#include <QByteArray>
#include <QString>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <vector>

#include "cue/AtomicFile.h"
#include "cue/Csv.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/Png.h"
#include "cue/RecordingInfo.h"
#include "cue/Text.h"
#include "cue/Time.h"

namespace cue {
namespace {

// Layout in pixels of the picture.
constexpr std::size_t kColumns = 1200;  // width of the time axis
constexpr int kLeft = 120;
constexpr int kRight = 90;
constexpr int kTop = 74;
constexpr int kBottom = 44;
constexpr int kWidth = kLeft + static_cast<int>(kColumns) + kRight;
constexpr int kAllBandsHeight = 640;  // aim for all bands together
constexpr int kLowestBand = 13;
constexpr int kHighestBand = 256;
constexpr int kLowestLabelledBand = 28;  // with a second line of label
constexpr int kSlotsHeight = 640;

// A silence of a universe longer than so many of its frames is a gap. A console may miss a single frame.
constexpr double kGapFrames = 3;
constexpr std::int64_t kShortestGap = kSecond / 10;

// Index of the palette for "nothing was sent". All others are levels; level 1 looks like 0.
constexpr std::uint8_t kGapIndex = 1;

constexpr Colour kGapColour{0xC6, 0xD4, 0xE6};

/// Colours of a lamp that is faded up: from black to white.
Palette lamp_palette() {
  struct Stop {
    int level;
    Colour colour;
  };
  constexpr std::array<Stop, 5> kStops = {{{0, {0x12, 0x12, 0x1A}},
                                           {64, {0x6B, 0x2A, 0x12}},
                                           {128, {0xC8, 0x66, 0x14}},
                                           {192, {0xF6, 0xB8, 0x45}},
                                           {255, {0xFF, 0xFC, 0xEC}}}};
  Palette palette;
  std::size_t stop = 0;
  for (int level = 0; level < 256; ++level) {
    if (level > kStops[stop + 1].level) ++stop;
    const Stop& from = kStops[stop];
    const Stop& to = kStops[stop + 1];
    const auto mix = [&](std::uint8_t a, std::uint8_t b) {
      return static_cast<std::uint8_t>(a + (b - a) * (level - from.level) / (to.level - from.level));
    };
    palette[static_cast<std::size_t>(level)] = {mix(from.colour.red, to.colour.red),
                                                mix(from.colour.green, to.colour.green),
                                                mix(from.colour.blue, to.colour.blue)};
  }
  palette[kGapIndex] = kGapColour;
  return palette;
}

std::string colour_text(const Colour& colour) {
  char text[8];
  snprintf(text, sizeof text, "#%02x%02x%02x", colour.red, colour.green, colour.blue);
  return text;
}

/// Time in columns, from left to right.
struct TimeAxis {
  std::int64_t start = 0;
  std::int64_t end = 0;

  double length() const { return std::max(1.0, static_cast<double>(end - start)); }
  std::size_t column(std::int64_t time) const {
    const double part = static_cast<double>(time - start) / length();
    return std::min(kColumns - 1, static_cast<std::size_t>(part * static_cast<double>(kColumns)));
  }
};

/// Level of a group of slots: of a few slots the brightest; of many slots, where one is nearly always bright,
/// the quadratic mean.
std::uint64_t group_level(const std::uint8_t* levels, std::size_t count) {
  constexpr std::size_t kFew = 8;
  if (count <= kFew) return *std::max_element(levels, levels + count);
  std::uint64_t squares = 0;
  for (std::size_t i = 0; i < count; ++i) squares += static_cast<std::uint64_t>(levels[i]) * levels[i];
  return static_cast<std::uint64_t>(std::sqrt(static_cast<double>(squares) / static_cast<double>(count)));
}

/// One universe over time. Each row is a group of slots, each column the mean of the looks in it.
class Band {
public:
  Band(const UniverseInfo& of, std::size_t slots, std::size_t most_rows, const TimeAxis& time_axis)
      : universe(of),
        axis(time_axis),
        slots_per_row((slots + most_rows - 1) / most_rows),
        rows((slots + slots_per_row - 1) / slots_per_row),
        sums(rows, 0),
        pixels(rows * kColumns, kGapIndex) {
    const double period = of.rate() > 0 ? static_cast<double>(kSecond) / of.rate() : 0;
    gap = std::max(kShortestGap, static_cast<std::int64_t>(period * kGapFrames));
  }

  /// Adds a look. A look from before the axis counts at its beginning, unless it is too old by then.
  void add(std::int64_t time, const std::uint8_t* levels, std::size_t slots) {
    const bool before = time < axis.start;
    const std::size_t column = before ? 0 : axis.column(time);
    if (before || last < axis.start) {
      if (count > 0 && !before && time - last <= gap && column > 0) {
        close_column();
        fill(1, column);
      }
      start_column();
    } else if (count > 0 && column != current) {
      close_column();
      // A look lasts until the next; a longer silence stays a gap.
      if (time - last <= gap) fill(current + 1, column);
      start_column();
    }
    current = column;
    last = time;
    ++count;
    for (std::size_t row = 0; row < rows; ++row) {
      const std::size_t from = row * slots_per_row;
      const std::size_t to = std::min(slots, from + slots_per_row);
      if (from < to) sums[row] += group_level(levels + from, to - from);
    }
  }

  void finish() {
    if (count == 0 || (last < axis.start && axis.end - last > gap)) return;
    close_column();
    if (axis.end - last <= gap) fill(current + 1, kColumns);
  }

  std::string png(const Palette& palette) const { return make_png(kColumns, rows, pixels, palette); }

  const UniverseInfo universe;

private:
  void start_column() {
    std::fill(sums.begin(), sums.end(), 0);
    count = 0;
  }

  void close_column() {
    for (std::size_t row = 0; row < rows; ++row) {
      const auto level = static_cast<std::uint8_t>(sums[row] / count);
      pixels[row * kColumns + current] = level == kGapIndex ? 0 : level;
    }
  }

  void fill(std::size_t from, std::size_t to) {
    for (std::size_t row = 0; row < rows && from < to; ++row) {
      const auto begin = pixels.begin() + static_cast<std::ptrdiff_t>(row * kColumns);
      std::fill(begin + static_cast<std::ptrdiff_t>(from), begin + static_cast<std::ptrdiff_t>(to),
                pixels[row * kColumns + current]);
    }
  }

  const TimeAxis& axis;
  std::size_t slots_per_row;
  std::size_t rows;
  std::vector<std::uint64_t> sums;  // sums over the looks in the current column
  std::uint64_t count = 0;          // of those looks
  std::size_t current = 0;
  std::int64_t last = 0;
  std::int64_t gap = 0;
  std::vector<std::uint8_t> pixels;
};

/// Text within XML.
std::string xml_text(const std::string& text) {
  std::string escaped;
  for (const char c : QString::fromUtf8(text.data(), static_cast<int>(text.size())).toUtf8().toStdString()) {
    if (c == '&')
      escaped += "&amp;";
    else if (c == '<')
      escaped += "&lt;";
    else if (c == '>')
      escaped += "&gt;";
    else
      escaped += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
  }
  return escaped;
}

template <typename... Values>
std::string format(const char* text, Values... values) {
  char line[400];
  snprintf(line, sizeof line, text, values...);
  return line;
}

std::string text_at(double x, double y, const char* attributes, const std::string& text) {
  return format(R"(<text x="%.1f" y="%.1f" %s>)", x, y, attributes) + text + "</text>\n";
}

constexpr const char* kAtEnd = R"(text-anchor="end")";
constexpr const char* kSmallAtEnd = R"(text-anchor="end" class="small")";
constexpr const char* kCentred = R"(text-anchor="middle")";
constexpr const char* kSmall = R"(class="small")";

/// Distance of the marks on the time axis: the smallest usual one that gives at most 12 marks.
std::int64_t tick_distance(std::int64_t length) {
  constexpr std::int64_t kMs = kSecond / 1000;
  constexpr std::array<std::int64_t, 25> kUsual = {kMs,
                                                   2 * kMs,
                                                   5 * kMs,
                                                   10 * kMs,
                                                   20 * kMs,
                                                   50 * kMs,
                                                   100 * kMs,
                                                   200 * kMs,
                                                   500 * kMs,
                                                   kSecond,
                                                   2 * kSecond,
                                                   5 * kSecond,
                                                   10 * kSecond,
                                                   15 * kSecond,
                                                   30 * kSecond,
                                                   60 * kSecond,
                                                   120 * kSecond,
                                                   300 * kSecond,
                                                   600 * kSecond,
                                                   900 * kSecond,
                                                   1800 * kSecond,
                                                   3600 * kSecond,
                                                   7200 * kSecond,
                                                   21600 * kSecond,
                                                   86400 * kSecond};
  constexpr std::int64_t kMostTicks = 12;
  for (const std::int64_t distance : kUsual)
    if (length / distance <= kMostTicks) return distance;
  return length / kMostTicks;
}

/// "1:30", "2:03:04", "0.25 s".
std::string tick_text(std::int64_t time, std::int64_t distance) {
  if (distance < kSecond) return format("%.3g s", static_cast<double>(time) / static_cast<double>(kSecond));
  const auto seconds = static_cast<long long>(time / kSecond);
  if (seconds >= 3600) return format("%lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60, seconds % 60);
  return format("%lld:%02lld", seconds / 60, seconds % 60);
}

std::string image(double y, double height, const std::string& png) {
  const QByteArray base64 = QByteArray::fromRawData(png.data(), static_cast<int>(png.size())).toBase64();
  return format(
             "<image x=\"%d\" y=\"%.1f\" width=\"%zu\" height=\"%.1f\" preserveAspectRatio=\"none\" "
             "style=\"image-rendering:pixelated\" href=\"data:image/png;base64,",
             kLeft, y, kColumns, height) +
         base64.toStdString() + "\"/>\n";
}

/// The picture around the bands.
class Drawing {
public:
  Drawing(const PlotOptions& options, const RecordingInfo& info, const TimeAxis& time_axis,
          double plot_height)
      : axis(time_axis), height(plot_height) {
    const auto total = static_cast<int>(height) + kTop + kBottom;
    svg = format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" viewBox=\"0 0 %d %d\">\n",
        kWidth, total, kWidth, total);
    svg +=
        "<style>text{font:13px sans-serif;fill:#222}.small{font-size:11px;fill:#555}"
        ".title{font-size:18px;font-weight:bold}.tick{stroke:#999;stroke-width:1}"
        ".grid{stroke:#fff;stroke-opacity:.22;stroke-width:1}</style>\n";
    svg += format("<rect width=\"%d\" height=\"%d\" fill=\"#fff\"/>\n", kWidth, total);
    svg += format("<rect x=\"%d\" y=\"%d\" width=\"%zu\" height=\"%.1f\" fill=\"#8a929c\"/>\n", kLeft, kTop,
                  kColumns, height);
    const std::string& path = options.file.name();
    const std::size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    svg += text_at(kLeft, 28, "class=\"title\"", xml_text(name));
    std::string summary = format_time(info.duration) + ", " + std::to_string(info.datagrams) +
                          " datagrams, " + std::to_string(info.universes.size()) +
                          (info.universes.size() == 1 ? " universe" : " universes");
    if (axis.start > 0 || axis.end < info.duration)
      summary += "; shown from " + format_time(axis.start) + " to " + format_time(axis.end);
    svg += text_at(kLeft, 48, kSmall, summary);
    legend();
  }

  void add(const std::string& element) { svg += element; }

  std::string finish() {
    time_marks();
    return svg + "</svg>\n";
  }

private:
  void legend() {
    constexpr int kLegend = kLeft + static_cast<int>(kColumns) - 330;
    const Palette palette = lamp_palette();
    for (int step = 0; step < 16; ++step)
      svg +=
          format("<rect x=\"%d\" y=\"36\" width=\"9\" height=\"12\" fill=\"%s\"/>\n", kLegend + 34 + step * 9,
                 colour_text(palette[step == 0 ? 0 : static_cast<std::size_t>(step) * 17]).c_str());
    svg += text_at(kLegend + 28, 46, kSmallAtEnd, "level 0");
    svg += text_at(kLegend + 182, 46, kSmall, "255");
    svg += format("<rect x=\"%d\" y=\"36\" width=\"18\" height=\"12\" fill=\"%s\"/>\n", kLegend + 226,
                  colour_text(kGapColour).c_str());
    svg += text_at(kLegend + 250, 46, kSmall, "nothing sent");
  }

  void time_marks() {
    const std::int64_t distance = tick_distance(axis.end - axis.start);
    const double bottom = kTop + height;
    svg += format("<line class=\"tick\" x1=\"%d\" y1=\"%.1f\" x2=\"%d\" y2=\"%.1f\"/>\n", kLeft, bottom + 2,
                  kLeft + static_cast<int>(kColumns), bottom + 2);
    if (distance == 0) return;
    const std::int64_t first = (axis.start + distance - 1) / distance;
    for (std::int64_t mark = first; mark <= axis.end / distance; ++mark) {
      const std::int64_t time = mark * distance;
      const double x =
          kLeft + static_cast<double>(time - axis.start) / axis.length() * static_cast<double>(kColumns);
      svg += format("<line class=\"tick\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", x, bottom + 2,
                    x, bottom + 8);
      svg += format("<line class=\"grid\" x1=\"%.1f\" y1=\"%d\" x2=\"%.1f\" y2=\"%.1f\"/>\n", x, kTop, x,
                    bottom);
      svg += text_at(x, bottom + 24, kCentred, tick_text(time, distance));
    }
  }

  const TimeAxis& axis;
  double height;
  std::string svg;
};

void read_bands(const PlotOptions& options, std::map<std::uint16_t, Band>& bands, const TimeAxis& axis) {
  GoodRecords reader(options.file, options.on_damage ? [](const auto&, const auto&) {} : OnDamage());
  Record record;
  while (reader.next(record) && record.time <= axis.end) {
    for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
      const auto band = bands.find(packet.port_address);
      if (band != bands.end())
        band->second.add(record.time, record.data + packet.offset + kDmxHeaderSize, packet.slots);
    });
  }
  for (auto& [port_address, band] : bands) band.finish();
}

std::string plot_bands(const PlotOptions& options, const RecordingInfo& info, const TimeAxis& axis) {
  std::vector<UniverseInfo> shown;
  for (const UniverseInfo& universe : info.universes)
    if (!options.selection.only || options.selection.only->holds(universe.port_address))
      shown.push_back(universe);
  if (shown.empty()) throw CueError(options.file.name() + ": holds nothing to draw");
  if (shown.size() > kMostBands)
    throw CueError(options.file.name() + ": holds " + std::to_string(shown.size()) +
                   " universes; choose at most " + std::to_string(kMostBands) + " with --only");

  const int band_height =
      std::clamp(kAllBandsHeight / static_cast<int>(shown.size()), kLowestBand, kHighestBand);
  // Rows that the eye can tell apart; a low band is a single row.
  const bool is_low = band_height <= kLowestLabelledBand;
  const int distance = is_low ? 2 : 4;
  const int row_height = is_low ? band_height : band_height > 64 ? 2 : 1;
  const auto rows = static_cast<std::size_t>(std::max(1, (band_height - distance) / row_height));
  std::map<std::uint16_t, Band> bands;
  for (const UniverseInfo& universe : shown)
    bands.emplace(std::piecewise_construct, std::forward_as_tuple(universe.port_address),
                  std::forward_as_tuple(universe, std::max<std::size_t>(universe.most_slots, 1), rows, axis));
  read_bands(options, bands, axis);

  Drawing drawing(options, info, axis, static_cast<double>(shown.size()) * band_height);
  drawing.add(text_at(kLeft - 10, kTop - 8, kSmallAtEnd, "universe"));
  drawing.add(text_at(kLeft + static_cast<double>(kColumns) + 10, kTop - 8, kSmall, "rate"));
  const Palette palette = lamp_palette();
  double y = kTop;
  for (const auto& [port_address, band] : bands) {
    drawing.add(image(y, band_height - distance, band.png(palette)));
    const double middle = y + (band_height - distance) / 2.0;
    const bool second_line = !is_low;
    drawing.add(text_at(kLeft - 10, middle + (second_line ? 0 : 4), second_line ? kAtEnd : kSmallAtEnd,
                        std::to_string(port_address + 1)));
    if (second_line)
      drawing.add(text_at(
          kLeft - 10, middle + 14, kSmallAtEnd,
          port_address_text(port_address) + ", " + std::to_string(band.universe.most_slots) + " slots"));
    drawing.add(text_at(kLeft + static_cast<double>(kColumns) + 10, middle + 4, kSmall,
                        format("%.1f Hz", band.universe.rate())));
    y += band_height;
  }
  return drawing.finish();
}

std::string plot_slots(const PlotOptions& options, const RecordingInfo& info, const TimeAxis& axis) {
  const std::uint16_t wanted = choose_universe(info, options.port_address);
  const auto universe = *std::find_if(info.universes.begin(), info.universes.end(),
                                      [&](const UniverseInfo& of) { return of.port_address == wanted; });
  const std::size_t slots = std::max<std::size_t>(universe.most_slots, 1);
  std::map<std::uint16_t, Band> bands;
  bands.emplace(std::piecewise_construct, std::forward_as_tuple(wanted),
                std::forward_as_tuple(universe, slots, slots, axis));
  read_bands(options, bands, axis);

  // Rows of whole pixels, so that none looks thicker than another.
  const auto row_height = static_cast<double>(std::clamp<std::size_t>(kSlotsHeight / slots, 1, 24));
  const double height = row_height * static_cast<double>(slots);
  Drawing drawing(options, info, axis, height);
  drawing.add(text_at(kLeft + static_cast<double>(kColumns) + 10, kTop + 12, kSmall,
                      "universe " + std::to_string(wanted + 1)));
  drawing.add(
      text_at(kLeft + static_cast<double>(kColumns) + 10, kTop + 28, kSmall, port_address_text(wanted)));
  drawing.add(text_at(kLeft + static_cast<double>(kColumns) + 10, kTop + 44, kSmall,
                      format("%.1f Hz", universe.rate())));
  drawing.add(image(kTop, height, bands.begin()->second.png(lamp_palette())));
  drawing.add(text_at(kLeft - 10, kTop - 8, kSmallAtEnd, "slot"));
  std::size_t step = 1;
  while (static_cast<double>(step) * row_height < 16) step *= 2;
  for (std::size_t slot = 1; slot <= slots; slot += slot == 1 && step > 1 ? step - 1 : step)
    drawing.add(text_at(kLeft - 10, kTop + (static_cast<double>(slot) - 0.5) * row_height + 4, kSmallAtEnd,
                        std::to_string(slot)));
  return drawing.finish();
}

}  // namespace

std::int64_t plot(PlotOptions options) {
  options.file.keep();
  const RecordingInfo info = read_info(options.file, options.on_damage);
  TimeAxis axis{std::min(options.selection.start, info.duration), info.duration};
  if (options.selection.stop) axis.end = std::min(axis.end, *options.selection.stop);
  AtomicFile file(options.output, {options.file});
  const bool one = options.port_address.has_value();
  file.write(one ? plot_slots(options, info, axis) : plot_bands(options, info, axis));
  file.commit();
  return axis.end - axis.start;
}

}  // namespace cue
