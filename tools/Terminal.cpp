#include "tools/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace kadrel_cue {
namespace {

constexpr std::size_t kUsualColumns = 80;

}  // namespace

std::size_t terminal_columns() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == -1 || size.ws_col == 0) return kUsualColumns;
  return size.ws_col;
}

}  // namespace kadrel_cue
