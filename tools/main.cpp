#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>

#include "kesto/standard_descriptors.h"
#include "tools/CommandLine.h"

namespace {

/// A standard output that is closed stays one that cannot be written, and its number is taken all the same.
void occupy_standard_descriptors() {
  const bool closed = fcntl(STDOUT_FILENO, F_GETFD) == -1;
  kesto::occupy_standard_descriptors();
  if (!closed) return;
  const int unwritable = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (unwritable == -1) return;
  dup2(unwritable, STDOUT_FILENO);
  close(unwritable);
}

}  // namespace

int main(int argc, char** argv) {
  occupy_standard_descriptors();
  // A file that grows beyond the limit of the user is an error of write().
  signal(SIGXFSZ, SIG_IGN);
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
