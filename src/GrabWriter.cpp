#include "src/GrabWriter.h"

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <utility>

#include "src/ThreadSignals.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// A crash loses this at most, and what comes in while the thread wakes up.
constexpr std::size_t kPortion = 16UL * 1024;

// Or the records of this time: a client can follow a recording of one universe.
constexpr auto kLongest = seconds(1);

// After a write that failed. A pipe, which holds 64 KiB, takes 6 MB a second so.
constexpr auto kRetry = milliseconds(10);

// So long the end of a recording waits for the slow reader of a pipe, each time it has read something. A file
// that fails gets no second chance then.
constexpr auto kPatience = seconds(1);

// But no longer than this in all.
constexpr auto kLastPatience = seconds(10);

// Records that have waited for so long wait for their disk: without it they take a second at most.
constexpr auto kHeldUp = seconds(2);

// Time between two looks at the patience of who waits.
constexpr auto kLook = milliseconds(50);

}  // namespace

GrabWriter::GrabWriter(std::size_t bytes, std::function<void()> when_concluded)
    : budget{std::max<std::size_t>(bytes / RecordBlock::kSize, 1)}, concluded(std::move(when_concluded)) {}

GrabWriter::~GrabWriter() {
  if (thread.joinable()) thread.join();
}

void GrabWriter::start() {
  const EndSignalsBlocked blocked;
  thread = std::thread(&GrabWriter::run, this);
}

void GrabWriter::begin(std::unique_ptr<RecordingSink> file) {
  {
    const kesto::MutexLock lock(mutex);
    grabs.emplace_back(std::move(file), budget, Clock::now());
  }
  wake_up.wake();
}

GrabWriter::Appended GrabWriter::append(const ArtOemVfpsNs* delay, std::string_view datagram) {
  Appended result;
  bool wake = false;
  {
    const kesto::MutexLock lock(mutex);
    Grab& grab = grabs.back();
    result.kept = grab.records.push(delay, datagram);
    result.error = grab.error == EAGAIN ? 0 : grab.error;
    // One more of this size would be too much.
    const std::size_t size = RecordBlock::size_of(delay) + datagram.size();
    if (grab.records.bytes() + size > kPortion) grab.has_portion = true;
    wake = waits_for_portion && grab.has_portion;
    if (wake) waits_for_portion = false;
  }
  if (wake) wake_up.wake();
  return result;
}

void GrabWriter::end(GrabFigures figures) {
  {
    const kesto::MutexLock lock(mutex);
    grabs.back().ended = std::move(figures);
  }
  wake_up.wake();
}

bool GrabWriter::has_ended_grab(std::optional<FileIdentity> file) const {
  return std::any_of(grabs.begin(), grabs.end(),
                     [&file](const Grab& grab) { return grab.ended && (!file || *file == grab.identity); });
}

bool GrabWriter::wait_for_ended(const Patience& patience, std::optional<FileIdentity> file) {
  for (;;) {
    std::size_t waiting = 0;
    {
      const kesto::MutexLock lock(mutex);
      if (!has_ended_grab(file)) return true;
      if (settled.wait_until(mutex, Clock::now() + kLook)) continue;
      waiting = waiting_bytes();
    }
    if (!patience(waiting)) return false;
  }
}

std::optional<std::size_t> GrabWriter::held_up(Clock::time_point now) {
  const kesto::MutexLock lock(mutex);
  if (grabs.empty()) return std::nullopt;
  const Grab& oldest = grabs.front();
  const bool has_work = oldest.records.bytes() > 0 || oldest.ended;
  if (!has_work || now - oldest.went_on < kHeldUp) return std::nullopt;
  return waiting_bytes();
}

std::vector<ConcludedGrab> GrabWriter::take_concluded() {
  const kesto::MutexLock lock(mutex);
  return std::exchange(concluded_grabs, {});
}

std::size_t GrabWriter::waiting_bytes() const {
  return std::accumulate(grabs.begin(), grabs.end(), std::size_t{0},
                         [](std::size_t sum, const Grab& grab) { return sum + grab.records.bytes(); });
}

GrabWriter::Finished GrabWriter::finish(const Patience& patience) {
  const kesto::MutexLock lock(mutex);
  finishing = true;
  wake_up.wake();
  while (!grabs.empty()) {
    if (!settled.wait_until(mutex, Clock::now() + kLook) && !patience(waiting_bytes())) break;
  }
  abandoned = !grabs.empty();
  return {!abandoned, given_up + waiting_bytes()};
}

// ---- the thread ----

void GrabWriter::run() {
  while (wait_for_work()) step(Clock::now());
}

/// @return false when the thread is to end
bool GrabWriter::wait_for_work() {
  for (;;) {
    Clock::time_point when;
    {
      const kesto::MutexLock lock(mutex);
      waits_for_portion = false;
      if (abandoned || (finishing && grabs.empty())) return false;
      when = due();
      if (when <= Clock::now()) return true;
      waits_for_portion = !grabs.empty() && grabs.front().error == 0;
    }
    wake_up.wait_until(when);
  }
}

GrabWriter::Clock::time_point GrabWriter::due() const {
  if (grabs.empty()) return Clock::time_point::max();
  const Grab& oldest = grabs.front();
  if (is_closing(oldest)) return oldest.give_up ? oldest.retry : Clock::time_point::min();
  if (oldest.error != 0) return oldest.retry;
  if (oldest.has_portion) return Clock::time_point::min();
  return oldest.emptied + kLongest;
}

bool GrabWriter::step(Clock::time_point now) {
  Grab* grab = nullptr;
  std::string_view bytes;
  {
    const kesto::MutexLock lock(mutex);
    if (grabs.empty()) return false;
    grab = &grabs.front();
    bytes = grab->records.front();
  }
  // Others only add meanwhile, at the end of the list and of the records.
  std::size_t written = 0;
  int error = 0;
  if (!bytes.empty()) {
    const ssize_t result = grab->file->write(bytes);
    if (result > 0)
      written = static_cast<std::size_t>(result);
    else
      error = errno != 0 ? errno : EIO;
  }
  RecordBlock::Pointer emptied;
  bool done = false;
  {
    const kesto::MutexLock lock(mutex);
    grab->error = error;
    if (error == 0) {
      if (written > 0) emptied = grab->records.take(written);
      grab->went_on = now;
      grab->has_portion = grab->records.bytes() >= kPortion / 2;
      if (grab->records.bytes() == 0) grab->emptied = now;
      grab->give_up.reset();
    } else {
      grab->retry = now + kRetry;
      if (is_closing(*grab)) note_refusal(*grab, now);
    }
    done = is_closing(*grab) && (grab->records.bytes() == 0 || (grab->give_up && *grab->give_up <= now));
  }
  if (done) complete(*grab);
  return done || !bytes.empty();
}

void GrabWriter::note_refusal(Grab& grab, Clock::time_point now) {
  if (!grab.refused) grab.refused = now;
  if (grab.give_up) return;
  grab.give_up = grab.error == EAGAIN ? std::min(now + kPatience, *grab.refused + kLastPatience) : now;
}

void GrabWriter::complete(Grab& grab) {
  // Nobody else touches a recording that takes no more records.
  ClosedFile file;
  file.given_up = grab.records.records();
  file.given_up_pauses = grab.records.pauses();
  const std::size_t given_up_bytes = grab.records.bytes() + grab.records.begun();
  if (grab.records.begun() > 0) grab.file->cut(grab.records.begun());
  file.name = grab.file->name();
  file.empty = grab.file->size() == 0;
  grab.file.reset();
  RecordQueue::Blocks blocks;
  const kesto::MutexLock lock(mutex);
  blocks = grab.records.release();
  const bool had_ended = grab.ended.has_value();
  if (had_ended)
    concluded_grabs.push_back(conclude(std::move(*grab.ended), file));
  else
    given_up += given_up_bytes;
  grabs.pop_front();
  settled.notify_all();
  // Under the lock: never once finish() has returned.
  if (had_ended && !abandoned) concluded();
}
