#include <QFile>
#include <algorithm>

#include "artnet/ArtNetPackets.h"
#include "kesto/logger.h"
#include "src/CueCopy.h"
#include "src/Dump.h"

// The grabber: recordings, their summary, and copies of cues.

void Dump::grab(const QString& filename) {
  const std::lock_guard guard(state_lock.writer());
  KESTO_LOG(3, "[Dump::grab] Preparing to grab");
  if (grab_state != Off) {
    KESTO_LOG(3, "[Dump::grab] Failed to start grabber, not idle");
    return;
  }
  recording_file = RecordingFile::open(filename);
  if (recording_file == nullptr) {
    KESTO_LOG(-2, "Can't open file for grabbing");
    return;
  }
  grab_state = ctrl_record_enabled() ? Armed : StartPending;
}

void Dump::stop() {
  // Freed once the lock is released: a summary of thousands of universes takes a while.
  std::shared_ptr<const GrabSummary> previous;
  const std::lock_guard guard(state_lock.writer());
  KESTO_LOG(3, "[Dump::stop] Stopping grabber");
  if (grab_state == Off) {
    KESTO_LOG(3, "[Dump::stop] Failed to stop grabber, idle");
    return;
  }
  previous = latest_grab_summary;
  finalize_grabbing();
}

QString Dump::get_status() {
  const std::lock_guard guard(state_lock.writer());
  switch (grab_state) {
    case Armed:
    case StartPending:
      return QStringLiteral("on");
    case Running:
    case StopPending:
      return QStringLiteral("run");
    default:
      return QStringLiteral("off");
  }
}

void Dump::finalize_grabbing() {
  KESTO_LOG(3, "[Dump::finalize_grabbing] Grabbing finalized");
  recording_file->flush();
  auto summary = std::make_shared<GrabSummary>();
  summary->file_name = recording_file->name();
  summary->empty = recording_file->size_on_disk() == 0;
  summary->universe_ceiling = grab_max_universe;
  summary->universes = std::move(grab_universes);
  latest_grab_summary = std::move(summary);
  grab_state = Off;
  recording_file.reset();
  grab_universes.clear();
  grab_universe_noted.reset();
  grab_packet_count = 0;
  grab_max_universe = -1;
  current_universe = -1;
}

void Dump::record_datagram(std::string_view datagram) {
  if (!record_current) return;
  record_current = false;
  if (grab_state == StartPending) {
    KESTO_LOG(3, "[Dump::process_datagram] Grabbing started");
    grab_state = Running;
  }
  if (grab_packet_count > 0) {
    const ArtOemVfpsNs delay = make_delay_record(rx_time - prev_rx_time);
    recording_file->append({reinterpret_cast<const char*>(&delay), sizeof delay}, datagram);
  } else {
    recording_file->append({}, datagram);
  }
  grab_max_universe = std::max(grab_max_universe, current_universe);
  ++grab_packet_count;
  if (!grab_universe_noted.test(static_cast<std::size_t>(current_universe))) {
    grab_universe_noted.set(static_cast<std::size_t>(current_universe));
    grab_universes.insert(current_universe);
  }
  prev_rx_time = rx_time;
  current_universe = -1;
}

QString Dump::latest_grab() {
  std::shared_ptr<const GrabSummary> summary;
  {
    const std::lock_guard guard(state_lock.writer());
    summary = latest_grab_summary;
  }
  const std::string report = grab_report(*summary);
  KESTO_LOG(3, "[Dump::latest_grab] Get latest grab (%s)", report.c_str());
  return QString::fromLocal8Bit(report.data(), static_cast<int>(report.size()));
}

QString Dump::dup_cue(const QString& destpath, const QString& filename) {
  KESTO_LOG(3, "[Dump::dup_cue] Preparing to clone cue");
  if (!QFile::exists(filename)) return QString::fromLatin1("");
  KESTO_LOG(3, "[Dump::dup_cue] Generating new cue path");
  QString path = new_cue_path(destpath);
  KESTO_LOG(3, "[Dump::dup_cue] New cue path is: %s", path.toLocal8Bit().constData());
  if (!path.isEmpty()) copy_cue(filename, path);
  KESTO_LOG(3, "[Dump::dup_cue] cue cloned");
  return path;
}
