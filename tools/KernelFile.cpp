#include "tools/KernelFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace kadrel_cue {

OpenDescriptor::~OpenDescriptor() {
  if (number != -1) close(number);
}

int open_at_once(const std::string& path) {
  return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
}

ssize_t read_some(int descriptor, char* bytes, std::size_t most) {
  for (;;) {
    const ssize_t count = read(descriptor, bytes, most);
    if (count != -1 || errno != EINTR) return count;
  }
}

std::optional<std::string> read_kernel_file(const std::string& path) {
  constexpr std::size_t kMost = std::size_t{4} << 20;
  const OpenDescriptor file(open_at_once(path));
  if (!file) return std::nullopt;
  std::string text;
  std::array<char, 16384> piece{};
  while (text.size() < kMost) {
    const ssize_t count = read_some(file.get(), piece.data(), piece.size());
    if (count == -1) return std::nullopt;
    if (count == 0) break;
    text.append(piece.data(), static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace kadrel_cue
