#include "tools/TopView.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <set>

#include "cue/Text.h"
#include "cue/Time.h"
#include "cue/live/PrintableText.h"
#include "tools/Arguments.h"
#include "tools/TopTable.h"

namespace kadrel_cue {
namespace {

// Lines at the bottom of every screen.
constexpr std::size_t kFoot = 1;

// Fewer lines have no room for the totals of each kind.
constexpr std::size_t kRowsForKinds = 8;

// Lines about what is not as it should be take at most this part of the screen.
constexpr std::size_t kAlertPart = 4;

// Lines of the levels above the slots.
constexpr std::size_t kLevelHead = 2;

// Slots of a line, as numbers that are easy to count on from.
constexpr std::array kLevelColumns{50, 40, 30, 25, 20, 10, 5};
constexpr std::size_t kSlotLabel = 4;
constexpr std::size_t kCell = 3;

constexpr std::size_t kLongestFilter = 60;

constexpr std::array kSortNames{"universe", "sender", "rate", "jitter", "lost", "highest level", "age"};

constexpr const char* kHelp[] = {
    "arrows, page, home, end  choose a line, or a slot",
    "enter                    levels of the chosen universe, and back",
    "tab, shift-tab           the next, the previous universe",
    "s, S, r                  sort by the next, the previous column; turn round",
    "/                        filter: universes such as 1,3,5-8, a part of sender,",
    "                         name or way, or ! for several senders",
    "p, space                 pause: the screen stands still, counting goes on",
    "x                        levels in per cent (FL: full) or hexadecimal",
    "?, h                     this help",
    "q                        end",
    "",
    "Univ       universe, counted from 1; beside it net:sub-net:universe",
    "  !        several senders are on this universe",
    "  -, x     silent for more than 5 s; ended by its source (E1.31)",
    "Way        Art-Net or E1.31 (sACN): bc broadcast, mc multicast, uc unicast",
    "Sender     address, and the name that it told; Prio: priority of E1.31",
    "Hz, Jit    datagrams per second; mean deviation of their intervals in ms",
    "Lost       datagrams missing by number, -: not numbered; Disor: late or twice",
    "Slot, Max  slots of the last datagram, and its highest level, 0 to 255",
    "Age        seconds since the last datagram; Total: datagrams",
    "Levels     the number of a slot is that at the left plus that above it",
};

std::string cut(std::string line, std::size_t columns) {
  if (line.size() > columns) line.resize(columns);
  return line;
}

/// @p left and @p right at the two ends of a line; the left one is cut when it is too long, and the right one
/// is left out when it leaves no room at all.
std::string at_both_ends(const std::string& left, const std::string& right, std::size_t columns) {
  if (right.size() + 1 > columns) return cut(left, columns);
  if (left.size() + right.size() > columns)
    return left_aligned(left, columns - right.size() - 1) + ' ' + right;
  return left + std::string(columns - left.size() - right.size(), ' ') + right;
}

/// The same, but the right one is left out where there is no room for both.
std::string with_hint(const std::string& text, const std::string& hint, std::size_t columns) {
  return text.size() + hint.size() + 2 > columns ? text : at_both_ends(text, hint, columns);
}

/// A line over the whole width, as inverse lines want it.
TopLine bar(const std::string& text, TopStyle style, std::size_t columns) {
  return {left_aligned(text, columns), style};
}

std::string rate_text(double rate) {
  std::array<char, 64> text{};
  snprintf(text.data(), text.size(), "%.*f", rate < 9.95 ? 1 : 0, rate);
  return text.data();
}

/// "Sync 1029 (44/s)  "; nothing for packets that have not been seen.
std::string kind_text(const char* name, const cue::KindFigures& kind) {
  if (kind.packets == 0) return "";
  std::string text = "  " + std::string(name) + ' ' + short_count(kind.packets);
  if (kind.rate > 0) text += " (" + rate_text(kind.rate) + "/s)";
  return text;
}

std::string artnet_text(const cue::TrafficFigures& traffic) {
  return " Art-Net" + kind_text("DMX", traffic.art_dmx) + kind_text("Sync", traffic.art_sync) +
         kind_text("Poll", traffic.art_poll) + kind_text("Reply", traffic.art_poll_reply) +
         kind_text("other", traffic.art_other);
}

std::string sacn_text(const cue::TrafficFigures& traffic) {
  return " E1.31  " + kind_text("data", traffic.sacn_data) + kind_text("sync", traffic.sacn_sync) +
         kind_text("discovery", traffic.sacn_discovery) + kind_text("other", traffic.sacn_other) +
         kind_text("neither of the two", traffic.broken);
}

double datagrams_per_second(const cue::TrafficFigures& traffic) {
  double rate = 0;
  for (const cue::TrafficKind& kind : cue::kTrafficKinds) rate += (traffic.*kind.figures).rate;
  return rate;
}

template <typename Is>
std::vector<std::uint16_t> universes_that(const cue::TrafficFigures& traffic, Is is) {
  std::set<std::uint16_t> found;
  for (const cue::StreamFigures& stream : traffic.streams)
    if (is(stream)) found.insert(stream.universe);
  return {found.begin(), found.end()};
}

/// What is not as it should be, the worst first.
std::vector<std::string> alerts(const TopFigures& shown) {
  std::vector<std::string> found;
  if (shown.lost > 0)
    found.push_back(cue::counted(shown.lost, "datagram") + " not seen: this computer was too slow");
  for (const std::string& note : shown.notes) found.push_back(cue::ascii_text(note));
  const auto contested = universes_that(shown.traffic, [](const auto& stream) { return stream.contested; });
  if (!contested.empty()) found.push_back("! several senders on universe " + universes_text(contested));
  const auto silent = universes_that(shown.traffic, [](const auto& stream) { return is_silent(stream); });
  if (!silent.empty()) found.push_back("- silent for more than 5 s: universe " + universes_text(silent));
  if (shown.traffic.streams_not_shown > 0)
    found.push_back("more senders and universes than can be followed: one made room " +
                    cue::counted(shown.traffic.streams_not_shown, "time"));
  return found;
}

std::string lower(std::string text) {
  for (char& letter : text)
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  return text;
}

/// @return whether @p a comes before @p b when the largest, or the first, is wanted first
bool comes_before(TopSort sort, const cue::StreamFigures& a, const cue::StreamFigures& b) {
  switch (sort) {
    case TopSort::Universe:
      break;
    case TopSort::Sender:
      return a.sender < b.sender;
    case TopSort::Rate:
      return a.rate > b.rate;
    case TopSort::Jitter:
      return a.jitter > b.jitter;
    case TopSort::Lost:
      return a.missing > b.missing;
    case TopSort::Highest:
      return a.highest > b.highest;
    case TopSort::Age:
      return a.age > b.age;
  }
  return a.universe < b.universe;
}

std::size_t level_columns_in(std::size_t columns) {
  for (const int count : kLevelColumns)
    if (kSlotLabel + static_cast<std::size_t>(count) * kCell <= columns)
      return static_cast<std::size_t>(count);
  return 1;
}

std::size_t moved(std::size_t from, std::ptrdiff_t by, std::size_t count) {
  const auto last = static_cast<std::ptrdiff_t>(count) - 1;
  return static_cast<std::size_t>(std::clamp(static_cast<std::ptrdiff_t>(from) + by, std::ptrdiff_t{0},
                                             std::max(last, std::ptrdiff_t{0})));
}

/// First line of a window of @p window lines in which @p line is, moved as little as possible.
std::size_t first_to_see(std::size_t first, std::size_t line, std::size_t window) {
  if (line < first) return line;
  if (line >= first + window) return line + 1 - window;
  return first;
}

}  // namespace

TopView::StreamKey TopView::key_of(const cue::StreamFigures& stream) {
  return {stream.protocol, stream.universe, stream.sender, stream.cid};
}

void TopView::show(TopFigures figures) {
  if (paused) return;
  shown = std::move(figures);
  arrange();
}

bool TopView::fits(const cue::StreamFigures& stream) const {
  if (filter.empty()) return true;
  if (filter == "!") return stream.contested;
  if (const auto universes = parse_universes(filter)) return universes->holds(stream.universe);
  const std::string words =
      lower(way_text(stream) + ' ' + sender_text(stream.sender) + ' ' + cue::ascii_text(stream.name));
  return words.find(lower(filter)) != std::string::npos;
}

/// Sorts and filters. The chosen stream stays chosen; when it is gone from the table, the one in its place
/// is.
void TopView::arrange() {
  is_stale = false;
  const auto& streams = shown.traffic.streams;
  rows.clear();
  for (std::size_t i = 0; i < streams.size(); ++i)
    if (fits(streams[i])) rows.push_back(i);
  std::stable_sort(rows.begin(), rows.end(), [&](std::size_t a, std::size_t b) {
    return reversed ? comes_before(sort, streams[b], streams[a]) : comes_before(sort, streams[a], streams[b]);
  });
  for (std::size_t row = 0; row < rows.size() && chosen && was_moved; ++row) {
    if (key_of(streams[rows[row]]) != *chosen) continue;
    chosen_row = row;
    return;
  }
  if (page != Page::Levels && page_before_help != Page::Levels) choose(chosen_row);
}

void TopView::settle() {
  if (is_stale) arrange();
}

void TopView::choose(std::size_t row) {
  if (rows.empty() && page == Page::Levels) return;
  chosen_row = moved(row, 0, rows.size());
  chosen.reset();
  if (chosen_row < rows.size()) chosen = key_of(shown.traffic.streams[rows[chosen_row]]);
}

const cue::StreamFigures* TopView::chosen_stream() const {
  for (const cue::StreamFigures& stream : shown.traffic.streams)
    if (chosen && key_of(stream) == *chosen) return &stream;
  return nullptr;
}

bool TopView::press(int key) {
  was_moved = true;
  if (filter_is_entered) {
    press_in_filter(key);
    return true;
  }
  if (key == 'q' || key == 'Q') return false;
  if (page == Page::Help) {
    press_in_help(key);
  } else if (!press_anywhere(key)) {
    page == Page::Levels ? press_in_levels(key) : press_in_overview(key);
  }
  return true;
}

/// @return whether the key is one of all pages
bool TopView::press_anywhere(int key) {
  switch (key) {
    case 'p':
    case ' ':
      paused = !paused;
      return true;
    case '?':
    case 'h':
      page_before_help = page;
      page = Page::Help;
      first_help_row = 0;
      return true;
    case top_key::kTab:
    case top_key::kBackTab:
      move_chosen(key == top_key::kTab ? 1 : -1);
      return true;
    default:
      return false;
  }
}

void TopView::press_in_filter(int key) {
  if (key == top_key::kEnter || key == top_key::kEscape) {
    filter_is_entered = false;
    if (key == top_key::kEscape) filter.clear();
  } else if (key == top_key::kErase) {
    if (!filter.empty()) filter.pop_back();
  } else if (key >= ' ' && key < 0x7F && filter.size() < kLongestFilter) {
    filter += static_cast<char>(key);
  }
  is_stale = true;
}

void TopView::press_in_help(int key) {
  switch (key) {
    case top_key::kDown:
      first_help_row = moved(first_help_row, 1, std::size(kHelp));
      break;
    case top_key::kUp:
      first_help_row = moved(first_help_row, -1, std::size(kHelp));
      break;
    default:
      page = page_before_help;
      page_before_help = Page::Overview;
  }
}

void TopView::press_in_overview(int key) {
  const auto window = static_cast<std::ptrdiff_t>(page_rows);
  switch (key) {
    case top_key::kUp:
      return move_chosen(-1);
    case top_key::kDown:
      return move_chosen(1);
    case top_key::kPageUp:
      return move_chosen(-window);
    case top_key::kPageDown:
      return move_chosen(window);
    case top_key::kHome:
      settle();
      return choose(0);
    case top_key::kEnd:
      settle();
      return choose(rows.empty() ? 0 : rows.size() - 1);
    case top_key::kEnter:
      settle();
      if (chosen_stream() != nullptr) page = Page::Levels;
      break;
    case top_key::kEscape:
      filter.clear();
      is_stale = true;
      break;
    case '/':
      filter_is_entered = true;
      filter.clear();
      is_stale = true;
      break;
    case 's':
      return turn_sort(1);
    case 'S':
      return turn_sort(-1);
    case 'r':
      reversed = !reversed;
      is_stale = true;
      break;
    default:
      break;
  }
}

void TopView::press_in_levels(int key) {
  const auto row = static_cast<std::ptrdiff_t>(level_columns);
  const auto window = static_cast<std::ptrdiff_t>(level_page);
  switch (key) {
    case top_key::kLeft:
      return move_slot(-1);
    case top_key::kRight:
      return move_slot(1);
    case top_key::kUp:
      return move_slot(-row);
    case top_key::kDown:
      return move_slot(row);
    case top_key::kPageUp:
      return move_slot(-window);
    case top_key::kPageDown:
      return move_slot(window);
    case top_key::kHome:
      slot = 0;
      break;
    case top_key::kEnd:
      slot = kDmxSlots - 1;
      break;
    case 'x':
      hexadecimal = !hexadecimal;
      break;
    case top_key::kEnter:
    case top_key::kEscape:
      page = Page::Overview;
      is_stale = true;
      break;
    default:
      break;
  }
}

void TopView::turn_sort(int by) {
  const int count = static_cast<int>(kSortNames.size());
  sort = static_cast<TopSort>((static_cast<int>(sort) + by + count) % count);
  is_stale = true;
}

void TopView::move_chosen(std::ptrdiff_t by) {
  settle();
  choose(moved(chosen_row, by, rows.size()));
}

void TopView::move_slot(std::ptrdiff_t by) {
  slot = moved(slot, by, kDmxSlots);
}

std::vector<TopLine> TopView::lines(TopSize size) {
  settle();
  std::vector<TopLine> screen = page == Page::Overview ? overview(size)
                                : page == Page::Levels ? levels(size)
                                                       : help(size);
  if (screen.size() > size.rows) screen.resize(size.rows);
  for (TopLine& line : screen) {
    line.text = cut(std::move(line.text), size.columns);
    if (line.mark_begin + line.mark_size > line.text.size()) line.mark_size = 0;
  }
  return screen;
}

std::string TopView::title() const {
  const auto universes = universes_that(shown.traffic, [](const auto&) { return true; }).size();
  return ' ' + cue::ascii_text(shown.source) + "   " + cue::counted(universes, "universe") + "   " +
         cue::counted(shown.traffic.streams.size(), "stream") + "   " +
         rate_text(datagrams_per_second(shown.traffic)) + " datagrams/s";
}

std::string TopView::overview_keys() const {
  if (filter_is_entered) return " Filter: " + filter + "_   enter keeps it, escape ends it";
  std::string text = " q end  ? help  enter levels  p pause  / filter";
  if (!filter.empty()) text += ": " + filter;
  text += std::string("  s sort: ") + kSortNames[static_cast<std::size_t>(sort)];
  return reversed ? text + " (r)" : text;
}

std::vector<TopLine> TopView::overview(TopSize size) {
  const auto& streams = shown.traffic.streams;
  std::vector<TopLine> screen;
  screen.push_back(
      bar(at_both_ends(title(), paused ? "PAUSED " : "", size.columns), TopStyle::Title, size.columns));
  if (size.rows >= kRowsForKinds) {
    screen.push_back({artnet_text(shown.traffic)});
    screen.push_back({sacn_text(shown.traffic)});
  }
  const TopTable table(size.columns);
  screen.push_back({table.heading(), TopStyle::Heading});

  std::vector<std::string> below = alerts(shown);
  below.resize(std::min(below.size(), size.rows / kAlertPart));
  const std::size_t around = screen.size() + below.size() + kFoot;
  page_rows = size.rows > around ? size.rows - around : 1;
  first_row = std::min(first_to_see(first_row, chosen_row, page_rows),
                       rows.size() > page_rows ? rows.size() - page_rows : 0);
  for (std::size_t row = first_row; row < rows.size() && row < first_row + page_rows; ++row) {
    const cue::StreamFigures& stream = streams[rows[row]];
    TopLine line{table.row(stream), stream.contested ? TopStyle::Warning : TopStyle::Plain};
    if (row == chosen_row) {
      line = bar(line.text, TopStyle::Chosen, size.columns);
      if (!line.text.empty()) line.text.front() = '>';
    }
    screen.push_back(std::move(line));
  }
  if (streams.empty()) screen.push_back({" Nothing heard yet."});
  if (rows.empty() && !streams.empty()) screen.push_back({" No universe fits the filter."});
  const std::size_t foot = below.size() + kFoot;
  if (size.rows > foot) screen.resize(size.rows - foot);
  for (const std::string& alert : below) screen.push_back({' ' + alert, TopStyle::Warning});
  const std::string place = rows.size() > page_rows
                                ? std::to_string(first_row + 1) + '-' +
                                      std::to_string(std::min(first_row + page_rows, rows.size())) + " of " +
                                      std::to_string(rows.size()) + ' '
                                : "";
  screen.push_back(bar(at_both_ends(overview_keys(), place, size.columns), TopStyle::Title, size.columns));
  return screen;
}

std::string TopView::text(std::size_t columns) {
  const TopTable table(columns);
  std::vector<std::string> all{title(), artnet_text(shown.traffic), sacn_text(shown.traffic)};
  all.push_back(rows.empty() ? " Nothing heard." : table.heading());
  for (const std::size_t row : rows) all.push_back(table.row(shown.traffic.streams[row]));
  for (const std::string& alert : alerts(shown)) all.push_back(' ' + alert);
  std::string text;
  for (std::string& line : all) {
    line.erase(line.find_last_not_of(' ') + 1);
    text += line.substr(1) + '\n';
  }
  return text;
}

std::string TopView::level_cell(std::uint8_t level) const {
  if (level == 0) return ".";
  std::array<char, 8> text{};
  if (hexadecimal) {
    snprintf(text.data(), text.size(), "%02X", level);
    return text.data();
  }
  if (level == 255) return "FL";
  // What is on is not shown as 0, and only full is full: 1 to 254 become 1 to 99.
  snprintf(text.data(), text.size(), "%d", std::clamp((level * 100 + 127) / 255, 1, 99));
  return text.data();
}

std::string TopView::slot_text(const cue::StreamFigures& stream) const {
  std::array<char, 96> text{};
  if (slot >= stream.slots) {
    snprintf(text.data(), text.size(), " Slot %zu is not sent", slot + 1);
  } else {
    const int level = stream.levels[slot];
    snprintf(text.data(), text.size(), " Slot %zu: %d of 255, %.1f %%, hex %02X", slot + 1, level,
             level * 100 / 255.0, static_cast<unsigned>(level));
  }
  return text.data();
}

/// A cell is two characters behind a blank, which becomes the sign of the chosen slot.
void TopView::add_level_rows(std::vector<TopLine>& screen, const cue::StreamFigures& stream, TopSize size) {
  level_columns = level_columns_in(size.columns);
  const std::size_t around = kLevelHead + kFoot;
  const std::size_t window = size.rows > around ? size.rows - around : 1;
  level_page = window * level_columns;
  const std::size_t count = (kDmxSlots + level_columns - 1) / level_columns;
  first_level_row = std::min(first_to_see(first_level_row, slot / level_columns, window),
                             count > window ? count - window : 0);
  for (std::size_t row = first_level_row; row < count && row < first_level_row + window; ++row) {
    TopLine line{right_aligned(std::to_string(row * level_columns), kSlotLabel)};
    for (std::size_t i = row * level_columns; i < std::min((row + 1) * level_columns, kDmxSlots); ++i) {
      if (i == slot) {
        line.mark_begin = line.text.size();
        line.mark_size = kCell;
      }
      line.text += i == slot ? '>' : ' ';
      line.text += i < stream.slots ? right_aligned(level_cell(stream.levels[i]), kCell - 1) : "  ";
    }
    screen.push_back(std::move(line));
  }
}

std::vector<TopLine> TopView::levels(TopSize size) {
  std::vector<TopLine> screen;
  const cue::StreamFigures* const stream = chosen_stream();
  const std::uint16_t universe = std::get<1>(*chosen);
  std::string head = " Universe " + std::to_string(universe + 1) + " (" + address_text(universe) + ")";
  if (stream == nullptr) {
    screen.push_back(bar(head, TopStyle::Title, size.columns));
    screen.push_back({" Its sender has been silent for a minute."});
  } else {
    if (sign_text(*stream) != " ") head += ' ' + sign_text(*stream);
    head += "  " + way_text(*stream) + "  " + sender_text(stream->sender) + ' ' +
            cue::ascii_text(stream->name) + "  " + short_number(stream->rate, 5) + " Hz  " +
            std::to_string(stream->slots) + " slots";
    screen.push_back(
        bar(at_both_ends(head, paused ? "PAUSED " : "", size.columns), TopStyle::Title, size.columns));
    TopLine numbers{"    ", TopStyle::Heading};
    for (std::size_t i = 1; i <= level_columns_in(size.columns); ++i)
      numbers.text += right_aligned(std::to_string(i), kCell);
    screen.push_back(std::move(numbers));
    add_level_rows(screen, *stream, size);
  }
  if (size.rows > kFoot) screen.resize(size.rows - kFoot);
  const std::string slot_words = stream == nullptr ? std::string() : slot_text(*stream);
  screen.push_back(bar(with_hint(slot_words, "tab next  x hex  enter back  ? help ", size.columns),
                       TopStyle::Title, size.columns));
  return screen;
}

std::vector<TopLine> TopView::help(TopSize size) {
  std::vector<TopLine> screen;
  screen.push_back(bar(at_both_ends(" kadrel-cue top", "any key goes back ", size.columns), TopStyle::Title,
                       size.columns));
  const std::size_t window = size.rows > 1 ? size.rows - 1 : 1;
  first_help_row = std::min(first_help_row, std::size(kHelp) > window ? std::size(kHelp) - window : 0);
  for (std::size_t row = first_help_row; row < std::size(kHelp); ++row)
    screen.push_back({std::string(" ") + kHelp[row]});
  return screen;
}

std::string universes_text(const std::vector<std::uint16_t>& universes) {
  std::string text;
  for (std::size_t i = 0; i < universes.size();) {
    std::size_t last = i;
    while (last + 1 < universes.size() && universes[last + 1] == universes[last] + 1) ++last;
    if (!text.empty()) text += ", ";
    text += std::to_string(universes[i] + 1);
    if (last > i) text += '-' + std::to_string(universes[last] + 1);
    i = last + 1;
  }
  return text;
}

}  // namespace kadrel_cue
