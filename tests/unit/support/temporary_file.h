#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace unit {

/// A file that holds the given bytes and is removed with the object.
class TemporaryFile {
public:
  explicit TemporaryFile(const std::string& bytes) {
    const int fd = mkstemp(name.data());
    if (fd == -1) abort();
    FILE* const file = fdopen(fd, "wb");
    fwrite(bytes.data(), 1, bytes.size(), file);
    fclose(file);
  }
  ~TemporaryFile() { unlink(name.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  TemporaryFile(TemporaryFile&&) = delete;
  TemporaryFile& operator=(TemporaryFile&&) = delete;

  const std::string& path() const { return name; }

private:
  std::string name = "/tmp/kadrel_unit_XXXXXX";
};

}  // namespace unit
