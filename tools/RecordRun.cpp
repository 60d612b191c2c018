#include "tools/RecordRun.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <ostream>
#include <thread>
#include <utility>
#include <vector>

#include "cue/Completeness.h"
#include "cue/CueError.h"
#include "cue/Edit.h"
#include "cue/RecordingInfo.h"
#include "cue/Text.h"
#include "cue/Time.h"
#include "cue/Verify.h"
#include "cue/live/Follower.h"
#include "tools/LevelWatch.h"
#include "tools/Progress.h"
#include "tools/RecordDisplay.h"
#include "tools/ReservedFile.h"
#include "tools/SequenceReport.h"
#include "tools/ServiceClient.h"
#include "tools/ServiceGrab.h"
#include "tools/Signals.h"

namespace kadrel_cue {
namespace {

using Clock = std::chrono::steady_clock;
using Standing = ServiceGrab::Standing;
using std::chrono::milliseconds;

// Between two looks into the file; a person does not notice so much.
constexpr auto kReadPeriod = milliseconds(100);

// Between two live lines, and two questions to the service.
constexpr auto kLookPeriod = milliseconds(500);

// Datagrams that are read between two looks at the signals.
constexpr int kPortion = 20'000;

// A universe that is not there by then is named. The file shows a datagram up to a second late.
constexpr auto kExpected = std::chrono::seconds(3);
constexpr auto kLate = milliseconds(1500);

// The service writes what has waited for a second.
constexpr auto kStandstill = std::chrono::seconds(5);
constexpr auto kDropsPeriod = std::chrono::seconds(2);

// A disk with less than this takes no portion of the service any more.
constexpr std::uint64_t kFull = 64UL << 10;

std::string absolute_path(const std::string& path) {
  return std::filesystem::absolute(path).lexically_normal().string();
}

bool is_folder(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string name_now(const std::string& pattern) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  const auto name = name_by_time(pattern, local);
  if (!name) throw cue::CueError("--name \"" + pattern + "\" gives no file name now");
  return *name;
}

/// The file of the recording. @throws cue::CueError
ReservedFile reserve(const RecordOptions& options) {
  const std::string path = absolute_path(options.path);
  const bool folder = is_folder(path);
  const std::string name = folder ? name_now(options.name) : "";
  // The bus takes no other text, and what it would make of it names another file.
  if (!is_utf8(path + name))
    throw cue::CueError("the path of the recording is not UTF-8, and the bus takes no other");
  if (has_control_characters(path))
    throw cue::CueError(
        "the path of the recording has control characters, which a terminal takes as commands");
  return folder ? ReservedFile::in_folder(path, name) : ReservedFile(path);
}

/// A hidden file beside the recording, for the time before the first change.
ReservedFile waiting_file(const std::string& beside) {
  const std::filesystem::path path(beside);
  return ReservedFile::in_folder(path.parent_path().string(), waiting_name(path.filename().string()));
}

bool is_disk_full(const std::string& path) {
  struct statvfs system {};
  return statvfs(path.c_str(), &system) == 0 && system.f_blocks > 0 &&
         std::uint64_t{system.f_bavail} * system.f_frsize < kFull;
}

/// Nanoseconds, never negative.
std::int64_t between(Clock::time_point from, Clock::time_point to) {
  return std::max<std::int64_t>(0, std::chrono::nanoseconds(to - from).count());
}

/// Removes a file of our own at the end of a block.
struct FileRemoval {
  const std::string path;

  ~FileRemoval() { unlink(path.c_str()); }
};

/// A file that the service writes now.
struct Part {
  std::shared_ptr<ReservedFile> file;
  std::unique_ptr<ServiceGrab> grab;
  std::unique_ptr<cue::Follower> follower;
};

/// The recording that is made: it follows what the service does, and says it.
class Run {
public:
  Run(const RecordOptions& wanted, ReservedFile reserved, ServiceClient& service, RecordDisplay& shown,
      const std::atomic<bool>& stop)
      : options(wanted),
        target(std::make_shared<ReservedFile>(std::move(reserved))),
        client(service),
        display(shown),
        stop_requested(stop),
        waiting(wanted.on_change) {}

  /// Has the service begin. @throws cue::CueError; then no file is left
  void begin();

  /// Until the recording ends, by whatever. What is ours has been stopped then.
  void follow();

  /// Puts what was recorded into its file. @return whether there is something to judge
  bool keep();

  const std::string& path() const { return target->path(); }

  /// What keeps a recording from being whole, and does not show in its file; empty: nothing.
  const std::vector<std::string>& faults() const { return found_faults; }

private:
  /// ns since the first datagram of the recording.
  std::int64_t position(Clock::time_point now) const { return first ? between(*first, now) : 0; }

  void begin_part();
  void drop_part() const;
  bool go_on();
  bool read_portion();
  void take(const cue::Record& record, Clock::time_point now);
  void look(Clock::time_point now);
  void look_at_service(Clock::time_point now);
  void look_at_file(Clock::time_point now);
  void check_universes(Clock::time_point now);
  void show(Clock::time_point now);
  void begin_anew();
  void end_part();
  void drain(cue::Follower& follower);
  void note_standing(Standing standing);
  void note_fault(const std::string& words);
  bool keep_from_change();
  void write_from_change();

  const RecordOptions& options;
  std::shared_ptr<ReservedFile> target;
  ServiceClient& client;
  RecordDisplay& display;
  const std::atomic<bool>& stop_requested;

  Part part;
  // With on_change: the file that has the change, when the service has been given another one just then.
  std::shared_ptr<ReservedFile> before;
  std::int64_t change = 0;  // ns: of the first changed level, in its file
  bool waiting;             // for that
  bool ended = false;       // the service does not record any more
  bool said_unknown = false;
  bool said_replaced = false;
  bool checked_standstill = false;
  bool checked_universes = false;
  std::vector<std::string> found_faults;

  LevelWatch levels;
  RateMeter rate;
  Silence silence;
  cue::InfoCounter counter;
  std::uint64_t size = 0;                  // of the file at the last look
  Clock::time_point grown;                 // when it was last seen to have grown
  Clock::time_point begun;                 // the recording, at the service
  std::optional<Clock::time_point> first;  // datagram of the recording
  Clock::time_point next_look;
  Clock::time_point drops_noted;
};

void Run::begin() {
  try {
    begin_part();
  } catch (...) {
    drop_part();
    if (target->is_unused()) target->remove();
    throw;
  }
  begun = grown = Clock::now();
  display.say((waiting ? "waiting for a change, recording into " : "recording into ") + path() +
              " (Ctrl-C ends it)");
}

void Run::begin_part() {
  part.file = options.on_change ? std::make_shared<ReservedFile>(waiting_file(path())) : target;
  part.grab = std::make_unique<ServiceGrab>(client, *part.file);
  part.follower = std::make_unique<cue::Follower>(part.file->path());
  size = 0;
}

/// A part that could not be begun: nobody would end what the service may have begun already.
void Run::drop_part() const {
  if (part.grab) part.grab->stop();
  if (!part.file) return;
  if (part.file->is_unused())
    part.file->remove();
  else
    display.say("what came is in " + part.file->path());
}

void Run::follow() {
  try {
    while (go_on())
      if (!read_portion()) std::this_thread::sleep_for(kReadPeriod);
  } catch (const cue::CueError& error) {
    // Nobody would end the recording later. What is in the file is kept.
    note_fault(error.what());
  }
  end_part();
  show(Clock::now());
}

bool Run::go_on() {
  const auto now = Clock::now();
  if (now >= next_look) look(now);
  if (stop_requested || ended) return false;
  if (waiting || !first) return true;
  if (options.length && position(now) >= *options.length) return false;
  return !options.silence || !silence.lasts(*options.silence, now);
}

/// Reads what the file has by now. @return whether there may be more
bool Run::read_portion() {
  const auto now = Clock::now();
  if (part.follower->size() > size) {
    size = part.follower->size();
    grown = now;
    checked_standstill = false;
    silence.note_growth(now);
    if (!waiting && !first) first = now;
  }
  cue::Record record;
  for (int count = 0; count < kPortion; ++count) {
    if (!part.follower->next(record)) return false;
    take(record, now);
  }
  return true;
}

void Run::take(const cue::Record& record, Clock::time_point now) {
  const bool changed = levels.add(record);
  rate.add(record.time);
  if (waiting) {
    if (!changed) return;
    waiting = false;
    change = record.time;
  }
  counter.add(record);
  silence.add(record.time, changed);
  // The file shows datagrams late; the one that it has shown soonest tells best when the first one came.
  const auto begin = now - std::chrono::nanoseconds(std::max<std::int64_t>(0, record.time - change));
  first = first ? std::min(*first, begin) : begin;
}

void Run::look(Clock::time_point now) {
  next_look = now + kLookPeriod;
  look_at_service(now);
  look_at_file(now);
  if (waiting && !ended && size > options.wait_size) begin_anew();
  check_universes(now);
  show(now);
}

void Run::look_at_service(Clock::time_point now) {
  note_standing(part.grab->look());
  if (ended) return;
  // Drops before the first datagram do not count. A change shows in the file up to a second late.
  const bool armed = part.grab->state() == ServiceClient::State::Armed;
  if (armed || (waiting && now - drops_noted >= kDropsPeriod)) {
    drops_noted = now;
    part.grab->note_drops();
  }
  // The service has begun another recording between two looks, when this one does not grow.
  if ((size == 0 && armed) || checked_standstill || now - grown < kStandstill) return;
  checked_standstill = true;
  if (!part.grab->is_latest()) note_standing(Standing::Ended);
}

void Run::note_standing(Standing standing) {
  if (standing == Standing::Unknown && !std::exchange(said_unknown, true))
    display.say("kadrel does not answer; it may go on recording");
  if (ended || standing == Standing::Ours || standing == Standing::Unknown) return;
  ended = true;
  if (standing == Standing::Died)
    note_fault("kadrel has ended during the recording; what it had written is in the file");
  else
    display.say("the recording was ended by the record channel, or by another program");
}

void Run::note_fault(const std::string& words) {
  if (std::find(found_faults.begin(), found_faults.end(), words) != found_faults.end()) return;
  found_faults.push_back(words);
  display.say(words);
}

void Run::look_at_file(Clock::time_point now) {
  if (is_disk_full(part.file->path())) {
    note_fault(
        "the disk is full: kadrel keeps what does not fit in memory, and loses what does not fit there");
    // A file that does not grow is no silence now.
    silence.note_growth(now);
  }
  if (part.file->is_in_place() || std::exchange(said_replaced, true)) return;
  note_fault(part.file->path() + ": was moved or removed; kadrel goes on writing the same file");
}

void Run::check_universes(Clock::time_point now) {
  if (!options.universes || checked_universes) return;
  if (now - (first ? *first : begun) < kExpected + kLate) return;
  checked_universes = true;
  const auto missing = missing_universes(*options.universes, levels.universes());
  if (!missing.empty()) display.say("does not come so far: " + universe_list(missing));
}

void Run::show(Clock::time_point now) {
  RecordLine line;
  line.length = options.length;
  line.silence = options.silence;
  line.universes = levels.count();
  line.bytes = size;
  if (size == 0) {
    line.time = between(begun, now);
    return display.show(line);
  }
  line.phase = waiting ? RecordLine::Phase::Waiting : RecordLine::Phase::Recording;
  line.time = waiting ? between(begun, now) : position(now);
  line.rate = now - grown < kStandstill ? rate.rate() : 0;
  line.unchanged = silence.so_far();
  line.lost = cue::completeness_of(counter.result()).missing;
  line.dropped = part.grab->drops().value_or(0);
  display.show(line);
}

/// What has come so far without a change is given up: the service goes on in another file.
void Run::begin_anew() {
  const Standing standing = part.grab->stop();
  if (standing != Standing::Ours) return note_standing(standing);
  Part old = std::exchange(part, Part());
  old.follower->finish();
  try {
    begin_part();
  } catch (const cue::CueError& error) {
    drop_part();
    part = std::move(old);
    drain(*part.follower);
    ended = true;
    return note_fault(error.what());
  }
  drain(*old.follower);
  if (waiting) {
    old.file->remove();
  } else {
    before = old.file;
    note_fault("the change came while the file of the waiting was begun anew: some ms after it are missing");
  }
  // The times of the new file begin at 0.
  rate = RateMeter();
  silence = Silence();
  silence.note_growth(Clock::now());
  counter = cue::InfoCounter();
}

void Run::end_part() {
  note_standing(part.grab->stop());
  try {
    part.follower->finish();
    drain(*part.follower);
    size = part.follower->size();
  } catch (const cue::CueError& error) {
    note_fault(error.what());
  }
  const std::uint64_t dropped = part.grab->drops().value_or(0);
  if (dropped > 0 && !waiting)
    note_fault(cue::counted(dropped, "datagram") +
               " dropped by the socket of kadrel: its receive buffer was full");
}

void Run::drain(cue::Follower& follower) {
  const auto now = Clock::now();
  cue::Record record;
  while (follower.next(record)) take(record, now);
}

bool Run::keep() {
  if (options.on_change) return keep_from_change();
  if (!target->is_in_place()) return false;
  if (!target->is_unused()) return true;
  target->remove();
  display.say("no datagram came: nothing is recorded, and no file is left");
  return false;
}

bool Run::keep_from_change() {
  // The name is free for the file that now gets it, and nobody else's file that takes it before is replaced.
  target->remove();
  if (waiting) {
    part.file->remove();
    display.say("no level has changed: nothing is recorded, and no file is left");
    return false;
  }
  try {
    write_from_change();
  } catch (const cue::CueError& error) {
    const std::string& kept = before ? before->path() : part.file->path();
    display.say(std::string(error.what()) + "; what was recorded is in " + kept +
                (before ? " and " + part.file->path() : "") + ", the change at " + cue::format_time(change));
    return false;
  }
  if (before) before->remove();
  part.file->remove();
  return true;
}

void Run::write_from_change() {
  cue::CutOptions cut;
  cut.file = before ? before->path() : part.file->path();
  cut.output = path();
  cut.selection.start = change;
  // Damage stays what it is: the judgement of what is left tells of it.
  cut.on_damage = [this](const cue::RecordingReader& reader, const cue::Damage& damage) {
    note_fault(cue::damage_text(reader.name(), damage) + "; left out");
  };
  if (!before) {
    cue::cut(cut);
    return;
  }
  const ReservedFile begin = waiting_file(path());
  begin.remove();
  cut.output = begin.path();
  cue::cut(cut);
  const FileRemoval removal{begin.path()};
  cue::JoinOptions join;
  join.files = {begin.path(), part.file->path()};
  join.output = path();
  join.look = false;
  join.on_damage = cut.on_damage;
  cue::join(join);
}

/// Says in words what is in the file. @return whether it is whole, and nothing is missing by its numbers
bool judge(const RecordOptions& options, const std::string& path, std::ostream& out, std::ostream& err) {
  cue::Input file(path);
  const Progress progress(out, err, file);
  cue::InfoCounter counter;
  cue::VerifyOptions verify;
  std::optional<cue::Damage> first;
  verify.on_record = [&counter](const cue::Record& record) { counter.add(record); };
  verify.on_damage = [&first](const cue::Damage& damage) {
    if (!first) first = damage;
  };
  const cue::VerifyReport report{[&out](const std::string& line) { out << line << "\n"; },
                                 [&err](const std::string& line) { err << "kadrel-cue: " << line << "\n"; }};
  const bool whole = cue::verify(file, verify, report).whole;
  cue::RecordingInfo info = counter.result();
  info.damage = first;
  std::vector<int> numbers;
  cue::UniverseSet present;
  for (const cue::UniverseInfo& universe : info.universes) {
    numbers.push_back(universe.port_address + 1);
    present.insert(universe.port_address);
  }
  if (!numbers.empty()) out << path << ": " << universe_list(numbers) << "\n";
  for (const std::string& line : sequence_report(info)) out << path << ": " << line << "\n";
  const auto missing =
      options.universes ? missing_universes(*options.universes, present) : std::vector<int>();
  if (!missing.empty()) err << "kadrel-cue: not in the recording: " << universe_list(missing) << "\n";
  return whole && info.datagrams > 0 && cue::completeness_of(info).missing == 0;
}

/// What is said while the service is waited for.
struct Patience {
  RecordDisplay* display = nullptr;
  const std::atomic<bool>* stop = nullptr;  // set as long as nothing has been asked that must be known of

  void wait(double seconds) const {
    if (stop != nullptr && *stop) throw cue::CueError("stopped before the recording began");
    if (display != nullptr) display->show_waiting(seconds);
  }
};

}  // namespace

int record(const RecordOptions& options, std::ostream& out, std::ostream& err) {
  Patience patience;
  ServiceClient client([&patience](double seconds) { patience.wait(seconds); });
  const std::atomic<bool>& stop = stop_on_signals();
  std::string path;
  bool whole = false;
  bool kept = false;
  {
    RecordDisplay display(err, isatty(STDERR_FILENO) != 0);
    patience.display = &display;
    patience.stop = &stop;
    ServiceGrab::check_idle(client);
    patience.stop = nullptr;
    Run run(options, reserve(options), client, display, stop);
    run.begin();
    run.follow();
    display.finish();
    kept = run.keep();
    whole = run.faults().empty();
    path = run.path();
    patience.display = nullptr;
  }
  if (!kept) return 1;
  if (!judge(options, path, out, err)) whole = false;
  if (!whole) err << "kadrel-cue: " << path << ": the recording is not whole\n";
  return whole ? 0 : 1;
}

}  // namespace kadrel_cue
