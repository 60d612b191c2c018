#include "tools/TopSource.h"

#include <net/if.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

#include "artnet/ArtNet.h"
#include "cue/CueError.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "cue/live/Follower.h"
#include "cue/live/LiveCapture.h"
#include "cue/live/Meters.h"
#include "cue/live/Traffic.h"
#include "kesto/delay.h"
#include "kesto/wall_clock.h"

namespace kadrel_cue {
namespace {

constexpr const char* kUsualInterface = "eth0";

// A file that has not grown for this time is taken for a recording that has ended.
constexpr std::int64_t kEnded = 5 * cue::kSecond;

// Keys and the screen wait no longer than this for a long recording.
constexpr std::int64_t kReadTime = cue::kSecond / 10;
constexpr int kRecordsBetweenLooks = 1000;

std::int64_t steady_now() {
  return std::chrono::nanoseconds(kesto::Clock::now().time_since_epoch()).count();
}

class LiveSource : public TopSource {
public:
  explicit LiveSource(std::string interface) : name(std::move(interface)), capture(name) {}

  void read() override {
    arrivals.look(kesto::wall_time(), steady_now());
    capture.read([this](const cue::UdpDatagram& datagram, std::int64_t stamp) {
      traffic.add(datagram, arrivals.at(stamp));
    });
  }

  bool is_at_end() const override { return true; }
  bool is_live() const override { return true; }

  void finish() override {}

  TopFigures figures() override { return {traffic.figures(steady_now()), name, capture.lost(), {}}; }

private:
  std::string name;
  cue::LiveCapture capture;
  cue::ArrivalClock arrivals;
  cue::Traffic traffic;
};

/// Time runs on beside a recording that grows; one that has ended stands at its last datagram.
class RecordingSource : public TopSource {
public:
  RecordingSource(std::string file_path, SteadyTime time)
      : path(std::move(file_path)), clock(std::move(time)) {
    open();
  }

  void read() override {
    if (gone_or_replaced()) return;
    // What finish() has ended cannot be followed on.
    if (has_ended && file->size() != ended_size) open();
    const std::int64_t begin = clock();
    cue::Record record;
    at_end = false;
    for (int count = 1; !at_end; ++count) {
      const bool taken = file->next(record);
      if (taken) take(record, begin);
      at_end = !taken && !file->is_interrupted();
      if ((!taken || count % kRecordsBetweenLooks == 0) && clock() - begin > kReadTime) break;
    }
    if (at_end) note_growth(begin);
  }

  bool is_at_end() const override { return at_end; }
  bool is_live() const override { return false; }

  void finish() override {
    grows = false;
    has_ended = true;
    ended_size = size;
    damages = file->damages();
    file->finish();
    cue::Record record;
    while (file->next(record)) take(record, clock());
  }

  TopFigures figures() override {
    // The beginning of a file is read at once: time begins to run with what comes later.
    const std::int64_t passed = grows ? clock() - last_taken : 0;
    return {traffic->figures(last_time + passed), path, 0, notes()};
  }

private:
  void open() {
    file = std::make_unique<cue::Follower>(path);
    traffic = std::make_unique<cue::Traffic>();
    at_end = false;
    grows = false;
    has_ended = false;
    last_time = 0;
    read_to = 0;
    size = 0;
    last_growth = clock();
  }

  /// @return whether there is nothing to read now
  bool gone_or_replaced() {
    if (!file->is_replaced()) return is_gone = false;
    struct stat named {};
    is_gone = stat(path.c_str(), &named) == -1;
    if (!is_gone) open();
    return is_gone;
  }

  void take(const cue::Record& record, std::int64_t now) {
    cue::UdpDatagram datagram;  // without addresses: a recording has none
    datagram.port = kArtNetPort;
    datagram.payload = {record.data, record.size};
    traffic->add(datagram, record.time);
    last_time = record.time;
    last_taken = now;
    read_to = record.end();
  }

  void note_growth(std::int64_t now) {
    const std::uint64_t size_now = file->size();
    if (size_now != size) {
      grows = size != 0;
      size = size_now;
      last_growth = now;
    } else if (!has_ended && now - last_growth > kEnded) {
      finish();
    }
  }

  std::vector<std::string> notes() const {
    std::vector<std::string> found;
    if (is_gone) found.emplace_back("the file is gone; this is its last state");
    // The file may become shorter at any time.
    const std::uint64_t all = file->size();
    if (!at_end && all > 0)
      found.push_back("reading: " + std::to_string(std::min(read_to, all) * 100 / all) + " %");
    const std::int64_t still = clock() - last_growth;
    if (has_ended && !is_gone && still > kEnded)
      found.push_back("the file has not grown for " + cue::seconds_text(still, 0) +
                      ": this is its last state");
    // What is half written at the end is none.
    const std::uint64_t count = has_ended ? damages : file->damages();
    if (count > 0) found.push_back("the file is damaged at " + cue::counted(count, "place"));
    return found;
  }

  // Constant after construction.
  std::string path;
  SteadyTime clock;

  std::unique_ptr<cue::Follower> file;
  std::unique_ptr<cue::Traffic> traffic;
  bool at_end = false;
  bool is_gone = false;
  bool grows = false;         // it has grown since it was opened, and has not ended
  bool has_ended = false;     // finish() was called
  std::uint64_t damages = 0;  // before that
  std::uint64_t ended_size = 0;
  std::uint64_t size = 0;        // bytes at the last look
  std::uint64_t read_to = 0;     // offset
  std::int64_t last_time = 0;    // ns in the recording
  std::int64_t last_taken = 0;   // ns on the steady clock, when the last datagram was read
  std::int64_t last_growth = 0;  // the same, when the file was found larger
};

bool is_file(const std::string& name) {
  struct stat named {};
  if (name.find('/') != std::string::npos) return true;
  return name != cue::kAnyInterface && if_nametoindex(name.c_str()) == 0 && stat(name.c_str(), &named) == 0;
}

}  // namespace

std::unique_ptr<TopSource> follow_recording(const std::string& path, SteadyTime now) {
  return std::make_unique<RecordingSource>(path, std::move(now));
}

std::unique_ptr<TopSource> open_top_source(const std::string& name) {
  if (name.empty())
    return std::make_unique<LiveSource>(
        default_interface(if_nametoindex(kUsualInterface) != 0, cue::capture_interfaces()));
  if (is_file(name)) return follow_recording(name, steady_now);
  return std::make_unique<LiveSource>(name);
}

std::string default_interface(bool has_eth0, const std::vector<std::string>& up) {
  if (has_eth0) return kUsualInterface;
  std::vector<std::string> found;
  std::string names;
  for (const std::string& name : up) {
    if (name == "lo") continue;
    found.push_back(name);
    names += ' ' + name;
  }
  if (found.size() == 1) return found.front();
  if (found.empty()) throw cue::CueError("no network interface is up (lo looks at this computer alone)");
  throw cue::CueError("which interface? There are" + names + ", and any for all of them");
}

}  // namespace kadrel_cue
