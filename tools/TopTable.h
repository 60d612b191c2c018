#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cue/live/Traffic.h"

namespace kadrel_cue {

/// The streams as a table in ASCII. Narrow tables leave out what matters least; the column of the sender
/// takes what is left.
class TopTable {
public:
  /// @param columns  of a line
  explicit TopTable(std::size_t columns);

  std::string heading() const;

  /// Begins with a blank for the sign of the chosen line.
  std::string row(const cue::StreamFigures& stream) const;

private:
  struct Column;
  static const std::vector<Column>& all();

  std::vector<const Column*> used;
  std::size_t sender_width = 0;
};

/// Whether its sender said nothing for longer than a sender may (Traffic::kPresent), nor that it ends.
bool is_silent(const cue::StreamFigures& stream);

/// "!" for one of several senders, "x" for a stream that has ended, "-" for a silent one, " " for others.
std::string sign_text(const cue::StreamFigures& stream);

/// "10.77.0.2"; "-" when it is not known.
std::string sender_text(std::uint32_t sender);

/// "0:0:0": net:sub-net:universe; "-" for a universe of E1.31 that Art-Net cannot address.
std::string address_text(std::uint16_t universe);

/// "Art", "sACN", with bc, mc or uc for broadcast, multicast or unicast when it is known.
std::string way_text(const cue::StreamFigures& stream);

/// The number with at most five characters: "99999", "123k", "12.3M".
std::string short_count(std::uint64_t count);

/// The number with decimals as long as it fits into @p width.
std::string short_number(double number, std::size_t width);

/// At the left or at the right of @p width; what is too long is cut off.
std::string left_aligned(const std::string& text, std::size_t width);
std::string right_aligned(const std::string& text, std::size_t width);

}  // namespace kadrel_cue
