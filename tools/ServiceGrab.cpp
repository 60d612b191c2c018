#include "tools/ServiceGrab.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cue/CueError.h"
#include "tools/ServiceProcess.h"

namespace kadrel_cue {
namespace {

using State = ServiceClient::State;

/// "stage (1000)", or the number alone.
std::string user_text(uid_t user) {
  const passwd* const entry = getpwuid(user);  // NOLINT(concurrency-mt-unsafe): one thread asks
  const std::string number = std::to_string(user);
  return entry == nullptr ? number : std::string(entry->pw_name) + " (" + number + ")";
}

/// Owner of a process.
std::optional<uid_t> user_of(pid_t process) {
  struct stat status {};
  if (stat(("/proc/" + std::to_string(process)).c_str(), &status) == -1) return std::nullopt;
  return status.st_uid;
}

/// The path, spelled such that @p told does not have it: what the service tells of this recording then
/// differs from what it has told of one with the same name.
std::string spelled_anew(const std::string& path, const std::string& told) {
  if (told.find(path) == std::string::npos) return path;
  const std::size_t name = path.rfind('/') + 1;
  return path.substr(0, name) + "./" + path.substr(name);
}

}  // namespace

void ServiceGrab::check_idle(ServiceClient& client) {
  const State state = client.status();
  if (state == State::Off) return;
  throw cue::CueError(std::string("kadrel is busy: a recording is ") +
                      (state == State::Recording ? "running" : "armed, or waits for its first datagram") +
                      "; it goes on, and nothing was touched");
}

ServiceGrab::ServiceGrab(ServiceClient& asked, const ReservedFile& file)
    : client(asked), ended_before(client.latest_grab()) {
  service = client.process();
  if (service) port = look_at_service(*service).port;
  drops_before = drops_noted = socket_drops();
  client.grab(spelled_anew(file.path(), ended_before));
  // A service that hangs from now on has begun all the same.
  if (!file.was_emptied()) refuse(file);
  latest_state = State::Armed;
}

void ServiceGrab::refuse(const ReservedFile& file) const {
  if (client.status() != State::Off)
    throw cue::CueError(
        "kadrel is busy: somebody else began a recording at the same moment; it goes on, and nothing was "
        "touched");
  std::string words = "kadrel cannot write " + file.path();
  const auto user = service ? user_of(*service) : std::nullopt;
  if (user && *user != geteuid())
    words += ": it runs as user " + user_text(*user) + " and this as " + user_text(geteuid()) +
             "; record as that user, into a folder in which that user may write";
  else
    words += "; its log says more (journalctl --user -u kadrel, or /var/log/syslog)";
  throw cue::CueError(words);
}

ServiceGrab::Standing ServiceGrab::look() {
  // Nobody asks a service that is gone: the bus would start another.
  const Standing standing = look_for_process();
  if (standing != Standing::Ours) return standing;
  try {
    latest_state = client.status();
  } catch (const cue::CueError&) {
    return look_for_process() == Standing::Died ? Standing::Died : Standing::Unknown;
  }
  return latest_state == State::Off ? Standing::Ended : Standing::Ours;
}

ServiceGrab::Standing ServiceGrab::look_for_process() {
  try {
    return client.process() == service ? Standing::Ours : Standing::Died;
  } catch (const cue::CueError&) {
    // A bus that hangs tells nothing of the service.
    return Standing::Unknown;
  }
}

bool ServiceGrab::is_latest() {
  return client.latest_grab() == ended_before;
}

ServiceGrab::Standing ServiceGrab::stop() {
  const Standing standing = look();
  if (standing == Standing::Died) return standing;
  try {
    // Comes back when the file of a recording that has ended is complete.
    const bool latest = is_latest();
    if (standing == Standing::Ended || !latest) return Standing::Ended;
    client.stop();
  } catch (const cue::CueError&) {
    if (look_for_process() == Standing::Died) return Standing::Died;
    throw;
  }
  return Standing::Ours;
}

std::optional<std::uint64_t> ServiceGrab::socket_drops() const {
  const auto socket = port > 0 ? find_udp_socket(port) : std::nullopt;
  if (!socket) return std::nullopt;
  return socket->drops;
}

std::optional<std::uint64_t> ServiceGrab::drops() const {
  const auto now = socket_drops();
  if (!now || !drops_before || *now < *drops_before) return std::nullopt;
  return *now - *drops_before;
}

}  // namespace kadrel_cue
