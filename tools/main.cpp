#include <cstdio>
#include <exception>
#include <iostream>

#include "kesto/standard_descriptors.h"
#include "tools/CommandLine.h"

int main(int argc, char** argv) {
  kesto::occupy_standard_descriptors();
  int code = 1;
  try {
    code = kadrel_cue::run(argc, argv, std::cout, std::cerr);
  } catch (const std::exception& error) {
    fprintf(stderr, "kadrel-cue: %s\n", error.what());
  }
  // On a full disk, for example, only half of a report may have been written.
  if (!std::cout.flush()) {
    fputs("kadrel-cue: standard output cannot be written\n", stderr);
    if (code == 0) code = 1;
  }
  return code;
}
