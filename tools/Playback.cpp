#include "tools/Playback.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <ostream>
#include <system_error>

#include "cue/CueError.h"
#include "cue/Time.h"
#include "kesto/device_info.h"

namespace kadrel_cue {
namespace {

// With a real-time priority sleeps end sooner after their time, so less of every wait is spun.
constexpr kesto::Clock::duration kSpinInRealTime = std::chrono::microseconds(50);

constexpr kesto::Clock::duration kProgressPeriod = std::chrono::milliseconds(250);

// Files up to this size are read once in advance, so that the remaining time is exact.
constexpr off_t kReadBefore = off_t{64} << 20;

/// Remaining time of a pass, exact or estimated.
class Remaining {
public:
  explicit Remaining(const cue::PlayOptions& options) : selection(options.selection), speed(options.speed) {
    struct stat status {};
    if (stat(options.file.path().c_str(), &status) == -1) return;
    size = static_cast<double>(status.st_size);
    if (status.st_size > kReadBefore) return;
    cue::RecordingReader reader(options.file);
    cue::Record record;
    std::int64_t last = 0;
    while (reader.next(record)) last = record.time;
    end = last;
  }

  std::optional<std::int64_t> at(const cue::PlayState& state) const {
    std::optional<std::int64_t> to = end;
    if (!to && state.offset > 0)
      to = static_cast<std::int64_t>(static_cast<double>(state.position) * size /
                                     static_cast<double>(state.offset));
    if (selection.stop) to = to ? std::min(*to, *selection.stop) : *selection.stop;
    if (!to) return std::nullopt;
    const std::int64_t left = std::max<std::int64_t>(0, *to - state.position);
    return speed == 0 ? left : kesto::calculate_delay(kesto::Clock::duration(left), speed).count();
  }

private:
  const cue::Selection& selection;
  int speed;
  double size = 0;
  std::optional<std::int64_t> end;
};

std::unique_ptr<cue::DatagramSink> make_sink(const Playback& playback) {
  if (!playback.relay_port) return std::make_unique<cue::UdpSender>(playback.to, playback.from);
  kesto::device::initialize();
  return std::make_unique<cue::RelaySender>(*playback.relay_port, playback.to,
                                            kesto::device::manufacturer_id());
}

/// Asks for a real-time priority. @return whether it was granted
bool enter_real_time() {
  // By default timers end up to 50 us late.
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
  sched_param lowest{};
  lowest.sched_priority = sched_get_priority_min(SCHED_RR);
  return sched_setscheduler(0, SCHED_RR, &lowest) == 0;
}

void write_stats(std::ostream& out, const cue::PlayState& state) {
  const cue::Lateness& late = state.lateness;
  out << "{\"datagrams\": " << late.count() << ", \"failed\": " << state.failed
      << ", \"late_p50_ns\": " << late.percentile(0.5) << ", \"late_p99_ns\": " << late.percentile(0.99)
      << ", \"late_max_ns\": " << late.max() << ", \"drift_ns\": " << late.drift() << "}\n";
}

}  // namespace

std::string progress_text(const cue::PlayState& state, std::optional<std::int64_t> left) {
  char text[160];
  const std::string rest = state.holding ? "held" : left ? cue::format_time(*left) + " left" : "";
  snprintf(text, sizeof text, "%s  %s  %llu datagrams  late %.2f ms (most %.2f ms)",
           cue::format_time(state.position).c_str(), rest.c_str(),
           static_cast<unsigned long long>(state.lateness.count()),
           static_cast<double>(state.lateness.percentile(0.99)) / 1e6,
           static_cast<double>(state.lateness.max()) / 1e6);
  return text;
}

int play(const Playback& playback, const std::atomic<bool>& stop, std::ostream& out, std::ostream& err) {
  const auto sink = make_sink(playback);
  cue::SteadyPlayClock clock;
  cue::Player player(playback.options, *sink, clock, stop);
  if (playback.real_time && enter_real_time()) player.spin = kSpinInRealTime;
  std::unique_ptr<const Remaining> remaining;
  if (playback.progress) {
    remaining = std::make_unique<const Remaining>(playback.options);
    player.on_idle = [&, next = clock.now()](const cue::PlayState& state) mutable {
      const auto now = clock.now();
      if (now < next) return;
      next = now + kProgressPeriod;
      err << "\r\033[K" << progress_text(state, remaining->at(state)) << std::flush;
    };
  }
  const auto finish_line = [&] {
    if (playback.progress) err << "\r\033[K" << progress_text(player.state(), 0) << std::endl;
    if (playback.stats) write_stats(out, player.state());
  };
  try {
    player.run();
  } catch (const cue::CueError&) {
    finish_line();
    throw;
  }
  finish_line();
  const cue::PlayState& state = player.state();
  if (state.failed == 0) return 0;
  err << "kadrel-cue: " << playback.options.file.name() << ": byte " << state.first_failure.offset << ": "
      << state.failed
      << " datagrams were not sent, the first: " << std::generic_category().message(state.first_failure.error)
      << "\n";
  return 1;
}

}  // namespace kadrel_cue
