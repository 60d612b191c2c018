#include "tools/Playback.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <ostream>
#include <system_error>
#include <utility>

#include "artnet/ArtNet.h"
#include "cue/CueError.h"
#include "cue/GoodRecords.h"
#include "cue/SacnSender.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "kesto/device_info.h"
#include "tools/Terminal.h"

namespace kadrel_cue {
namespace {

// With a real-time priority sleeps end sooner after their time, so less of every wait is spun.
constexpr kesto::Clock::duration kSpinInRealTime = std::chrono::microseconds(50);

constexpr kesto::Clock::duration kProgressPeriod = std::chrono::milliseconds(250);

// Files up to this size are read once in advance, so that the remaining time is exact.
constexpr off_t kReadBefore = off_t{64} << 20;

// The fewest columns that a line is made for.
constexpr std::size_t kFewestColumns = 20;

constexpr const char* kPriorityAdvice =
    "datagrams may be late while the machine is busy; root has it, a unit file gives it with LimitRTPRIO=1, "
    "ulimit -r 1 does where limits.conf allows rtprio, and setcap cap_net_raw,cap_sys_nice+ep gives it to "
    "the program, "
    "with the right to capture";

/// Remaining time of a pass, exact or estimated.
class Remaining {
public:
  explicit Remaining(const cue::PlayOptions& play_options) : options(play_options) {
    struct stat status {};
    // What is no regular file can be read only once.
    if (stat(options.file.path().c_str(), &status) == -1 || !S_ISREG(status.st_mode)) return;
    size = static_cast<double>(status.st_size);
    if (status.st_size > kReadBefore) return;
    cue::GoodRecords records(options.file, [](const auto&, const auto&) {});
    cue::Record record;
    std::int64_t last = 0;
    while (records.next(record)) last = record.time;
    end = last;
  }

  std::optional<std::int64_t> at(const cue::PlayState& state) const {
    std::optional<std::int64_t> to = end;
    if (!to && state.offset > 0 && size > 0)
      to = static_cast<std::int64_t>(static_cast<double>(state.position) * size /
                                     static_cast<double>(state.offset));
    const auto& stop = options.selection.stop;
    if (stop) to = to ? std::min(*to, *stop) : *stop;
    if (!to) return std::nullopt;
    return cue::at_speed(std::max<std::int64_t>(0, *to - state.position), options);
  }

private:
  const cue::PlayOptions& options;
  double size = 0;
  std::optional<std::int64_t> end;
};

std::unique_ptr<cue::PlaybackSink> make_sink(const Playback& playback) {
  std::vector<cue::Target> targets = playback.targets;
  for (cue::Target& target : targets)
    if (target.to.port == 0) target.to.port = playback.sacn ? cue::kSacnPort : kArtNetPort;
  if (playback.sacn)
    return std::make_unique<cue::SacnSender>(cue::SacnOptions{*playback.sacn, targets, playback.from});
  if (playback.relay_port) kesto::device::initialize();
  const auto make = [&](const cue::Destination& to) -> std::unique_ptr<cue::TargetSender> {
    if (!playback.relay_port) return std::make_unique<cue::UdpSender>(to, playback.from);
    return std::make_unique<cue::RelaySender>(*playback.relay_port, to, kesto::device::manufacturer_id());
  };
  return std::make_unique<cue::ArtNetTargets>(targets, make);
}

/// Asks for a real-time priority. @return 0 when it was granted, otherwise errno
int enter_real_time() {
  // By default timers end up to 50 us late.
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
  sched_param lowest{};
  lowest.sched_priority = sched_get_priority_min(SCHED_RR);
  return sched_setscheduler(0, SCHED_RR, &lowest) == 0 ? 0 : errno;
}

std::string error_text(int error) {
  return std::generic_category().message(error);
}

std::uint64_t failures_of(const std::vector<cue::Delivery>& deliveries) {
  std::uint64_t count = 0;
  for (const cue::Delivery& delivery : deliveries) count += delivery.failures.count;
  return count;
}

/// The failing targets in few words; empty when none fails.
std::string failures_text(const std::vector<cue::Delivery>& deliveries) {
  const auto fails = [](const cue::Delivery& delivery) { return delivery.failures.count > 0; };
  const auto failing = std::count_if(deliveries.begin(), deliveries.end(), fails);
  if (failing == 0) return "";
  if (deliveries.size() == 1) return "NOT DELIVERED: " + std::to_string(deliveries[0].failures.count);
  if (failing > 1)
    return std::to_string(failing) + " of " + std::to_string(deliveries.size()) + " targets FAIL";
  return std::find_if(deliveries.begin(), deliveries.end(), fails)->target + " FAILS";
}

std::string pass_text(const cue::PlayState& state) {
  if (state.passes && *state.passes == 1) return "";
  const std::string text = "pass " + std::to_string(state.pass);
  return state.passes ? text + "/" + std::to_string(*state.passes) : text;
}

std::string late_text(const cue::Lateness& lateness, bool with_most) {
  char text[80];
  const auto ms = [](std::int64_t ns) { return static_cast<double>(ns) / 1e6; };
  if (with_most)
    snprintf(text, sizeof text, "late %.2f ms (most %.2f ms)", ms(lateness.percentile(0.99)),
             ms(lateness.max()));
  else
    snprintf(text, sizeof text, "late %.2f ms", ms(lateness.percentile(0.99)));
  return text;
}

/// Whether there were datagrams, and all of universes that go to no target.
bool nobody_gets_it(const cue::PlaybackSink& targets, const cue::PlayState& state) {
  return targets.sent() == 0 && state.lateness.count() > 0 && failures_of(targets.deliveries()) == 0;
}

std::string nobody_text(const cue::PlayOptions& options) {
  return options.file.name() + ": no target gets any of its universes";
}

/// A running playback as its operator sees it: the line that shows where it is, and what is said of failures.
class Display {
public:
  Display(const Playback& played, const cue::PlaybackSink& sink, std::ostream& errors)
      : playback(played), targets(sink), err(errors) {
    if (playback.progress) remaining.emplace(playback.options);
  }

  /// Says which targets have begun to fail, or that none gets anything, and shows the line.
  void show(const cue::PlayState& state) {
    const auto deliveries = targets.deliveries();
    // Not at the first time: another universe may come a moment after it.
    if (nobody_gets_it(targets, state) && unheard++ == 1)
      say(nobody_text(playback.options) + " so far; going on");
    known.resize(deliveries.size());
    for (std::size_t index = 0; index < deliveries.size(); ++index) {
      const cue::Failures& failures = deliveries[index].failures;
      if (failures.count == 0 || known[index]) continue;
      known[index] = true;
      say(deliveries[index].target + ": " + reason(failures) + "; going on");
    }
    if (playback.progress)
      err << kClearLine << progress_text({state, remaining->at(state), deliveries, line_width()})
          << std::flush;
  }

  /// Leaves the line as it stands, and says what did not get through.
  void finish(const cue::PlayState& state) {
    const auto deliveries = targets.deliveries();
    if (playback.progress)
      err << kClearLine << progress_text({state, remaining->at(state), deliveries, line_width()})
          << std::endl;
    for (const cue::Delivery& delivery : deliveries) {
      if (delivery.failures.count == 0) continue;
      err << "kadrel-cue: " << delivery.target << ": " << cue::counted(delivery.failures.count, "datagram")
          << " not delivered, the first: " << reason(delivery.failures) << std::endl;
    }
  }

  /// A line of its own, above the progress.
  void say(const std::string& words) {
    err << (playback.progress ? kClearLine : "") << "kadrel-cue: " << words << std::endl;
  }

private:
  std::string reason(const cue::Failures& failures) const {
    if (playback.relay_port && failures.first_error == ECONNREFUSED)
      return "no kadrel listens on port " + std::to_string(*playback.relay_port) + " of this host";
    const bool to_groups = playback.sacn && playback.targets.empty();
    return error_text(failures.first_error) +
           (to_groups && failures.first_error == ENETUNREACH ? " (--from names the interface)" : "");
  }

  static std::size_t line_width() {
    // In the last column some terminals begin a new line.
    return std::max(terminal_columns(), kFewestColumns) - 1;
  }

  const Playback& playback;
  const cue::PlaybackSink& targets;
  std::ostream& err;
  std::optional<Remaining> remaining;
  std::vector<bool> known;    // to fail, by target
  std::uint64_t unheard = 0;  // times shown while no target had got anything
};

void write_stats(std::ostream& out, const cue::PlayState& state, std::uint64_t failed) {
  const cue::Lateness& late = state.lateness;
  out << "{\"datagrams\": " << late.count() << ", \"failed\": " << failed
      << ", \"late_p50_ns\": " << late.percentile(0.5) << ", \"late_p99_ns\": " << late.percentile(0.99)
      << ", \"late_max_ns\": " << late.max() << ", \"drift_ns\": " << late.drift() << "}\n";
}

/// Has damage said on a line of its own.
void keep_line_from_damage(cue::OnDamage& on_damage, std::ostream& err) {
  if (!on_damage) return;
  on_damage = [warn = std::move(on_damage), &err](const cue::RecordingReader& reader,
                                                  const cue::Damage& damage) {
    err << kClearLine;
    warn(reader, damage);
  };
}

}  // namespace

std::string progress_text(const PlayProgress& progress) {
  const cue::PlayState& state = progress.state;
  std::string rest;
  if (state.holding)
    rest = "held";
  else if (progress.left)
    rest = cue::format_time(*progress.left) + " left";
  // From left to right, each with its rank: what has the highest is left out first.
  struct Part {
    int rank;
    std::string text;
  };
  std::vector<Part> parts{{0, cue::format_time(state.position)},
                          {1, state.paused ? "PAUSED" : ""},
                          {1, failures_text(progress.deliveries)},
                          {2, rest},
                          {3, pass_text(state)},
                          {4, cue::counted(state.lateness.count(), "datagram")},
                          {6, late_text(state.lateness, true)},
                          {5, late_text(state.lateness, false)}};
  for (int highest = 6;; --highest) {
    std::string line;
    for (const Part& part : parts) {
      // The lateness is there in one form.
      if (part.text.empty() || part.rank > highest || (part.rank == 5 && highest > 5)) continue;
      if (!line.empty()) line += "  ";
      line += part.text;
    }
    if (line.size() <= progress.width || highest == 0) return line.substr(0, progress.width);
  }
}

int play(Playback playback, const std::atomic<bool>& stop, std::ostream& out, std::ostream& err) {
  if (playback.progress) keep_line_from_damage(playback.options.on_damage, err);
  const auto sink = make_sink(playback);
  cue::SteadyPlayClock clock;
  cue::Player player(playback.options, *sink, clock, stop);
  Display display(playback, *sink, err);
  if (playback.real_time) {
    const int error = enter_real_time();
    if (error == 0)
      player.spin = kSpinInRealTime;
    else
      display.say("no real-time priority (" + error_text(error) + "): " + kPriorityAdvice);
  }
  player.wait_for_start = playback.wait_for_start;
  if (playback.keyboard != nullptr) player.next_command = [&] { return playback.keyboard->next_command(); };
  player.on_idle = [&, next = clock.now()](const cue::PlayState& state) mutable {
    sink->idle();
    const auto now = clock.now();
    if (now < next) return;
    next = now + kProgressPeriod;
    display.show(state);
  };
  const auto finish = [&] {
    sink->finish();
    display.finish(player.state());
    if (playback.stats) write_stats(out, player.state(), failures_of(sink->deliveries()));
  };
  try {
    player.run();
  } catch (const std::exception&) {
    finish();
    throw;
  }
  finish();
  if (failures_of(sink->deliveries()) > 0) return 1;
  if (nobody_gets_it(*sink, player.state())) throw cue::CueError(nobody_text(playback.options));
  return 0;
}

}  // namespace kadrel_cue
