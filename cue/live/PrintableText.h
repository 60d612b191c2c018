#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Names that strangers choose, made fit to be shown.
namespace cue {

/// The text in @p bytes up to its first zero, as UTF-8. Bytes that are no UTF-8 are taken as Latin-1, as old
/// nodes write it. Without control characters, and without what turns or hides text (Unicode: categories Cc
/// and Cf, line and paragraph separators); without blanks at both ends.
std::string printable_text(const std::uint8_t* bytes, std::size_t size);
std::string printable_text(const std::string& text);

/// The same in ASCII: a question mark for each other character.
std::string ascii_text(const std::string& text);

}  // namespace cue
