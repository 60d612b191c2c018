#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

// Feeds a fuzz target with each file of some directories once: so every kept input is a test, also in builds
// whose compiler has no fuzzer.

// The names are the fuzzer's.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* count, char*** arguments);

int main(int count, char** arguments) {
  // Absolute paths, because the target changes its directory.
  std::set<std::filesystem::path> files;
  for (int i = 1; i < count; ++i)
    for (const auto& entry : std::filesystem::directory_iterator(arguments[i]))
      files.insert(std::filesystem::absolute(entry.path()));
  if (files.empty()) {
    fputs("there is no input\n", stderr);
    return 1;
  }
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&count, &arguments);
  for (const std::filesystem::path& path : files) {
    printf("%s\n", path.filename().c_str());
    fflush(stdout);
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  return 0;
}
