#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

#include "kesto/mutex.h"
#include "kesto/wake_up.h"
#include "src/GrabSummary.h"
#include "src/RecordQueue.h"
#include "src/RecordingFile.h"

/// Takes recordings to their files. Records are put into memory, and the writer thread, the only one that
/// waits for their disk, writes them: before 16 KiB have come together, or after a second. Recordings that
/// have ended are completed one after the other, while the next one may have begun already.
///
/// While a file takes nothing, its records wait in memory. When there is no memory left, new ones are dropped
/// whole, so a file holds whole records only.
class GrabWriter {
public:
  using Clock = std::chrono::steady_clock;

  /// @param bytes  limit of the waiting records, all recordings together
  /// @param when_concluded  called when a recording is complete in its file; on the writer thread, must not
  /// wait
  GrabWriter(std::size_t bytes, std::function<void()> when_concluded);

  /// finish() comes first.
  ~GrabWriter();

  GrabWriter(const GrabWriter&) = delete;
  GrabWriter& operator=(const GrabWriter&) = delete;
  GrabWriter(GrabWriter&&) = delete;
  GrabWriter& operator=(GrabWriter&&) = delete;

  /// Starts the thread. @throws std::system_error
  void start();

  /// A recording begins: from now on records are for @p file. The one before has ended.
  void begin(std::unique_ptr<RecordingSink> file) EXCLUDES(mutex);

  /// What became of a record.
  struct Appended {
    bool kept = false;
    int error = 0;  // errno of the last write into this file; 0: it succeeded, or a reader is slow
  };

  /// Keeps @p delay (null: none) and @p datagram (not empty) as one record of the recording that has begun.
  Appended append(const ArtOemVfpsNs* delay, std::string_view datagram) EXCLUDES(mutex);

  /// The recording takes no more records. Does not wait.
  void end(GrabFigures figures) EXCLUDES(mutex);

  /// Asked some times a second during a wait, and must not wait itself.
  /// @param waiting  bytes that wait for their files
  /// @return whether to wait on
  using Patience = std::function<bool(std::size_t waiting)>;

  /// Waits until every recording that has ended is complete in its file, or every one in @p file.
  /// @return false when patience ended first
  bool wait_for_ended(const Patience& patience, std::optional<FileIdentity> file = std::nullopt)
      EXCLUDES(mutex);

  /// Hands out the recordings that are complete since the last call, oldest first.
  std::vector<ConcludedGrab> take_concluded() EXCLUDES(mutex);

  /// @return bytes that wait for their files, when the oldest recording's file has taken nothing for seconds
  std::optional<std::size_t> held_up(Clock::time_point now) EXCLUDES(mutex);

  struct Finished {
    bool all = false;          // false: the thread still waits for a disk; never destroy its object
    std::size_t given_up = 0;  // bytes that are in no file, of recordings that are not concluded
  };

  /// Completes and closes all files, also that of a recording which has not ended, and ends the thread.
  Finished finish(const Patience& patience) EXCLUDES(mutex);

private:
  friend class DumpProbe;
  friend class GrabWriterProbe;

  struct Grab {
    Grab(std::unique_ptr<RecordingSink> sink, BlockBudget& budget, Clock::time_point now)
        : file(std::move(sink)), identity(file->identity()), records(budget), emptied(now), went_on(now) {}

    std::unique_ptr<RecordingSink> file;  // the writer thread's
    const FileIdentity identity;
    RecordQueue records;
    std::optional<GrabFigures> ended;
    bool has_portion = false;                  // enough for a write
    int error = 0;                             // of the last write
    Clock::time_point emptied;                 // when nothing waited last
    Clock::time_point went_on;                 // when the file took something last, or nothing waited
    Clock::time_point retry;                   // after a write that failed
    std::optional<Clock::time_point> give_up;  // the end waits for room until then
    std::optional<Clock::time_point> refused;  // since then
  };

  void run();
  bool wait_for_work() EXCLUDES(mutex);
  Clock::time_point due() const REQUIRES(mutex);

  /// Writes once, or completes a file. @return whether there was anything to do
  bool step(Clock::time_point now) EXCLUDES(mutex);
  bool is_closing(const Grab& grab) const REQUIRES(mutex) { return finishing || grab.ended; }
  bool has_ended_grab(std::optional<FileIdentity> file) const REQUIRES(mutex);
  void note_refusal(Grab& grab, Clock::time_point now) REQUIRES(mutex);
  void complete(Grab& grab) EXCLUDES(mutex);
  std::size_t waiting_bytes() const REQUIRES(mutex);

  kesto::Mutex mutex;
  kesto::ConditionVariable settled;  // for who waits
  BlockBudget budget GUARDED_BY(mutex);
  std::deque<Grab> grabs GUARDED_BY(mutex);  // oldest first; records are for the newest unless it has ended
  std::vector<ConcludedGrab> concluded_grabs GUARDED_BY(mutex);
  bool waits_for_portion GUARDED_BY(mutex) = false;  // the thread does
  bool finishing GUARDED_BY(mutex) = false;
  bool abandoned GUARDED_BY(mutex) = false;
  std::size_t given_up GUARDED_BY(mutex) = 0;  // bytes, of recordings that had not ended

  // Constant after construction.
  const std::function<void()> concluded;

  kesto::WakeUp wake_up;  // of the thread
  std::thread thread;
};
