#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "cue/live/Traffic.h"

/// The screens of `kadrel-cue top` as text: figures and keys in, lines out.
namespace kadrel_cue {

/// How a line looks where a terminal can show it. Nothing is said by the style alone.
enum class TopStyle { Plain, Title, Heading, Chosen, Warning };

/// One line of the screen, in ASCII. The marked part is shown inverse.
struct TopLine {
  std::string text;
  TopStyle style = TopStyle::Plain;
  std::size_t mark_begin = 0;
  std::size_t mark_size = 0;
};

struct TopSize {
  std::size_t columns = 80;
  std::size_t rows = 24;
};

/// What is shown.
struct TopFigures {
  cue::TrafficFigures traffic;
  std::string source;              // interface or file
  std::uint64_t lost = 0;          // datagrams that the capture did not take in time
  std::vector<std::string> notes;  // sentences about the source and the outputs
};

/// Keys that are no characters; a printable character stands for itself.
namespace top_key {
constexpr int kTab = '\t';
constexpr int kEnter = '\n';
constexpr int kEscape = 0x1B;
constexpr int kUp = 0x100;
constexpr int kDown = 0x101;
constexpr int kLeft = 0x102;
constexpr int kRight = 0x103;
constexpr int kPageUp = 0x104;
constexpr int kPageDown = 0x105;
constexpr int kHome = 0x106;
constexpr int kEnd = 0x107;
constexpr int kBackTab = 0x108;
constexpr int kErase = 0x109;
}  // namespace top_key

enum class TopSort { Universe, Sender, Rate, Jitter, Lost, Highest, Age };

/// What the operator has chosen to see, and the screen that follows from it.
class TopView {
public:
  /// New figures; they are left out during a pause.
  void show(TopFigures figures);

  /// @return false when the key ends the program
  bool press(int key);

  bool is_paused() const { return paused; }

  /// The whole screen: at most as many lines as there are rows, none longer than the columns.
  std::vector<TopLine> lines(TopSize size);

  /// The overview without what a screen needs, for a text that is printed once.
  std::string text(std::size_t columns);

private:
  enum class Page { Overview, Levels, Help };

  /// Protocol, universe, sender, source of E1.31.
  using StreamKey = std::tuple<cue::Protocol, std::uint16_t, std::uint32_t, cue::SacnCid>;

  static StreamKey key_of(const cue::StreamFigures& stream);

  void press_in_filter(int key);
  void press_in_levels(int key);
  void press_in_help(int key);
  void press_in_overview(int key);
  bool press_anywhere(int key);
  void turn_sort(int by);
  void move_chosen(std::ptrdiff_t by);
  void move_slot(std::ptrdiff_t by);
  void choose(std::size_t row);
  void arrange();
  void settle();
  bool fits(const cue::StreamFigures& stream) const;
  const cue::StreamFigures* chosen_stream() const;

  std::vector<TopLine> overview(TopSize size);
  std::vector<TopLine> levels(TopSize size);
  std::vector<TopLine> help(TopSize size);
  std::string title() const;
  std::string overview_keys() const;
  void add_level_rows(std::vector<TopLine>& screen, const cue::StreamFigures& stream, TopSize size);
  std::string slot_text(const cue::StreamFigures& stream) const;
  std::string level_cell(std::uint8_t level) const;

  TopFigures shown;
  std::vector<std::size_t> rows;  // of shown.traffic.streams, as they are sorted and filtered
  bool is_stale = false;  // a key changed how; it is done before `rows` is looked at, once for many keys

  Page page = Page::Overview;
  Page page_before_help = Page::Overview;
  TopSort sort = TopSort::Universe;
  bool reversed = false;
  std::string filter;
  bool filter_is_entered = false;
  bool paused = false;
  bool hexadecimal = false;

  std::optional<StreamKey> chosen;
  bool was_moved = false;  // until a key is pressed the first line is chosen
  std::size_t chosen_row = 0;
  std::size_t slot = 0;  // from 0

  // Of the screen drawn last.
  std::size_t first_row = 0;
  std::size_t page_rows = 1;
  std::size_t first_level_row = 0;
  std::size_t level_columns = 1;
  std::size_t level_page = 1;  // slots
  std::size_t first_help_row = 0;
};

/// "1, 3, 5-8" of universes counted from 0, which are sorted.
std::string universes_text(const std::vector<std::uint16_t>& universes);

}  // namespace kadrel_cue
