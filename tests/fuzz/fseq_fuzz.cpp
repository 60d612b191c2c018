#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "cue/FseqHeader.h"
#include "cue/FseqReader.h"
#include "tests/fuzz/foreign_file.h"

// The reader of FSEQ files. Input: a file. What it delivers can be recorded; of plain data, each level is
// where the header says.

namespace {

constexpr std::size_t kMostDatagrams = 3000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string file(reinterpret_cast<const char*>(data), size);
  const auto result = read_foreign(file, size + 1, cue::open_fseq, kMostDatagrams);
  const auto bytewise = read_foreign(file, 1, cue::open_fseq, kMostDatagrams);
  REQUIRE((result == nullptr) == (bytewise == nullptr));
  if (!result) return 0;
  // Where data of zstd breaks, its library may tell before or after it has delivered what comes before.
  const std::size_t common = std::min(result->datagrams.size(), bytewise->datagrams.size());
  REQUIRE(std::equal(result->datagrams.begin(),
                     result->datagrams.begin() + static_cast<std::ptrdiff_t>(common),
                     bytewise->datagrams.begin()));
  REQUIRE(cue::is_fseq(data, size));
  const std::size_t header_size = std::max<std::size_t>(8, cue::fseq_header_size(data));
  REQUIRE(header_size <= size);
  const cue::FseqHeader header = cue::decode_fseq_header({data, data + header_size}, "input");
  const bool is_zstd = header.compression == cue::FseqHeader::Compression::Zstd;
  REQUIRE(is_zstd || (result->whole == bytewise->whole && result->datagrams == bytewise->datagrams));
  const bool is_dense = header.ranges.empty();
  if (header.compression != cue::FseqHeader::Compression::None || !is_dense) return 0;

  const std::size_t universes = (header.channels + kDmxSlots - 1) / kDmxSlots;
  const std::uint64_t frames = std::min<std::uint64_t>(header.frames, (size - header_size) / header.channels);
  REQUIRE(result->datagrams.size() == std::min<std::uint64_t>(kMostDatagrams, frames * universes));
  for (std::size_t i = 0; i < result->datagrams.size(); ++i) {
    const std::uint64_t frame = i / universes;
    const std::size_t first = i % universes * kDmxSlots;
    const std::size_t slots = std::min<std::size_t>(kDmxSlots, header.channels - first);
    const ForeignResult::Datagram& datagram = result->datagrams[i];
    REQUIRE(datagram.time == static_cast<std::int64_t>(frame) * header.step * 1'000'000);
    const char* const levels =
        reinterpret_cast<const char*>(data) + header_size + frame * header.channels + first;
    REQUIRE(datagram.bytes.substr(kDmxHeaderSize) == std::string(levels, slots));
  }
  return 0;
}
