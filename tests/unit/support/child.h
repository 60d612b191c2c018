#pragma once

#include <string>

namespace unit {

/// Registers a scenario: a function that the test program runs in a fresh process of its own. Expectations
/// inside it count: a child in which one fails exits with a status other than 0.
bool register_scenario(const char* name, void (*body)());

struct Outcome {
  int status = -1;  // exit status, or minus the signal that ended the child
  std::string out;  // whole standard output
  std::string err;  // whole standard error
};

/// Runs the scenario @p name in a new process of this program and waits for its end.
Outcome run_child(const char* name);

/// Runs the scenario that the command line names. @return its exit status, or -1 when the command line names
/// none.
int run_requested_scenario(int argc, char** argv);

}  // namespace unit

/// Defines a scenario and its body.
#define CHILD_SCENARIO(NAME)                                                              \
  static void scenario_##NAME();                                                          \
  static const bool registered_##NAME = unit::register_scenario(#NAME, &scenario_##NAME); \
  static void scenario_##NAME()
