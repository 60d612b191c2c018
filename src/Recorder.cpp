#include "src/Recorder.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>

#include "artnet/ArtNetPackets.h"

GrabSummary EndedGrab::conclude() {
  GrabSummary summary;
  const std::size_t given_up = file->flush();
  dropped += given_up;
  summary.file_name = file->name();
  summary.empty = file->size_on_disk() == 0;
  if (given_up > 0) forget_records_after(packet_count - static_cast<qint64>(given_up));
  summary.universe_ceiling = universe_ceiling;
  summary.universes = std::move(universes);
  file.reset();
  return summary;
}

void EndedGrab::forget_records_after(qint64 count) {
  universe_ceiling = -1;
  for (const FirstRecord& first : first_records) {
    if (first.number > count)
      universes.erase(first.universe);
    else
      universe_ceiling = std::max(universe_ceiling, first.universe);
  }
}

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

void Recorder::arm(std::unique_ptr<RecordingFile> opened, bool by_record_channel) {
  file = std::move(opened);
  grab_state = by_record_channel ? Armed : StartPending;
}

void Recorder::record(const Datagram& datagram, Verdict& verdict) {
  record_current = false;
  if (grab_state == StartPending) {
    grab_state = Running;
    verdict.started = true;
  }
  RecordingFile::Kept kept{};
  if (grab_packet_count > 0) {
    const ArtOemVfpsNs delay = make_delay_record(datagram.rx_time - prev_rx_time);
    kept = file->append({reinterpret_cast<const char*>(&delay), sizeof delay}, datagram.bytes);
  } else {
    kept = file->append({}, datagram.bytes);
  }
  const qint32 universe = std::exchange(current_universe, -1);
  if (kept == RecordingFile::Kept::No) {
    verdict.dropping_began = dropped++ == 0;
    return;
  }
  verdict.recorded = true;
  verdict.dropped = std::exchange(dropped, 0);
  prev_rx_time = datagram.rx_time;
  grab_max_universe = std::max(grab_max_universe, universe);
  if (grab_packet_count < std::numeric_limits<qint32>::max()) ++grab_packet_count;
  if (!grab_universe_noted.test(static_cast<std::size_t>(universe))) {
    grab_universe_noted.set(static_cast<std::size_t>(universe));
    grab_universes.insert(universe);
    first_records.push_back({universe, grab_packet_count});
  }
}

void Recorder::finalize_grabbing() {
  grab_state = Off;
  ended_grab.emplace();
  ended_grab->file = std::move(file);
  ended_grab->packet_count = std::exchange(grab_packet_count, 0);
  ended_grab->universe_ceiling = std::exchange(grab_max_universe, -1);
  ended_grab->universes = std::exchange(grab_universes, {});
  ended_grab->first_records = std::exchange(first_records, {});
  ended_grab->dropped = std::exchange(dropped, 0);
  grab_universe_noted.reset();
  current_universe = -1;
}
