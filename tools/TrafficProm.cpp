#include "tools/TrafficProm.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QString>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

#include "cue/CueError.h"
#include "cue/Time.h"
#include "tools/TrafficWords.h"

namespace kadrel_cue {
namespace {

constexpr mode_t kForEverybody = 0644;

/// A value between the quotes of a label.
std::string escaped(const std::string& value) {
  std::string text;
  for (const char byte : value) {
    if (byte == '\n')
      text += "\\n";
    else if (byte == '\\' || byte == '"')
      (text += '\\') += byte;
    else
      text += byte;
  }
  return text;
}

std::string label(const char* name, const std::string& value) {
  return std::string(name) + "=\"" + escaped(value) + "\"";
}

/// What tells a stream from all others; @p from first. A sender that is not known and the CID of Art-Net are
/// left out.
std::string labels_of(const std::string& from, const cue::StreamFigures& stream) {
  std::string text = from + "," + label("protocol", protocol_name(stream.protocol)) + "," +
                     label("universe", std::to_string(stream.universe + 1));
  if (stream.sender != 0) text += "," + label("sender", ipv4_text(stream.sender));
  if (stream.protocol == cue::Protocol::Sacn) text += "," + label("cid", cid_text(stream.cid));
  return text;
}

/// Metrics, each with its samples in a row, as the format wants them.
class PromText {
public:
  /// @param type  "counter" or "gauge"
  void begin(const std::string& metric, const char* type, const char* help) {
    name = "kadrel_top_" + metric;
    text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }
  void sample(const std::string& labels, const std::string& value) {
    text += name + "{" + labels + "} " + value + "\n";
  }
  const std::string& all() const { return text; }

private:
  std::string name;
  std::string text;
};

/// A metric of every stream.
struct StreamMetric {
  const char* name;
  const char* type;
  const char* help;
  std::string (*value)(const cue::StreamFigures&);
  bool (*applies)(const cue::StreamFigures&);
};

bool always(const cue::StreamFigures& /*stream*/) {
  return true;
}
bool is_sacn(const cue::StreamFigures& stream) {
  return stream.protocol == cue::Protocol::Sacn;
}
bool is_counted(const cue::StreamFigures& stream) {
  return stream.counts;
}
std::string flag(bool value) {
  return value ? "1" : "0";
}

using Stream = cue::StreamFigures;
const StreamMetric kStreamMetrics[] = {
    {"stream_datagrams_total", "counter", "Datagrams with levels.",
     [](const Stream& of) { return std::to_string(of.datagrams); }, always},
    {"stream_rate_hertz", "gauge", "Datagrams in the last whole second.",
     [](const Stream& of) { return decimal_text(of.rate, 3); }, always},
    {"stream_jitter_seconds", "gauge", "Mean deviation of the last intervals from their mean.",
     [](const Stream& of) { return decimal_text(of.jitter / 1000, 6); }, always},
    {"stream_missing", "gauge", "Datagrams that are missing by sequence number.",
     [](const Stream& of) { return std::to_string(of.missing); }, is_counted},
    {"stream_disordered", "gauge", "Datagrams that came twice or out of order.",
     [](const Stream& of) { return std::to_string(of.disordered); }, is_counted},
    {"stream_slots", "gauge", "Slots of the last datagram.",
     [](const Stream& of) { return std::to_string(of.slots); }, always},
    {"stream_highest_level", "gauge", "Highest level in the last datagram, 0 to 255.",
     [](const Stream& of) { return std::to_string(of.highest); }, always},
    {"stream_age_seconds", "gauge", "Time since the last datagram.",
     [](const Stream& of) { return decimal_seconds(of.age); }, always},
    {"stream_priority", "gauge", "Priority of the E1.31 source, 0 to 200.",
     [](const Stream& of) { return std::to_string(of.priority); }, is_sacn},
    {"stream_contested", "gauge", "1 when another sender is on this universe now.",
     [](const Stream& of) { return flag(of.contested); }, always},
    {"stream_unicast", "gauge", "1 when the last datagram went to one receiver.",
     [](const Stream& of) { return flag(of.unicast); }, always},
    {"stream_ended", "gauge", "1 when the E1.31 source said that it stops.",
     [](const Stream& of) { return flag(of.ended); }, is_sacn},
};

void add_streams(PromText& text, const std::string& from, const std::vector<Stream>& streams) {
  std::vector<std::string> labels;
  labels.reserve(streams.size());
  for (const Stream& stream : streams) labels.push_back(labels_of(from, stream));
  text.begin("stream_info", "gauge",
             "1 for each stream, with its address as net:sub-net:universe and the name of its sender.");
  for (std::size_t at = 0; at < streams.size(); ++at)
    text.sample(labels[at] + "," + label("address", net_address_text(streams[at].universe).value_or("")) +
                    "," + label("name", streams[at].name) + "," +
                    label("counting", cue::counting_name(streams[at].counting)),
                "1");
  for (const StreamMetric& metric : kStreamMetrics) {
    text.begin(metric.name, metric.type, metric.help);
    for (std::size_t at = 0; at < streams.size(); ++at)
      if (metric.applies(streams[at])) text.sample(labels[at], metric.value(streams[at]));
  }
}

}  // namespace

std::string traffic_prom(const cue::TrafficFigures& figures, const std::string& source, std::int64_t time,
                         std::uint64_t lost) {
  // With each sample, so that the files of several sources can lie in one folder.
  // A text that is no UTF-8 makes the whole file useless, and the name of a recording can be one.
  const std::string from = label("source", QString::fromStdString(source).toStdString());
  PromText text;
  text.begin("time_seconds", "gauge", "Time of these figures since 1970.");
  text.sample(from, decimal_seconds(time));
  text.begin("lost_datagrams_total", "counter", "Datagrams that came and were not taken in time.");
  text.sample(from, std::to_string(lost));
  text.begin("streams_not_shown_total", "counter", "Streams that had to make room while they were sent.");
  text.sample(from, std::to_string(figures.streams_not_shown));
  text.begin("packets_total", "counter", "Packets by kind.");
  for (const cue::TrafficKind& kind : cue::kTrafficKinds)
    text.sample(from + "," + label("kind", kind.name), std::to_string((figures.*kind.figures).packets));
  text.begin("packets_per_second", "gauge", "Packets in the last whole second by kind.");
  for (const cue::TrafficKind& kind : cue::kTrafficKinds)
    text.sample(from + "," + label("kind", kind.name), decimal_text((figures.*kind.figures).rate, 3));
  add_streams(text, from, figures.streams);
  return text.all();
}

namespace {

/// A file that is there until it has its name.
class NewFile {
public:
  /// @param beside  in whose folder; node_exporter passes over names that do not end in .prom
  explicit NewFile(const std::string& beside) : wanted(beside), name(beside + ".XXXXXX") {
    fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd == -1) throw cue::file_error(wanted, errno);
  }
  ~NewFile() {
    if (fd != -1) close(fd);
    if (!name.empty()) unlink(name.c_str());
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  NewFile(NewFile&&) = delete;
  NewFile& operator=(NewFile&&) = delete;

  void write(const std::string& text) const {
    std::size_t written = 0;
    while (written < text.size()) {
      const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
      if (count == -1 && errno == EINTR) continue;
      if (count == -1) throw cue::file_error(wanted, errno);
      written += static_cast<std::size_t>(count);
    }
  }

  void take_place() {
    if (fchmod(fd, kForEverybody) == -1 || rename(name.c_str(), wanted.c_str()) == -1)
      throw cue::file_error(wanted, errno);
    name.clear();
  }

private:
  std::string wanted;
  std::string name;  // empty: it has its place
  int fd = -1;
};

}  // namespace

void replace_text_file(const std::string& path, const std::string& text) {
  struct stat there {};
  if (stat(path.c_str(), &there) == 0 && !S_ISREG(there.st_mode))
    throw cue::CueError(path + ": is no regular file");
  NewFile file(path);
  file.write(text);
  file.take_place();
}

}  // namespace kadrel_cue
