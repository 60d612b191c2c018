#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// The parser written a second time in the simplest way: byte by byte, no streams, no callbacks, a list of
/// events as result. Shares no code with the parser; unit tests and
/// fuzzers compare the two.
class DatagramModel {
public:
  enum Kind { Poll, PollReply, Dmx, OemVfps, OemVfpsNs, Trigger, Unknown, Oversized };

  /// One callback.
  struct Event {
    Kind kind;
    std::uint32_t packet_count;       // packets dispatched before this one
    bool stale;                       // found, whole or in part, in bytes of an earlier datagram or refill
    std::vector<std::uint8_t> bytes;  // the packet in wire order: header and the bytes read after it

    /// Argument of the callback: the record as the parser hands it over, empty for an error.
    std::vector<std::uint8_t> record() const {
      std::vector<std::uint8_t> record = bytes;
      const auto to_host_order = [&record](std::size_t offset) {
        std::swap(record[offset], record[offset + 1]);
      };
      switch (kind) {
        case PollReply:
          record.resize(239);
          for (const std::size_t offset : {16U, 20U, 172U}) to_host_order(offset);
          for (const std::size_t last : {43U, 107U, 171U}) record[last] = 0;
          break;
        case Dmx:
          record.resize(530);
          to_host_order(16);
          break;
        case Trigger:
          record.resize(530);
          for (const std::size_t offset : {10U, 14U}) to_host_order(offset);
          break;
        case Oversized:
          record.clear();
          break;
        default:
          break;
      }
      return record;
    }

    friend bool operator==(const Event& a, const Event& b) {
      return a.kind == b.kind && a.packet_count == b.packet_count && a.stale == b.stale && a.bytes == b.bytes;
    }
  };

  struct Result {
    std::vector<Event> events;
    int error = 0;  // 0, 2 or 3 as the parser's codes
    std::uint32_t packet_count = 0;
    bool left_running = false;  // the parse ended inside an OpCode
  };

  // Which callbacks are set; a poll or a reply without one is not read, others are read without an event.
  bool takes_poll = true;
  bool takes_poll_reply = true;
  bool takes_others = true;

  /// Parses one datagram. Bytes that it leaves in the buffer stay there for the next one.
  /// @param stop_at  the parser is stopped within the callback of this number, counted from 0; -1: never
  Result parse(const std::uint8_t* data, std::size_t size, int stop_at = -1) {
    rest = data;
    rest_size = size;
    stopped = false;
    stop_event = stop_at;
    result = Result{};
    bool found_any = false;
    int matched = 0;

    refill();
    if (valid == 0) {
      result.error = kUnexpectedEnd;
      return result;
    }
    for (;;) {
      if (!find_identifier(matched)) {
        refill();
        if (valid == 0) break;
        continue;
      }
      found_any = true;
      packet.assign({'A', 'r', 't', '-', 'N', 'e', 't', 0});
      const Outcome opcode = read(2);
      if (opcode == Short) {
        result.left_running = true;
        return result;
      }
      const Outcome body = opcode == Done ? read_body() : opcode;
      if (body == BeyondBuffer) break;
      ++result.packet_count;
      if (stopped || valid == 0) break;
      if (body == Short) return result;
    }
    if (!found_any) result.error = kHeaderNotFound;
    return result;
  }

private:
  enum Outcome { Done, Short, BeyondBuffer };

  static constexpr int kCells = 512;
  static constexpr int kUnexpectedEnd = 2;
  static constexpr int kHeaderNotFound = 3;

  void refill() {
    cursor = 0;
    valid = 0;
    while (valid < kCells && rest_size > 0) {
      cells[static_cast<std::size_t>(valid++)] = *rest++;
      --rest_size;
    }
    // After a refill that met the end of the datagram rest_size is 0: no more bytes come.
  }

  /// Walks to the byte after the next identifier. @param matched  identifier bytes met at the end of the
  /// buffer before
  bool find_identifier(int& matched) {
    static const std::string identifier("Art-Net\0", 8);
    while (cursor < kCells) {
      const auto byte = static_cast<char>(cells[static_cast<std::size_t>(cursor++)]);
      matched = byte == identifier[static_cast<std::size_t>(matched)] ? matched + 1 : 0;
      if (matched == 8) {
        matched = 0;
        return true;
      }
    }
    return false;
  }

  void take_byte() { packet.push_back(cells[static_cast<std::size_t>(cursor++)]); }

  /// Appends n bytes to the packet.
  Outcome read(int n) {
    const bool among_stale_bytes = cursor > valid;
    if (among_stale_bytes || valid - cursor >= n) {
      if (cursor + n > kCells) return BeyondBuffer;
      for (int i = 0; i < n; ++i) take_byte();
      return Done;
    }
    int wanted = n;
    while (cursor < valid) {
      take_byte();
      --wanted;
    }
    refill();
    if (valid < wanted) {
      result.error = kUnexpectedEnd;
      return Short;
    }
    for (int i = 0; i < wanted; ++i) take_byte();
    return Done;
  }

  int word_at(std::size_t offset) const { return packet[offset] << 8 | packet[offset + 1]; }

  void call_back(Kind kind) {
    if (!takes_others && kind != Poll && kind != PollReply) return;
    result.events.push_back({kind, result.packet_count, cursor > valid, packet});
    if (static_cast<int>(result.events.size()) - 1 == stop_event) stopped = true;
  }

  Outcome read_and_call_back(int n, Kind kind) {
    const Outcome outcome = read(n);
    if (outcome == Done) call_back(kind);
    return outcome;
  }

  Outcome read_body() {
    const int opcode = packet[8] | packet[9] << 8;
    switch (opcode) {
      case 0x2000:
        return takes_poll ? read_and_call_back(4, Poll) : Done;
      case 0x2100:
        if (!takes_poll_reply) return Done;
        if (valid < 10) {
          if (cursor > valid) return BeyondBuffer;
          result.error = kUnexpectedEnd;
          return Short;
        }
        return read_and_call_back(valid > 239 ? 229 : valid - 10, PollReply);
      case 0x5000: {
        const Outcome fields = read(8);
        if (fields != Done) return fields;
        const int length = word_at(16);
        if (length <= 512) return read_and_call_back(length, Dmx);
        call_back(Oversized);
        return Done;
      }
      case 0x00FF:
        return read_and_call_back(4, OemVfps);
      case 0x00FE:
        return read_and_call_back(8, OemVfpsNs);
      case 0x9900:
        return read_and_call_back(8, Trigger);
      default:
        call_back(Unknown);
        return Done;
    }
  }

  std::array<std::uint8_t, kCells> cells{};
  int cursor = 0;
  int valid = 0;
  const std::uint8_t* rest = nullptr;
  std::size_t rest_size = 0;
  std::vector<std::uint8_t> packet;
  bool stopped = false;
  int stop_event = -1;
  Result result;
};
