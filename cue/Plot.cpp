#include "cue/Plot.h"

#include <QByteArray>
#include <QString>
#include <algorithm>
#include <cstdio>
#include <limits>
#include <vector>

#include "cue/AtomicFile.h"
#include "cue/Csv.h"
#include "cue/CueError.h"
#include "cue/DatagramWalk.h"
#include "cue/PlotBand.h"
#include "cue/Png.h"
#include "cue/RecordingInfo.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "cue/TimeScale.h"

namespace cue {
namespace {

// Layout in pixels of the picture.
constexpr std::size_t kColumns = 1200;  // width of the time axis
constexpr int kLeft = 100;
constexpr int kRight = 165;
constexpr int kTop = 104;
constexpr int kBottom = 44;
constexpr int kWidth = kLeft + static_cast<int>(kColumns) + kRight;
constexpr double kRightWords = kLeft + static_cast<int>(kColumns) + 10;
constexpr double kHeaderLine = kTop - 26;
constexpr double kOneScreen = 900;            // a higher picture has the times at the top too
constexpr std::size_t kAllBandsHeight = 640;  // aim for all bands together
constexpr std::size_t kLowestBand = 13;
constexpr std::size_t kHighestBand = 256;
constexpr std::size_t kFineBand = 64;            // a higher one has rows of two pixels
constexpr std::size_t kLowestLabelledBand = 28;  // with a second line of label
constexpr std::size_t kTwoLines = 30;
constexpr std::size_t kSlotsHeight = 640;
constexpr std::size_t kHighestRow = 24;
constexpr std::size_t kLeftOutHeight = 4;  // in place of slots that are not drawn

// A silence of a universe longer than so many of its frames is a gap. A console may miss a single frame.
// Senders repeat what stands at least every few seconds, so a long silence is a gap at any rate.
constexpr double kGapFrames = 3;
constexpr std::int64_t kShortestGap = kSecond / 10;
constexpr std::int64_t kLongestGap = 10 * kSecond;

// Indices of the palette that are no levels; levels 1 and 2 look like 0.
constexpr std::uint8_t kGapIndex = 1;
constexpr std::uint8_t kBackgroundIndex = 2;

constexpr Colour kGapColour{0xC6, 0xD4, 0xE6};  // nothing was sent
constexpr Colour kBackgroundColour{0x59, 0x61, 0x6B};

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
  palette[kBackgroundIndex] = kBackgroundColour;
  return palette;
}

std::string colour_text(const Colour& colour) {
  char text[8];
  snprintf(text, sizeof text, "#%02x%02x%02x", colour.red, colour.green, colour.blue);
  return text;
}

/// A picture of kColumns indices into the palette a row, from the top.
class Raster {
public:
  /// @param index  of a column
  template <typename Index>
  void add(std::size_t rows, Index&& index) {
    if (rows == 0) return;
    const std::size_t from = pixels.size();
    for (std::size_t column = 0; column < kColumns; ++column) pixels.push_back(index(column));
    for (std::size_t row = 1; row < rows; ++row)
      for (std::size_t column = 0; column < kColumns; ++column) pixels.push_back(pixels[from + column]);
  }

  void add_background(std::size_t rows) { pixels.insert(pixels.end(), rows * kColumns, kBackgroundIndex); }

  std::size_t height() const { return pixels.size() / kColumns; }
  std::string png(const Palette& palette) const { return make_png(kColumns, height(), pixels, palette); }

private:
  std::vector<std::uint8_t> pixels;
};

std::uint8_t level_index(std::uint8_t level) {
  return level == kGapIndex || level == kBackgroundIndex ? 0 : level;
}

/// The brightest slot of a universe over time.
void add_brightest(Raster& raster, const PlotBand& band, std::size_t height) {
  raster.add(height, [&](std::size_t column) {
    if (band.cell(0, column).is_gap) return kGapIndex;
    std::uint8_t brightest = 0;
    for (std::size_t row = 0; row < band.rows(); ++row)
      brightest = std::max(brightest, band.cell(row, column).peak);
    return level_index(brightest);
  });
}

void add_means(Raster& raster, const PlotBand& band, std::size_t row, std::size_t height) {
  raster.add(height, [&](std::size_t column) {
    const PlotBand::Cell cell = band.cell(row, column);
    return cell.is_gap ? kGapIndex : level_index(cell.mean);
  });
}

void add_peaks(Raster& raster, const PlotBand& band, std::size_t row, std::size_t height) {
  raster.add(height, [&](std::size_t column) {
    const PlotBand::Cell cell = band.cell(row, column);
    return cell.is_gap ? kGapIndex : level_index(cell.peak);
  });
}

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

std::string image(const Raster& raster) {
  const std::string png = raster.png(lamp_palette());
  const QByteArray base64 = QByteArray::fromRawData(png.data(), static_cast<int>(png.size())).toBase64();
  return format(
             "<image x=\"%d\" y=\"%d\" width=\"%zu\" height=\"%zu\" preserveAspectRatio=\"none\" "
             "style=\"image-rendering:pixelated\" href=\"data:image/png;base64,",
             kLeft, kTop, kColumns, raster.height()) +
         base64.toStdString() + "\"/>\n";
}

/// The times at both ends of a part, as exact as its length wants.
std::string part_text(const PlotAxis& axis) {
  constexpr std::int64_t kMillisecond = kSecond / 1000;
  if (axis.end - axis.start >= kSecond || (axis.start % kMillisecond == 0 && axis.end % kMillisecond == 0))
    return format_time(axis.start) + " to " + format_time(axis.end);
  constexpr int kNanoseconds = 9;
  return clock_text(axis.start, kNanoseconds) + " to " + clock_text(axis.end, kNanoseconds);
}

/// The picture around the looks.
class Drawing {
public:
  /// @param explanation  of what is drawn, one line
  Drawing(const PlotOptions& options, const RecordingInfo& info, const PlotAxis& time_axis,
          const Raster& raster, const std::string& explanation)
      : axis(time_axis), height(static_cast<double>(raster.height())) {
    const auto total = static_cast<int>(height) + kTop + kBottom;
    svg = format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" viewBox=\"0 0 %d %d\">\n",
        kWidth, total, kWidth, total);
    svg +=
        "<style>text{font:13px sans-serif;fill:#222}.small{font-size:11px;fill:#555}"
        ".title{font-size:18px;font-weight:bold}.tick{stroke:#999;stroke-width:1}"
        ".grid{stroke:#fff;stroke-opacity:.22;stroke-width:1}</style>\n";
    svg += format("<rect width=\"%d\" height=\"%d\" fill=\"#fff\"/>\n", kWidth, total);
    svg += image(raster);
    const std::string& path = options.file.name();
    const std::size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    svg += text_at(kLeft, 28, "class=\"title\"", xml_text(name));
    std::string summary = format_time(info.duration) + ", " + counted(info.datagrams, "datagram") + ", " +
                          counted(info.universes.size(), "universe");
    if (axis.start > 0 || axis.end < info.duration) summary += "; shown from " + part_text(axis);
    svg += text_at(kLeft, 48, kSmall, summary);
    svg += text_at(kLeft, 64, kSmall, explanation);
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
    const double bottom = kTop + height;
    add_line(kLeft, bottom + 2, kLeft + static_cast<double>(kColumns), bottom + 2, "tick");
    for (const Tick& tick : time_ticks(axis.start, axis.end, static_cast<double>(kColumns))) {
      const double x = kLeft + axis.position(tick.time);
      add_line(x, bottom + 2, x, bottom + 8, "tick");
      add_line(x, kTop, x, bottom, "grid");
      svg += text_at(x, bottom + 24, kCentred, tick.text);
      if (height <= kOneScreen) continue;
      add_line(x, kTop - 8, x, kTop - 2, "tick");
      svg += text_at(x, kTop - 12, kCentred, tick.text);
    }
  }

  void add_line(double x1, double y1, double x2, double y2, const char* kind) {
    svg += format("<line class=\"%s\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", kind, x1, y1, x2,
                  y2);
  }

  const PlotAxis& axis;
  double height;
  std::string svg;
};

/// A universe in a picture.
struct Shown {
  UniverseInfo universe;
  SlotsInUse in_use;

  std::size_t slots() const { return std::max<std::size_t>(universe.most_slots, 1); }

  /// Longest pause over which a look stands.
  std::int64_t longest_pause() const {
    const double period = universe.rate() > 0 ? static_cast<double>(kSecond) / universe.rate() : 0;
    return static_cast<std::int64_t>(
        std::clamp(period * kGapFrames, static_cast<double>(kShortestGap), static_cast<double>(kLongestGap)));
  }

  std::string slots_text() const {
    if (in_use.count() == universe.most_slots) return counted(universe.most_slots, "slot");
    return std::to_string(in_use.count()) + " of " + counted(universe.most_slots, "slot");
  }
};

/// Calls @p visit with the number in @p shown of each ArtDmx of these universes, its time, levels and slots.
template <typename Visit>
void for_each_look(const PlotOptions& options, const std::vector<Shown>& shown, std::int64_t end,
                   Visit&& visit) {
  constexpr std::size_t kNot = SIZE_MAX;
  std::vector<std::size_t> numbers(UniverseSet::kPortAddresses, kNot);
  for (std::size_t number = 0; number < shown.size(); ++number)
    numbers[shown[number].universe.port_address] = number;
  GoodRecords records(options.file, options.on_damage ? [](const auto&, const auto&) {} : OnDamage());
  Record record;
  while (records.next(record) && record.time <= end) {
    for_each_dmx(record.data, record.size, [&](const DmxPacket& packet) {
      const std::size_t number = numbers[packet.port_address];
      if (number != kNot)
        visit(number, record.time, record.data + packet.offset + kDmxHeaderSize, packet.slots);
    });
  }
}

/// Finds the slots in use. The whole recording counts, so that every part of it is drawn with the same rows.
void find_slots_in_use(const PlotOptions& options, std::vector<Shown>& shown) {
  for_each_look(options, shown, std::numeric_limits<std::int64_t>::max(),
                [&](std::size_t number, std::int64_t, const std::uint8_t* levels, std::size_t slots) {
                  shown[number].in_use.add(levels, slots);
                });
}

/// Draws the looks. @param bands  of the universes shown, in the same order
void read_bands(const PlotOptions& options, const RecordingInfo& info, const PlotAxis& axis,
                const std::vector<Shown>& shown, std::vector<PlotBand>& bands) {
  // Whether a look stands up to the end of the axis is told by the next one.
  const std::int64_t end = axis.end + std::min(kLongestGap, info.duration - axis.end);
  for_each_look(options, shown, end,
                [&](std::size_t number, std::int64_t time, const std::uint8_t* levels, std::size_t slots) {
                  bands[number].add(time, levels, slots);
                });
  for (PlotBand& band : bands) band.finish(end);
}

/// Rows and heights of the bands of a picture, in pixels.
struct BandLayout {
  std::size_t highest = 0;  // a band without the space below it
  bool is_low = false;      // a single row, and a single line of words beside it
  std::size_t brightest_height = 0;
  std::size_t line_height = 0;  // between the brightest slot and the rows

  explicit BandLayout(std::size_t bands) {
    const std::size_t pitch = std::clamp(kAllBandsHeight / bands, kLowestBand, kHighestBand);
    is_low = pitch <= kLowestLabelledBand;
    highest = pitch - distance();
    brightest_height = is_low ? 2 : pitch > kFineBand ? 6 : 4;
    line_height = is_low ? 0 : 1;
  }

  std::size_t distance() const { return is_low ? 2 : 6; }
  std::size_t rows_height() const { return highest - brightest_height - line_height; }

  /// Rows that the eye can tell apart.
  std::size_t most_rows() const { return is_low ? 1 : rows_height() / (highest > kFineBand ? 2 : 1); }

  /// Adds a band with the space below it. @return its middle, in pixels from the top
  double add(Raster& raster, const PlotBand& band) const {
    const std::size_t top = raster.height();
    add_brightest(raster, band, brightest_height);
    raster.add_background(line_height);
    const std::size_t row_height =
        is_low ? rows_height() : std::clamp<std::size_t>(rows_height() / band.rows(), 1, kHighestRow);
    for (std::size_t row = 0; row < band.rows(); ++row) add_means(raster, band, row, row_height);
    const std::size_t height = raster.height() - top;
    const std::size_t least = is_low ? 0 : kTwoLines;
    raster.add_background(std::max(height, least) - height + distance());
    return static_cast<double>(top) + static_cast<double>(std::max(height, least)) / 2;
  }
};

std::vector<Shown> shown_universes(const PlotOptions& options, const RecordingInfo& info) {
  std::vector<Shown> shown;
  for (const UniverseInfo& universe : info.universes)
    if (!options.selection.only || options.selection.only->holds(universe.port_address))
      shown.push_back({universe, {}});
  if (shown.empty()) throw CueError(options.file.name() + ": holds nothing to draw");
  if (shown.size() > kMostBands)
    throw CueError(options.file.name() + ": holds " + std::to_string(shown.size()) +
                   " universes; choose at most " + std::to_string(kMostBands) + " with --only");
  return shown;
}

/// The words beside a band.
void add_band_words(Drawing& drawing, const Shown& of, bool is_low, double middle) {
  const std::string number = std::to_string(of.universe.port_address + 1);
  const std::string rate = format("%.1f Hz", of.universe.rate());
  if (is_low) {
    drawing.add(text_at(kLeft - 10, middle + 4, kSmallAtEnd, number));
    drawing.add(text_at(kRightWords, middle + 4, kSmall, rate + ", " + of.slots_text()));
    return;
  }
  drawing.add(text_at(kLeft - 10, middle - 2, kAtEnd, number));
  drawing.add(text_at(kLeft - 10, middle + 12, kSmallAtEnd, port_address_text(of.universe.port_address)));
  drawing.add(text_at(kRightWords, middle - 2, kSmall, rate));
  drawing.add(text_at(kRightWords, middle + 12, kSmall, of.slots_text()));
}

std::string plot_bands(const PlotOptions& options, const RecordingInfo& info, const PlotAxis& axis) {
  std::vector<Shown> shown = shown_universes(options, info);
  find_slots_in_use(options, shown);
  const BandLayout layout(shown.size());
  std::vector<PlotBand> bands;
  bands.reserve(shown.size());
  for (const Shown& of : shown)
    bands.emplace_back(of.in_use.alone(of.slots()), layout.most_rows(), of.longest_pause(), axis);
  read_bands(options, info, axis, shown, bands);

  Raster raster;
  std::vector<double> middles;
  middles.reserve(bands.size());
  for (const PlotBand& band : bands) middles.push_back(kTop + layout.add(raster, band));
  Drawing drawing(options, info, axis, raster,
                  layout.is_low ? "Each band: the level of the slots in use (ever above 0), and above it the "
                                  "brightest of them."
                                : "Each band: the slots in use (ever above 0) from top to bottom, and above "
                                  "them a line for the brightest.");
  drawing.add(text_at(kLeft - 10, kHeaderLine, kSmallAtEnd, "universe"));
  drawing.add(text_at(kRightWords, kHeaderLine, kSmall, "rate, slots in use"));
  for (std::size_t number = 0; number < shown.size(); ++number)
    add_band_words(drawing, shown[number], layout.is_low, middles[number]);
  return drawing.finish();
}

/// The slots of one universe, each in a row of its own, and their numbers.
class SlotRows {
public:
  explicit SlotRows(const PlotBand& of)
      : band(of), row_height(std::clamp<std::size_t>(kSlotsHeight / of.rows(), 1, kHighestRow)) {
    // The brightest of all, where rows are too low for a line each.
    if (!has_peaks()) {
      add_brightest(raster, band, 8);
      raster.add_background(2);
    }
    for (std::size_t row = 0; row < band.rows(); ++row) add_row(row);
  }

  bool has_peaks() const { return row_height >= 6; }
  const Raster& picture() const { return raster; }

  /// The numbers that have room.
  std::string numbers() const {
    constexpr double kLine = 13;
    const std::vector<std::uint16_t>& slots = band.slots();
    std::size_t step = 1;
    for (const std::size_t round : {2U, 5U, 10U, 20U, 50U})
      if (static_cast<double>(step * row_height) < kLine) step = round;
    std::string texts;
    double free = 0;
    for (std::size_t row = 0; row < slots.size(); ++row) {
      const bool begins = row == 0 || slots[row] != slots[row - 1] + 1;
      const std::size_t number = slots[row] + std::size_t{1};
      const double middle = middles[row];
      if ((!begins && number % step != 0) || middle < free) continue;
      texts += text_at(kLeft - 10, kTop + middle + 4, kSmallAtEnd, std::to_string(number));
      free = middle + kLine;
    }
    return texts;
  }

private:
  void add_row(std::size_t row) {
    const std::vector<std::uint16_t>& slots = band.slots();
    if (row > 0 && slots[row] != slots[row - 1] + 1) raster.add_background(kLeftOutHeight);
    middles.push_back(static_cast<double>(raster.height()) + static_cast<double>(row_height) / 2);
    if (has_peaks()) {
      const std::size_t peak_height = std::max<std::size_t>(1, row_height / 5);
      add_peaks(raster, band, row, peak_height);
      add_means(raster, band, row, row_height - peak_height - 1);
      raster.add_background(1);
    } else {
      add_means(raster, band, row, row_height);
    }
  }

  const PlotBand& band;
  std::size_t row_height;
  Raster raster;
  std::vector<double> middles;  // of the rows
};

std::string plot_slots(const PlotOptions& options, const RecordingInfo& info, const PlotAxis& axis) {
  const std::uint16_t wanted = choose_universe(info, options.port_address);
  std::vector<Shown> shown = {{*std::find_if(info.universes.begin(), info.universes.end(),
                                             [&](const auto& of) { return of.port_address == wanted; }),
                               {}}};
  find_slots_in_use(options, shown);
  const Shown& of = shown.front();
  std::vector<PlotBand> bands;
  bands.emplace_back(of.in_use.together(of.slots()), of.slots(), of.longest_pause(), axis);
  read_bands(options, info, axis, shown, bands);

  const SlotRows rows(bands.front());
  Drawing drawing(options, info, axis, rows.picture(),
                  rows.has_peaks()
                      ? "Each slot: its mean level over time, and above it a line for the highest."
                      : "Each slot: its mean level over time; at the top the brightest of all.");
  drawing.add(text_at(kLeft - 10, kHeaderLine, kSmallAtEnd, "slot"));
  drawing.add(rows.numbers());
  double y = kTop + 12;
  std::vector<std::string> beside = {"universe " + std::to_string(wanted + 1), port_address_text(wanted),
                                     format("%.1f Hz", of.universe.rate()), of.slots_text() + " in use"};
  const std::size_t left_out = of.slots() - bands.front().slots().size();
  if (left_out > 0) {
    beside.push_back(left_out == 1 ? "1 slot that stays" : counted(left_out, "slot") + " that stay");
    beside.emplace_back(left_out == 1 ? "at 0 is left out" : "at 0 are left out");
  }
  for (const std::string& words : beside) {
    drawing.add(text_at(kRightWords, y, kSmall, words));
    y += 16;
  }
  return drawing.finish();
}

PlotAxis axis_of(const PlotOptions& options, const RecordingInfo& info) {
  PlotAxis axis{options.selection.start, info.duration, kColumns};
  if (options.selection.stop) axis.end = std::min(axis.end, *options.selection.stop);
  if (axis.start > info.duration)
    throw CueError(options.file.name() + ": ends at " + format_time(info.duration) + ", before " +
                   format_time(axis.start));
  axis.end = std::max(axis.start, axis.end);
  return axis;
}

}  // namespace

std::int64_t plot(PlotOptions options) {
  AtomicFile file(options.output, {options.file});
  options.file.keep();
  const RecordingInfo info = read_info(options.file, options.on_damage);
  const PlotAxis axis = axis_of(options, info);
  const bool one = options.port_address.has_value();
  file.write(one ? plot_slots(options, info, axis) : plot_bands(options, info, axis));
  file.commit();
  return axis.end - axis.start;
}

}  // namespace cue
