#pragma once

namespace kesto {

/// Opens /dev/null for each of standard input, output and error that is closed. Otherwise a file or socket of
/// the program would get that number, and with it texts meant for the terminal. For the first line of main().
void occupy_standard_descriptors();

}  // namespace kesto
