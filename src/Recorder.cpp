#include "src/Recorder.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "artnet/ArtNetPackets.h"

const char* Recorder::status() const {
  switch (grab_state) {
    case Armed:
    case StartPending:
      return "on";
    case Running:
    case StopPending:
      return "run";
    default:
      return "off";
  }
}

void Recorder::record(const kesto::net::Datagram& datagram, Verdict& verdict) {
  record_current = false;
  if (grab_state == StartPending) {
    grab_state = Running;
    verdict.started = true;
  }
  // A datagram that ends the recording as well may be its first one.
  if (!std::exchange(begun, true)) first_rx_time = datagram.rx_time;
  GrabWriter::Appended appended;
  qint64 rx_time = datagram.rx_time;
  if (grab_packet_count > 0) {
    // Two processors may queue two datagrams in another order than they were stamped in.
    rx_time = std::max(rx_time, prev_rx_time);
    const ArtOemVfpsNs delay = make_delay_record(rx_time - prev_rx_time);
    appended = writer.append(&delay, datagram.bytes);
  } else {
    appended = writer.append(nullptr, datagram.bytes);
  }
  const qint32 universe = std::exchange(current_universe, -1);
  if (!appended.kept) losses.note(0, 1, datagram.rx_time - first_rx_time);
  if (!appended.kept || appended.error != 0 || outage != Outage::None) note_outage(appended, verdict);
  if (!appended.kept) return;
  verdict.recorded = true;
  prev_rx_time = rx_time;
  grab_max_universe = std::max(grab_max_universe, universe);
  if (grab_packet_count < std::numeric_limits<qint32>::max()) ++grab_packet_count;
  ++recorded;
  if (!grab_universe_noted.test(static_cast<std::size_t>(universe))) {
    grab_universe_noted.set(static_cast<std::size_t>(universe));
    grab_universes.insert(universe);
    first_records.push_back({universe, recorded});
  }
}

void Recorder::note_outage(GrabWriter::Appended appended, Verdict& verdict) {
  if (!appended.kept) {
    ++dropped;
    verdict.dropping_began = outage != Outage::Dropping;
    outage = Outage::Dropping;
  } else if (appended.error != 0) {
    if (outage == Outage::None) {
      verdict.file_error = appended.error;
      outage = Outage::Waiting;
    }
  } else {
    verdict.file_recovered = true;
    verdict.dropped = std::exchange(dropped, 0);
    outage = Outage::None;
  }
}

void Recorder::note_kernel_drops(std::uint32_t drops, qint64 time) {
  const std::uint32_t more = drops - kernel_drops;
  // A datagram that waited in the queue knows less than the socket that was asked when a recording ended.
  if (more > std::numeric_limits<std::uint32_t>::max() / 2) return;
  if (begun) losses.note(more, 0, time - first_rx_time);
  kernel_drops = drops;
}

void Recorder::finalize_grabbing() {
  grab_state = Off;
  GrabFigures figures;
  grab_packet_count = 0;
  figures.packet_count = std::exchange(recorded, 0);
  figures.universe_ceiling = std::exchange(grab_max_universe, -1);
  figures.universes = std::exchange(grab_universes, {});
  figures.first_records = std::exchange(first_records, {});
  figures.length = figures.packet_count > 0 ? prev_rx_time - first_rx_time : 0;
  figures.dropped = std::exchange(dropped, 0);
  figures.waits = std::exchange(outage, Outage::None) != Outage::None;
  figures.losses = std::exchange(losses, {});
  begun = false;
  grab_universe_noted.reset();
  current_universe = -1;
  writer.end(std::move(figures));
}
