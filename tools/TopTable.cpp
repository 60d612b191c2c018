#include "tools/TopTable.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "cue/Time.h"
#include "cue/live/PrintableText.h"
#include "tools/TrafficWords.h"

namespace kadrel_cue {
namespace {

// The column of the sender: an address at least, and room for a name before further columns come.
constexpr std::size_t kNarrowSender = 15;
constexpr std::size_t kGoodSender = 24;
constexpr std::size_t kWidestSender = 80;

constexpr std::size_t kAddressWidth = 15;

std::string fixed(double number, int decimals) {
  std::array<char, 64> text{};
  snprintf(text.data(), text.size(), "%.*f", decimals, number);
  return text.data();
}

std::string universe_of(const cue::StreamFigures& stream) {
  return right_aligned(std::to_string(stream.universe + 1), 5) + sign_text(stream);
}

std::string priority_of(const cue::StreamFigures& stream) {
  return stream.protocol == cue::Protocol::Sacn ? std::to_string(stream.priority) : "-";
}

std::string counted_only(const cue::StreamFigures& stream, std::uint64_t count) {
  return stream.counts ? short_count(count) : "-";
}

}  // namespace

/// Less important columns have a higher rank; the sender has its place among them.
struct TopTable::Column {
  const char* heading;
  std::size_t width;  // 0: the sender
  bool right;
  int rank;
  std::string (*text)(const cue::StreamFigures& stream);
};

const std::vector<TopTable::Column>& TopTable::all() {
  using Stream = const cue::StreamFigures&;
  static const std::vector<Column> columns{
      {" Univ ", 6, false, 0, universe_of},
      {"Net:Sub:U", 9, false, 3, [](Stream stream) { return address_text(stream.universe); }},
      {"Way", 7, false, 4, way_text},
      {"Sender", 0, false, 0, nullptr},
      {"Prio", 4, true, 7, priority_of},
      {"Hz", 5, true, 1, [](Stream stream) { return short_number(stream.rate, 5); }},
      {"Jit", 4, true, 6, [](Stream stream) { return short_number(stream.jitter, 4); }},
      {"Lost", 5, true, 2, [](Stream stream) { return counted_only(stream, stream.missing); }},
      {"Disor", 5, true, 8, [](Stream stream) { return counted_only(stream, stream.disordered); }},
      {"Slot", 4, true, 5, [](Stream stream) { return std::to_string(stream.slots); }},
      {"Max", 3, true, 2, [](Stream stream) { return std::to_string(stream.highest); }},
      {"Age", 4, true, 3,
       [](Stream stream) {
         return short_number(static_cast<double>(stream.age) / static_cast<double>(cue::kSecond), 4);
       }},
      {"Total", 5, true, 9, [](Stream stream) { return short_count(stream.datagrams); }},
  };
  return columns;
}

TopTable::TopTable(std::size_t columns) {
  constexpr int kLastRank = 9;
  // Columns that come at last leave room for names.
  constexpr int kExtra = 7;
  std::size_t taken = 1;
  int most = 0;
  for (int rank = 0; rank <= kLastRank; ++rank) {
    std::size_t width = 0;
    for (const Column& column : all())
      if (column.rank == rank && column.width > 0) width += column.width + 1;
    const std::size_t sender = rank >= kExtra ? kGoodSender : kNarrowSender;
    if (rank > 0 && taken + width + sender > columns) break;
    taken += width;
    most = rank;
  }
  for (const Column& column : all())
    if (column.rank <= most) used.push_back(&column);
  sender_width = columns > taken ? std::min(columns - taken, kWidestSender) : 1;
}

std::string TopTable::heading() const {
  std::string line = " ";
  for (const Column* column : used) {
    if (column != used.front()) line += ' ';
    const std::size_t width = column->width > 0 ? column->width : sender_width;
    line += column->right ? right_aligned(column->heading, width) : left_aligned(column->heading, width);
  }
  return line;
}

std::string TopTable::row(const cue::StreamFigures& stream) const {
  std::string line = " ";
  for (const Column* column : used) {
    if (column != used.front()) line += ' ';
    if (column->text == nullptr) {
      std::string sender = sender_text(stream.sender);
      // Names below each other where there is room for them.
      if (sender_width >= kAddressWidth + kGoodSender) sender = left_aligned(sender, kAddressWidth);
      if (!stream.name.empty()) sender += ' ' + cue::ascii_text(stream.name);
      line += left_aligned(sender, sender_width);
    } else {
      const std::string text = column->text(stream);
      line += column->right ? right_aligned(text, column->width) : left_aligned(text, column->width);
    }
  }
  return line;
}

bool is_silent(const cue::StreamFigures& stream) {
  return stream.age > cue::Traffic::kPresent && !stream.ended;
}

std::string sign_text(const cue::StreamFigures& stream) {
  if (stream.contested) return "!";
  if (stream.ended) return "x";
  return is_silent(stream) ? "-" : " ";
}

std::string sender_text(std::uint32_t sender) {
  return sender == 0 ? "-" : ipv4_text(sender);
}

std::string address_text(std::uint16_t universe) {
  return net_address_text(universe).value_or("-");
}

std::string way_text(const cue::StreamFigures& stream) {
  const bool sacn = stream.protocol == cue::Protocol::Sacn;
  std::string protocol = sacn ? "sACN" : "Art";
  if (stream.sender == 0) return protocol;
  return protocol + (stream.unicast ? " uc" : sacn ? " mc" : " bc");
}

std::string short_count(std::uint64_t count) {
  constexpr std::uint64_t kWhole = 100'000;
  if (count < kWhole) return std::to_string(count);
  auto number = static_cast<double>(count);
  for (const char unit : {'k', 'M', 'G', 'T', 'P'}) {
    number /= 1000;
    if (number < 999.5) return fixed(number, number < 99.95 ? 1 : 0) + unit;
  }
  return ">999P";
}

std::string short_number(double number, std::size_t width) {
  for (const int decimals : {1, 0}) {
    std::string text = fixed(number, decimals);
    if (text.size() <= width) return text;
  }
  std::string largest(width, '9');
  return largest;
}

std::string left_aligned(const std::string& text, std::size_t width) {
  std::string aligned = text.substr(0, width);
  aligned.resize(width, ' ');
  return aligned;
}

std::string right_aligned(const std::string& text, std::size_t width) {
  if (text.size() >= width) return text.substr(0, width);
  return std::string(width - text.size(), ' ') + text;
}

}  // namespace kadrel_cue
