// Single steps of the service object, without its threads.

#include "artnet/ArtNetPackets.h"
#include "bench/micro/micro.h"
#include "bench/micro/packets.h"
#include "src/GrabSummary.h"
#include "tests/support/DumpProbe.h"

namespace {

/// A datagram of a console or node. @param time  receive time, ns
void receive(DumpProbe& probe, const micro::Datagram& datagram, qint64 time) {
  static const kesto::net::HostAddress sender("10.77.0.2");
  probe.receive({datagram.data(), datagram.size()}, sender, kArtNetPort, time);
}

/// One foreign ArtDmx after the other through everything after the socket, into a file that keeps nothing.
void record(benchmark::State& state, int universes) {
  DumpProbe probe;
  probe->grab(QStringLiteral("/dev/null"));
  std::vector<micro::Datagram> frame;
  for (int i = 0; i < universes; ++i) frame.push_back(micro::art_dmx(i));
  qint64 time = 0;
  for (const auto& datagram : frame) receive(probe, datagram, ++time);
  std::size_t next = 0;
  for (auto step : state) {
    receive(probe, frame[next], ++time);
    if (++next == frame.size()) next = 0;
  }
  probe->stop();
}

/// The same while nothing is recorded.
void ignore(benchmark::State& state) {
  DumpProbe probe;
  const micro::Datagram datagram = micro::art_dmx(0);
  qint64 time = 0;
  for (auto step : state) receive(probe, datagram, ++time);
}

std::vector<micro::Datagram> replies_of(int nodes, micro::Datagram (*reply)(int)) {
  std::vector<micro::Datagram> replies;
  for (int i = 0; i < nodes; ++i) replies.push_back(reply(i));
  return replies;
}

/// A reply of a node that the current cycle has met already, among @p known nodes.
void intake(benchmark::State& state, int known, micro::Datagram (*reply)(int)) {
  DumpProbe probe;
  const auto replies = replies_of(known, reply);
  probe.begin_detection_cycle();
  for (const auto& datagram : replies) receive(probe, datagram, 1);
  std::size_t next = 0;
  for (auto step : state) {
    receive(probe, replies[next], 1);
    if (++next == replies.size()) next = 0;
  }
}

/// A whole cycle: all nodes of the cycle before answer once.
void cycle(benchmark::State& state, int known, micro::Datagram (*reply)(int)) {
  DumpProbe probe;
  const auto replies = replies_of(known, reply);
  const auto run = [&] {
    probe.begin_detection_cycle();
    for (const auto& datagram : replies) receive(probe, datagram, 1);
    probe.evaluate_detection_cycle();
  };
  run();
  for (auto step : state) run();
}

void build_reply(benchmark::State& state) {
  const NodeIdentity identity{"0a4d0001", "0200000a4d01", 0x1234, 0x5678, "kadrel", "kadrel on a stage"};
  qint32 index = 0;
  for (auto step : state) {
    ArtPollReply reply = make_art_poll_reply(identity);
    set_port_address(reply, index);
    index = (index + 1) % kUniverseLimit;
    benchmark::DoNotOptimize(reply);
  }
}

GrabSummary large_summary() {
  GrabSummary summary;
  summary.file_name = QStringLiteral("/cues/all");
  summary.empty = false;
  summary.universe_ceiling = kUniverseLimit - 1;
  for (qint32 i = 0; i < kUniverseLimit; ++i) summary.universes.insert(i);
  return summary;
}

void report(benchmark::State& state) {
  const GrabSummary summary = large_summary();
  for (auto step : state) benchmark::DoNotOptimize(grab_report(summary));
}

/// A recording of every universe there is ends: this is what the receive thread waits for.
void finalize(benchmark::State& state) {
  DumpProbe probe;
  qint64 time = 0;
  for (auto step : state) {
    state.PauseTiming();
    probe->grab(QStringLiteral("/dev/null"));
    for (int i = 0; i < kUniverseLimit; ++i) receive(probe, micro::art_dmx(i, 24), ++time);
    state.ResumeTiming();
    probe->stop();
  }
}

}  // namespace

void register_service() {
  add("service/record_1_universe", [](auto& state) { record(state, 1); });
  add("service/record_4096_universes", [](auto& state) { record(state, 4096); });
  add("service/ArtDmx_when_off", ignore);
  add("service/node_intake_1_known", [](auto& state) { intake(state, 1, micro::art_poll_reply); });
  add("service/node_intake_1200_known", [](auto& state) { intake(state, 1200, micro::art_poll_reply); });
  add("service/node_intake_32768_known", [](auto& state) { intake(state, 32768, micro::art_poll_reply); });
  add("service/node_intake_32768_names_that_collide",
      [](auto& state) { intake(state, 32768, micro::colliding_reply); });
  add("service/detection_cycle_1200_nodes", [](auto& state) { cycle(state, 1200, micro::art_poll_reply); });
  add("service/detection_cycle_32768_nodes", [](auto& state) { cycle(state, 32768, micro::art_poll_reply); });
  add("service/poll_reply", build_reply);
  add("service/grab_report_32768_universes", report);
  add("service/stop_32768_universes", finalize);
}
