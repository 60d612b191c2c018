#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace unit {

/// An empty directory that is removed with the object and all that is in it.
class Directory {
public:
  Directory() {
    if (mkdtemp(name.data()) == nullptr) abort();
  }
  ~Directory() {
    std::error_code ignored;
    std::filesystem::remove_all(name, ignored);
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  Directory(Directory&&) = delete;
  Directory& operator=(Directory&&) = delete;

  const std::string& path() const { return name; }

  /// Path of a file in it.
  std::string operator/(const std::string& file) const { return name + "/" + file; }

  /// Makes a file. @return its path
  std::string write(const std::string& file, const std::string& bytes) const {
    std::ofstream out(*this / file, std::ios::binary);
    out << bytes;
    return *this / file;
  }

  std::string content(const std::string& file) const {
    std::ifstream in(*this / file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

  /// The files in it, sorted.
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(name))
      found.push_back(entry.path().filename().string());
    std::sort(found.begin(), found.end());
    return found;
  }

private:
  std::string name = "/tmp/kadrel_unit_XXXXXX";
};

}  // namespace unit
