#pragma once

namespace kesto {

/// Puts /dev/null where standard input, output or error is closed, so that no file or socket of the program
/// gets their numbers and with them what is written to the terminal. For the first line of main().
void occupy_standard_descriptors();

}  // namespace kesto
