#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace kadrel_cue {

/// A descriptor that is closed with the object; -1: none.
class OpenDescriptor {
public:
  explicit OpenDescriptor(int descriptor) : number(descriptor) {}
  ~OpenDescriptor();
  OpenDescriptor(const OpenDescriptor&) = delete;
  OpenDescriptor& operator=(const OpenDescriptor&) = delete;
  OpenDescriptor(OpenDescriptor&&) = delete;
  OpenDescriptor& operator=(OpenDescriptor&&) = delete;

  explicit operator bool() const { return number != -1; }
  int get() const { return number; }

private:
  int number;
};

/// Opens a file for reading and waits for nothing. @return -1 when it cannot be opened
int open_at_once(const std::string& path);

/// As read(), but no signal interrupts it.
ssize_t read_some(int descriptor, char* bytes, std::size_t most);

/// A file of /proc or /sys, its first 4 MiB; nothing when it cannot be read.
std::optional<std::string> read_kernel_file(const std::string& path);

}  // namespace kadrel_cue
