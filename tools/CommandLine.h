#pragma once

#include <iosfwd>

namespace kadrel_cue {

/// The whole program.
/// @return exit code: 0 done, 1 a file or the network is not as it should be, 2 the words are not understood
/// @throws std::exception when a file or the network is not as it should be
int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace kadrel_cue
