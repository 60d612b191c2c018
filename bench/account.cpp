// Reads a recording or a capture and accounts for every datagram of one stream: what is lost, what is there
// twice, what is out of order, what is damaged, and how true the recorded pauses are.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "bench/traffic.h"

namespace {

struct Seen {
  const char* datagram;
  std::size_t size;
  std::int64_t time;  // ns, from any origin
};

[[noreturn]] void refuse(const std::string& reason) {
  fprintf(stderr, "account: %s\n", reason.c_str());
  std::exit(1);
}

template <typename Number>
Number read_number(const char* bytes) {
  Number value{};
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

std::vector<Seen> read_recording(std::string_view file) {
  std::vector<Seen> all;
  std::int64_t time = 0;
  std::size_t offset = 0;
  while (offset < file.size()) {
    if (!all.empty()) {
      if (file.size() - offset < sizeof(ArtOemVfpsNs)) refuse("the recording ends within a delay record");
      const auto delay = read_number<ArtOemVfpsNs>(&file[offset]);
      if (std::memcmp(delay.header.id, kArtNetId, kArtNetIdSize) != 0 || delay.header.opcode != OpOemVfpsNs) {
        refuse("no delay record at offset " + std::to_string(offset));
      }
      time += read_number<std::int64_t>(reinterpret_cast<const char*>(delay.payload));
      offset += sizeof delay;
    }
    if (file.size() - offset < kDmxHeader) refuse("the recording ends within a datagram");
    const char* const datagram = &file[offset];
    if (std::memcmp(datagram, kArtNetId, kArtNetIdSize) != 0 ||
        read_number<std::uint16_t>(datagram + 8) != OpDmx) {
      refuse("no ArtDmx at offset " + std::to_string(offset));
    }
    const std::size_t size = kDmxHeader + swap_word(read_number<std::uint16_t>(datagram + 16));
    if (file.size() - offset < size) refuse("the recording ends within a datagram");
    all.push_back({datagram, size, time});
    offset += size;
  }
  return all;
}

/// Classic capture files of Ethernet frames, with micro- or nanoseconds.
std::vector<Seen> read_capture(std::string_view file) {
  constexpr std::size_t kFileHeader = 24;
  constexpr std::size_t kFrameHeader = 16;
  constexpr std::size_t kEthernet = 14;
  if (file.size() < kFileHeader) refuse("the capture has no header");
  const auto magic = read_number<std::uint32_t>(file.data());
  const std::int64_t unit = magic == 0xA1B23C4D ? 1 : 1000;
  std::vector<Seen> all;
  std::size_t offset = kFileHeader;
  while (file.size() - offset >= kFrameHeader) {
    const std::int64_t seconds = read_number<std::uint32_t>(&file[offset]);
    const std::int64_t fraction = read_number<std::uint32_t>(&file[offset + 4]);
    const std::size_t captured = read_number<std::uint32_t>(&file[offset + 8]);
    offset += kFrameHeader;
    if (file.size() - offset < captured) break;
    const char* const frame = &file[offset];
    offset += captured;
    if (captured < kEthernet + 28) continue;
    const std::size_t ip_header = (static_cast<std::size_t>(frame[kEthernet]) & 0x0F) * 4;
    const std::size_t start = kEthernet + ip_header + 8;
    if (captured <= start + kDmxHeader) continue;
    all.push_back({frame + start, captured - start, seconds * 1'000'000'000 + fraction * unit});
  }
  return all;
}

struct Universe {
  std::int64_t lost = 0;
  std::int64_t duplicated = 0;
  std::int64_t reordered = 0;
  std::int64_t highest = -1;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    fputs(
        "Usage: account recording|capture FILE UNIVERSES FIRST COUNT\n"
        "Prints one JSON object about datagrams FIRST to FIRST+COUNT-1 of a stream over UNIVERSES.\n",
        stderr);
    return 2;
  }
  const bool is_recording = std::strcmp(argv[1], "recording") == 0;
  const std::int64_t universe_count = std::strtoll(argv[3], nullptr, 10);
  const std::int64_t first = std::strtoll(argv[4], nullptr, 10);
  const std::int64_t count = std::strtoll(argv[5], nullptr, 10);
  if (universe_count < 1 || first < 0 || count < 0) refuse("a number is out of range");

  const int fd = open(argv[2], O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (fd == -1 || fstat(fd, &status) != 0) refuse(std::string("cannot read ") + argv[2]);
  // Mapped, not read: the recording of a long run is larger than the memory of a small machine.
  std::string_view file;
  if (status.st_size > 0) {
    const auto size = static_cast<std::size_t>(status.st_size);
    void* const content = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (content == MAP_FAILED) refuse(std::string("cannot map ") + argv[2]);
    file = {static_cast<const char*>(content), size};
  }
  const std::vector<Seen> all = is_recording ? read_recording(file) : read_capture(file);

  std::vector<Universe> universes(static_cast<std::size_t>(universe_count));
  std::vector<bool> seen(static_cast<std::size_t>(count));
  std::vector<std::int64_t> errors;  // ns, recorded pause against the sender's, consecutive datagrams only
  std::int64_t foreign = 0;
  std::int64_t damaged = 0;
  std::int64_t out_of_order = 0;
  std::int64_t highest = -1;
  const Seen* before = nullptr;
  std::int64_t sequence_before = 0;
  std::int64_t sent_before = 0;
  for (const Seen& one : all) {
    const char* const slots = one.datagram + kDmxHeader;
    const std::size_t slot_count = one.size - kDmxHeader;
    if (slot_count < sizeof(TrafficMark)) {
      ++foreign;
      continue;
    }
    const auto mark = read_number<TrafficMark>(slots);
    const std::int64_t sequence = mark.sequence;
    if (std::memcmp(mark.name, kTrafficName, sizeof mark.name) != 0 || sequence < first ||
        sequence >= first + count) {
      ++foreign;
      continue;
    }
    const auto port_address = read_number<std::uint16_t>(one.datagram + 14);
    const bool filled = std::all_of(slots + sizeof mark, slots + slot_count, [&](char slot) {
      return static_cast<std::uint8_t>(slot) == traffic_fill(mark.sequence);
    });
    if (!filled || port_address != sequence % universe_count ||
        mark.in_universe != sequence / universe_count) {
      ++damaged;
      continue;
    }
    Universe& universe = universes[port_address];
    const auto index = static_cast<std::size_t>(sequence - first);
    if (seen[index]) {
      ++universe.duplicated;
      continue;
    }
    seen[index] = true;
    if (sequence < universe.highest) ++universe.reordered;
    if (sequence < highest) ++out_of_order;
    universe.highest = std::max(universe.highest, sequence);
    highest = std::max(highest, sequence);
    if (before != nullptr && sequence == sequence_before + 1) {
      errors.push_back(std::abs((one.time - before->time) - (mark.sent_ns - sent_before)));
    }
    before = &one;
    sequence_before = sequence;
    sent_before = mark.sent_ns;
  }

  for (std::int64_t i = 0; i < count; ++i) {
    if (!seen[static_cast<std::size_t>(i)])
      ++universes[static_cast<std::size_t>((first + i) % universe_count)].lost;
  }
  Universe total;
  std::int64_t worst_lost = 0;
  std::int64_t with_loss = 0;
  for (const Universe& universe : universes) {
    total.lost += universe.lost;
    total.duplicated += universe.duplicated;
    total.reordered += universe.reordered;
    worst_lost = std::max(worst_lost, universe.lost);
    if (universe.lost > 0) ++with_loss;
  }
  std::sort(errors.begin(), errors.end());
  const auto quantile = [&errors](double part) -> std::int64_t {
    if (errors.empty()) return -1;
    return errors[static_cast<std::size_t>(part * static_cast<double>(errors.size() - 1))];
  };
  printf("{\"records\": %zu, \"lost\": %" PRId64 ", \"duplicated\": %" PRId64 ", \"reordered\": %" PRId64
         ", \"out_of_order\": %" PRId64 ", \"damaged\": %" PRId64 ", \"foreign\": %" PRId64
         ", \"universes_with_loss\": %" PRId64 ", \"most_lost_in_a_universe\": %" PRId64
         ", \"pause_error_p50_ns\": %" PRId64 ", \"pause_error_p99_ns\": %" PRId64
         ", \"pause_error_max_ns\": %" PRId64 "}\n",
         all.size(), total.lost, total.duplicated, total.reordered, out_of_order, damaged, foreign, with_loss,
         worst_lost, quantile(0.5), quantile(0.99), quantile(1.0));
  return 0;
}
