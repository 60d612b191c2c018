#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>

#include "artnet/ArtNetParser.h"
#include "tests/fuzz/script.h"
#include "tests/support/DatagramModel.h"

// Several datagrams in a row through one parser, whose buffer carries bytes from one to the next. Every
// callback, every byte of its record and every result is compared with the model.
//
// Input: one byte that says which callbacks are set and whether the parser gets streams, then per datagram
// its size (16 bits), the callback in which the parser is stopped, and its bytes.

namespace {

struct Called {
  DatagramModel::Kind kind;
  std::uint32_t packet_count;
  bool stale;
  std::vector<std::uint8_t> record;

  friend bool operator==(const Called& a, const Called& b) {
    return a.kind == b.kind && a.packet_count == b.packet_count && a.stale == b.stale && a.record == b.record;
  }
};

template <typename Record>
std::vector<std::uint8_t> bytes_of(const Record& record) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
  return {bytes, bytes + sizeof record};
}

class Comparison {
public:
  explicit Comparison(unsigned callbacks) : as_stream((callbacks & 4U) != 0) {
    model.takes_poll = (callbacks & 1U) == 0;
    model.takes_poll_reply = (callbacks & 2U) == 0;
    if (model.takes_poll) parser.on_poll = [this](ArtPoll& record) { called(DatagramModel::Poll, record); };
    if (model.takes_poll_reply)
      parser.on_poll_reply = [this](ArtPollReply& record) { called(DatagramModel::PollReply, record); };
    parser.on_dmx = [this](ArtDmx& record) { called(DatagramModel::Dmx, record); };
    parser.on_oem_vfps = [this](ArtOemVfps& record) { called(DatagramModel::OemVfps, record); };
    parser.on_oem_vfps_ns = [this](ArtOemVfpsNs& record) { called(DatagramModel::OemVfpsNs, record); };
    parser.on_trigger = [this](ArtTrigger& record) { called(DatagramModel::Trigger, record); };
    parser.on_unknown = [this](ArtHeader& record) { called(DatagramModel::Unknown, record); };
    parser.on_error = [this](const std::error_code ec) {
      REQUIRE(ec.value() == errc::DataOversized);
      note({DatagramModel::Oversized, parser.packet_count, parser.from_stale_bytes(), {}});
    };
  }

  void parse(const std::vector<char>& datagram, int stop_at) {
    calls.clear();
    stop_event = stop_at;
    std::error_code ec;
    if (as_stream) {
      PacketStream packet(datagram.data(), datagram.size());
      std::istream stream(&packet);
      parser.parse(stream, ec);
    } else {
      parser.parse_datagram({datagram.data(), datagram.size()}, ec);
    }

    const auto* data = reinterpret_cast<const std::uint8_t*>(datagram.data());
    const DatagramModel::Result expected = model.parse(data, datagram.size(), stop_at);
    REQUIRE(calls.size() == expected.events.size());
    for (std::size_t i = 0; i < calls.size(); ++i) {
      const DatagramModel::Event& event = expected.events[i];
      REQUIRE((calls[i] == Called{event.kind, event.packet_count, event.stale, event.record()}));
    }
    REQUIRE(ec.value() == expected.error);
    REQUIRE(!ec || &ec.category() == &errc::artnet_parser_error_category::instance());
    REQUIRE(parser.packet_count == expected.packet_count);
    REQUIRE(parser.running == expected.left_running);
  }

private:
  template <typename Record>
  void called(DatagramModel::Kind kind, const Record& record) {
    note({kind, parser.packet_count, parser.from_stale_bytes(), bytes_of(record)});
  }

  void note(Called call) {
    calls.push_back(std::move(call));
    if (static_cast<int>(calls.size()) - 1 == stop_event) parser.stop();
  }

  ArtNetParser parser;
  DatagramModel model;
  const bool as_stream;
  std::vector<Called> calls;
  int stop_event = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  Comparison comparison(script.byte());
  while (!script.at_end()) {
    const std::size_t length = script.word() % 8192;
    const int stop_at = script.byte() - 1;
    comparison.parse(script.bytes(length), stop_at);
  }
  return 0;
}
