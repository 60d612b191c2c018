#include <cstdint>
#include <string>

#include "cue/OlaShowReader.h"
#include "tests/fuzz/foreign_file.h"

// The reader of OLA shows. Input: a file. What it delivers can be recorded, and written down as a show of
// version 1 it is read as the same again.

namespace {

constexpr std::size_t kMostDatagrams = 20'000;
constexpr std::int64_t kMillisecond = 1'000'000;

std::string show_of(const ForeignResult& result) {
  std::string show = "OLA Show\n";
  std::int64_t before = 0;  // ms
  for (const ForeignResult::Datagram& datagram : result.datagrams) {
    const std::int64_t time = datagram.time / kMillisecond;
    show += std::to_string(time - before) + "\n";
    before = time;
    const auto byte = [&](std::size_t at) { return static_cast<std::uint8_t>(datagram.bytes[at]); };
    show += std::to_string((byte(14) | byte(15) << 8) + 1);
    for (std::size_t at = kDmxHeaderSize; at < datagram.bytes.size(); ++at)
      show += (at == kDmxHeaderSize ? " " : ",") + std::to_string(byte(at));
    show += "\n";
  }
  return show;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string file(reinterpret_cast<const char*>(data), size);
  const auto result = read_foreign(file, size + 1, cue::open_ola_show, kMostDatagrams);
  if (!result) return 0;
  const std::string show = show_of(*result);
  const auto second = read_foreign(show, 7, cue::open_ola_show, kMostDatagrams + 1);
  REQUIRE(second && second->whole);
  for (ForeignResult::Datagram& datagram : result->datagrams)
    datagram.time -= datagram.time % kMillisecond;  // version 2 may have microseconds
  REQUIRE(second->datagrams == result->datagrams);
  return 0;
}
