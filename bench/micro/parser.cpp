// The parser, one datagram of each kind at a time, as the receive loop parses it.
#include <string_view>

#include "artnet/ArtNetParser.h"
#include "bench/micro/micro.h"
#include "bench/micro/packets.h"

namespace {

void parse(benchmark::State& state, const micro::Datagram& datagram) {
  ArtNetParser parser;
  std::uint64_t calls = 0;
  parser.on_poll = [&calls](ArtPoll&) { ++calls; };
  parser.on_poll_reply = [&calls](ArtPollReply&) { ++calls; };
  parser.on_dmx = [&calls](ArtDmx&) { ++calls; };
  parser.on_trigger = [&calls](ArtTrigger&) { ++calls; };
  parser.on_unknown = [&calls](ArtHeader&) { ++calls; };
  for (auto step : state) {
    std::error_code ec;
    parser.parse_datagram(std::string_view(datagram.data(), datagram.size()), ec);
    benchmark::DoNotOptimize(ec);
  }
  benchmark::DoNotOptimize(calls);
}

micro::Datagram joined(const micro::Datagram& first, const micro::Datagram& second) {
  micro::Datagram both = first;
  both.insert(both.end(), second.begin(), second.end());
  return both;
}

}  // namespace

void register_parser() {
  add("parser/ArtDmx_512_slots", [](auto& state) { parse(state, micro::art_dmx(1)); });
  add("parser/ArtDmx_24_slots", [](auto& state) {
    auto datagram = micro::art_dmx(1, 24);
    datagram.resize(18 + 24);
    parse(state, datagram);
  });
  add("parser/ArtDmx_twice", [](auto& state) { parse(state, joined(micro::art_dmx(1), micro::art_dmx(2))); });
  add("parser/ArtDmx_cut_off", [](auto& state) {
    auto datagram = micro::art_dmx(1);
    datagram.resize(300);
    parse(state, datagram);
  });
  add("parser/ArtDmx_oversized", [](auto& state) { parse(state, micro::art_dmx(1, 513)); });
  add("parser/ArtPoll", [](auto& state) { parse(state, micro::art_poll()); });
  add("parser/ArtPollReply", [](auto& state) { parse(state, micro::art_poll_reply(1)); });
  add("parser/ArtTrigger", [](auto& state) { parse(state, micro::datagram_of(ArtTrigger{}, OpTrigger)); });
  add("parser/delay_record",
      [](auto& state) { parse(state, micro::datagram_of(ArtOemVfpsNs{}, OpOemVfpsNs)); });
  add("parser/frames_per_second_record",
      [](auto& state) { parse(state, micro::datagram_of(ArtOemVfps{}, OpOemVfps)); });
  add("parser/unknown_opcode", [](auto& state) { parse(state, micro::datagram_of(ArtDmx{}, 0x5200)); });
  add("parser/no_identifier", [](auto& state) { parse(state, micro::Datagram(530, 'x')); });
  // Every byte begins an identifier that does not go on.
  add("parser/only_first_letters", [](auto& state) { parse(state, micro::Datagram(530, 'A')); });
}
