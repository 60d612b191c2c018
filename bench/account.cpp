// Reads a recording or a capture and accounts for every datagram of one stream: what is lost, what is there
// twice, what is out of order, what is damaged, and how true the recorded times and pauses are.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
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

/// The text file of ola_recorder: a line "UNIVERSE SLOT,SLOT,..." for a frame, and between two of them a line
/// with the milliseconds. Port-address p of the stream is universe 16 + p there.
/// @param packets  takes the datagrams that such frames have been
std::vector<Seen> read_show(std::string_view file, std::deque<ArtDmx>& packets) {
  constexpr std::int64_t kMillisecond = 1'000'000;
  constexpr std::uint16_t kPortAddresses = 16;
  const auto take_number = [&file](auto& number) {
    const auto [end, error] = std::from_chars(file.data(), file.data() + file.size(), number);
    if (error != std::errc()) refuse("no number where the show needs one");
    file.remove_prefix(static_cast<std::size_t>(end - file.data()));
  };
  std::vector<Seen> all;
  std::int64_t time = 0;
  file.remove_prefix(std::min(file.find('\n'), file.size() - 1) + 1);
  while (!file.empty()) {
    std::int64_t number = 0;
    take_number(number);
    if (!file.empty() && file.front() == ' ') {
      ArtDmx& packet = packets.emplace_back();
      packet.universe = static_cast<std::uint16_t>(number % kPortAddresses);
      std::size_t slots = 0;
      do {
        file.remove_prefix(1);
        if (slots == kDmxSlots) refuse("a frame of the show is too long");
        take_number(packet.data[slots++]);
      } while (!file.empty() && file.front() == ',');
      all.push_back({reinterpret_cast<const char*>(&packet), kDmxHeader + slots, time});
    } else {
      time += number * kMillisecond;
    }
    if (!file.empty()) file.remove_prefix(1);
  }
  return all;
}

/// A whole file as memory. Mapped, not read: the recording of a long run is larger than the memory of a small
/// machine.
std::string_view content_of(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (fd == -1 || fstat(fd, &status) != 0) refuse(std::string("cannot read ") + path);
  if (status.st_size == 0) return {};
  const auto size = static_cast<std::size_t>(status.st_size);
  void* const content = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  if (content == MAP_FAILED) refuse(std::string("cannot map ") + path);
  return {static_cast<const char*>(content), size};
}

std::optional<TrafficMark> mark_of(const Seen& one) {
  if (one.size < kDmxHeader + sizeof(TrafficMark)) return std::nullopt;
  const auto mark = read_number<TrafficMark>(one.datagram + kDmxHeader);
  if (std::memcmp(mark.name, kTrafficName, sizeof mark.name) != 0) return std::nullopt;
  return mark;
}

/// When each datagram of a recording is to be played: its number in the stream -> ns from the first one.
std::map<std::int64_t, std::int64_t> schedule_of(const char* path) {
  std::map<std::int64_t, std::int64_t> times;
  for (const Seen& one : read_recording(content_of(path))) {
    if (const auto mark = mark_of(one)) times.emplace(mark->sequence, one.time);
  }
  return times;
}

/// A datagram that is there.
struct Found {
  std::int64_t sequence;
  std::int64_t error;  // ns, time in the file less the time it was due, with any constant in it
};

/// Frames with a datagram that is more than 5 ms later than the one with the least error: a constant says
/// nothing about a recording.
/// @param found  in the order of their errors
std::int64_t late_frames(const std::vector<Found>& found, std::int64_t universe_count) {
  constexpr std::int64_t kLate = 5'000'000;
  std::vector<std::int64_t> late;
  for (const Found& one : found) {
    if (one.error - found.front().error > kLate) late.push_back(one.sequence / universe_count);
  }
  std::sort(late.begin(), late.end());
  return std::unique(late.begin(), late.end()) - late.begin();
}

/// Value at a part of the way from the least to the most, or -1 when there is none.
template <typename Value, typename Number>
std::int64_t quantile(const std::vector<Value>& sorted, double part, Number number) {
  if (sorted.empty()) return -1;
  return number(sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))]);
}

struct Universe {
  std::int64_t lost = 0;
  std::int64_t duplicated = 0;
  std::int64_t reordered = 0;
  std::int64_t highest = -1;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6 && argc != 7) {
    fputs(
        "Usage: account recording|capture|show FILE UNIVERSES FIRST COUNT [RECORDING]\n"
        "Prints one JSON object about datagrams FIRST to FIRST+COUNT-1 of a stream over UNIVERSES.\n"
        "Times are compared with those of sending, or with those of RECORDING, from which FILE was played.\n",
        stderr);
    return 2;
  }
  const std::string_view kind = argv[1];
  const std::int64_t universe_count = std::strtoll(argv[3], nullptr, 10);
  const std::int64_t first = std::strtoll(argv[4], nullptr, 10);
  const std::int64_t count = std::strtoll(argv[5], nullptr, 10);
  if (universe_count < 1 || first < 0 || count < 0) refuse("a number is out of range");

  const std::string_view file = content_of(argv[2]);
  std::deque<ArtDmx> packets;
  const std::vector<Seen> all = kind == "recording" ? read_recording(file)
                                : kind == "show"    ? read_show(file, packets)
                                                    : read_capture(file);
  const auto schedule = argc == 7 ? schedule_of(argv[6]) : std::map<std::int64_t, std::int64_t>();

  std::vector<Universe> universes(static_cast<std::size_t>(universe_count));
  std::vector<bool> seen(static_cast<std::size_t>(count));
  std::vector<Found> found;
  std::vector<std::int64_t> errors;  // ns, recorded pause against the sender's, consecutive datagrams only
  std::int64_t foreign = 0;
  std::int64_t damaged = 0;
  std::int64_t out_of_order = 0;
  std::int64_t highest = -1;
  for (const Seen& one : all) {
    const char* const slots = one.datagram + kDmxHeader;
    const auto mark = mark_of(one);
    if (!mark || mark->sequence < first || mark->sequence >= first + count) {
      ++foreign;
      continue;
    }
    const std::int64_t sequence = mark->sequence;
    const auto port_address = read_number<std::uint16_t>(one.datagram + 14);
    const bool filled = std::all_of(slots + sizeof *mark, one.datagram + one.size, [&](char slot) {
      return static_cast<std::uint8_t>(slot) == traffic_fill(mark->sequence);
    });
    if (!filled || port_address != sequence % universe_count ||
        mark->in_universe != sequence / universe_count) {
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
    std::int64_t due = mark->sent_ns;
    if (argc == 7) {
      const auto scheduled = schedule.find(sequence);
      if (scheduled == schedule.end()) continue;
      due = scheduled->second;
    }
    const std::int64_t error = one.time - due;
    if (!found.empty() && sequence == found.back().sequence + 1) {
      errors.push_back(std::abs(error - found.back().error));
    }
    found.push_back({sequence, error});
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
  std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) { return a.error < b.error; });
  const auto pause_error = [&](double part) {
    return quantile(errors, part, [](std::int64_t error) { return error; });
  };
  const auto time_error = [&](double part) {
    return quantile(found, part, [&](const Found& one) { return one.error - found.front().error; });
  };
  printf("{\"records\": %zu, \"lost\": %" PRId64 ", \"duplicated\": %" PRId64 ", \"reordered\": %" PRId64
         ", \"out_of_order\": %" PRId64 ", \"damaged\": %" PRId64 ", \"foreign\": %" PRId64
         ", \"universes_with_loss\": %" PRId64 ", \"most_lost_in_a_universe\": %" PRId64
         ", \"pause_error_p50_ns\": %" PRId64 ", \"pause_error_p99_ns\": %" PRId64
         ", \"pause_error_max_ns\": %" PRId64 ", \"time_error_p50_ns\": %" PRId64
         ", \"time_error_p99_ns\": %" PRId64 ", \"time_error_max_ns\": %" PRId64
         ", \"frames_late_by_5_ms\": %" PRId64 "}\n",
         all.size(), total.lost, total.duplicated, total.reordered, out_of_order, damaged, foreign, with_loss,
         worst_lost, pause_error(0.5), pause_error(0.99), pause_error(1.0), time_error(0.5), time_error(0.99),
         time_error(1.0), late_frames(found, universe_count));
  return 0;
}
