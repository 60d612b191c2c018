#pragma once

#include <string>

#include "cue/CueError.h"

namespace unit {

/// Message of the CueError that an action throws.
template <typename Action>
std::string error_of(Action&& action) {
  try {
    action();
  } catch (const cue::CueError& error) {
    return error.what();
  }
  return "no error";
}

}  // namespace unit
