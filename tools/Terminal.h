#pragma once

#include <cstddef>

/// The terminal of the error output.
namespace kadrel_cue {

/// Back to the first column, and erases the line (ECMA-48, erase in line).
constexpr const char* kClearLine = "\r\033[K";

/// Columns, asked each time: a window changes its size. 80 when the terminal does not say.
std::size_t terminal_columns();

}  // namespace kadrel_cue
