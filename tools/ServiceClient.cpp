#include "tools/ServiceClient.h"

#include <sys/stat.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QStringList>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <utility>

#include "cue/CueError.h"

namespace kadrel_cue {
namespace {

using Clock = std::chrono::steady_clock;

QString service_name() {
  return QStringLiteral("com.tolvekserver.Kadrel");
}

// A bus gives up the start of a service after 25 s (dbus-daemon, service_start_timeout).
constexpr int kAnswer = 30'000;  // ms

// D-Bus: no limit.
constexpr int kNoLimit = INT_MAX;

// Short beside what a person notices; answers usually come within a millisecond.
constexpr auto kFirstLook = std::chrono::microseconds(200);
constexpr auto kLook = std::chrono::milliseconds(50);

constexpr const char* kSameUser =
    "run this as the user that kadrel runs as, in a login of that user (ssh rather than su or sudo)";

/// No signal reaches the threads that are made meanwhile.
class SignalsElsewhere {
public:
  SignalsElsewhere() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
  }
  ~SignalsElsewhere() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
  SignalsElsewhere(const SignalsElsewhere&) = delete;
  SignalsElsewhere& operator=(const SignalsElsewhere&) = delete;
  SignalsElsewhere(SignalsElsewhere&&) = delete;
  SignalsElsewhere& operator=(SignalsElsewhere&&) = delete;

private:
  sigset_t before{};
};

/// Words of the bus or of a service, for a terminal.
std::string plain(const QString& text) {
  std::string result;
  constexpr std::size_t kMost = 200;
  for (const char byte : text.toStdString()) {
    if (result.size() == kMost) break;
    const auto code = static_cast<unsigned char>(byte);
    result += code < 0x20 || code >= 0x7F ? '?' : byte;
  }
  return result;
}

const char* environment(const char* name) {
  const char* const value = getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing changes the environment
  return value == nullptr ? "" : value;
}

/// Where no address is set, libdbus would start a bus of its own.
void refuse_missing_address() {
  if (*environment("DBUS_SESSION_BUS_ADDRESS") != '\0') return;
  struct stat there {};
  const std::string directory = environment("XDG_RUNTIME_DIR");
  if (!directory.empty() && stat((directory + "/bus").c_str(), &there) == 0) return;
  throw cue::CueError(std::string("no session bus: DBUS_SESSION_BUS_ADDRESS is not set; ") + kSameUser +
                      ", or set it to the address of the bus that kadrel was started with");
}

}  // namespace

class ServiceClient::Bus {
public:
  explicit Bus(WhileWaiting meanwhile) : while_waiting(std::move(meanwhile)), connection(connect()) {
    if (connection.isConnected()) return;
    const std::string reason = plain(connection.lastError().message());
    throw cue::CueError("no session bus (" + reason + "): DBUS_SESSION_BUS_ADDRESS is \"" +
                        plain(QString::fromLocal8Bit(environment("DBUS_SESSION_BUS_ADDRESS"))) + "\"; " +
                        kSameUser + ", or correct the address");
  }

  ~Bus() { QDBusConnection::disconnectFromBus(name()); }
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;
  Bus(Bus&&) = delete;
  Bus& operator=(Bus&&) = delete;

  /// The answer, an error of the bus included.
  QDBusMessage ask(const QDBusMessage& question, int limit) {
    const auto begin = Clock::now();
    const QDBusPendingCall call = connection.asyncCall(question, limit);
    auto look = std::chrono::duration_cast<Clock::duration>(kFirstLook);
    while (!call.isFinished()) {
      std::this_thread::sleep_for(look);
      if (look < kLook) {
        look *= 2;
        continue;
      }
      if (while_waiting) while_waiting(std::chrono::duration<double>(Clock::now() - begin).count());
    }
    return call.reply();
  }

  bool is_connected() const { return connection.isConnected(); }

  QDBusMessage ask_bus(const char* method, const QVariantList& arguments) {
    QDBusMessage question = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QLatin1String(method));
    question.setArguments(arguments);
    return ask(question, kAnswer);
  }

  /// @throws cue::CueError when the service does not answer
  QDBusMessage ask_service(const char* method, const QVariantList& arguments, int limit) {
    QDBusMessage question =
        QDBusMessage::createMethodCall(service_name(), QStringLiteral("/"),
                                       QStringLiteral("com.tolvekserver.Kadrel.Dump"), QLatin1String(method));
    question.setArguments(arguments);
    QDBusMessage answer = ask(question, limit);
    if (answer.type() != QDBusMessage::ReplyMessage) refuse(answer);
    return answer;
  }

  static std::string text(const QDBusMessage& answer) {
    const QVariant value = answer.arguments().value(0);
    if (value.type() != QVariant::String) throw cue::CueError("kadrel: an answer that is none of its own");
    return value.toString().toStdString();
  }

private:
  static QString name() { return QStringLiteral("kadrel-cue"); }

  /// The thread that the framework starts for the bus takes no signals, so that they end what this one waits
  /// in.
  static QDBusConnection connect() {
    refuse_missing_address();
    const SignalsElsewhere blocked;
    return QDBusConnection::connectToBus(QDBusConnection::SessionBus, name());
  }

  [[noreturn]] void refuse(const QDBusMessage& answer) {
    const QString error = answer.errorName();
    const std::string words = plain(answer.errorMessage());
    if (!connection.isConnected())
      throw cue::CueError("the session bus has ended; kadrel ends with it. Start both anew");
    if (error.endsWith(QStringLiteral(".ServiceUnknown")) ||
        error.endsWith(QStringLiteral(".NameHasNoOwner")))
      throw cue::CueError(words_about_missing_service());
    if (error.contains(QStringLiteral(".Spawn.")) || error.endsWith(QStringLiteral(".TimedOut")))
      throw cue::CueError("kadrel could not be started by the bus (" + words +
                          "); its log says why: journalctl --user -u kadrel, or /var/log/syslog");
    if (error.endsWith(QStringLiteral(".NoReply")))
      throw cue::CueError("kadrel does not answer any more: it has ended, or it hangs (" + words + ")");
    throw cue::CueError("kadrel refused the call (" + words + ")");
  }

  WhileWaiting while_waiting;
  QDBusConnection connection;
};

ServiceClient::ServiceClient(WhileWaiting while_waiting)
    : bus(std::make_unique<Bus>(std::move(while_waiting))) {}

ServiceClient::~ServiceClient() = default;

std::optional<pid_t> ServiceClient::process() {
  const QDBusMessage answer = bus->ask_bus("GetConnectionUnixProcessID", {service_name()});
  const QVariant number = answer.arguments().value(0);
  if (answer.type() == QDBusMessage::ReplyMessage && number.type() == QVariant::UInt)
    return static_cast<pid_t>(number.toUInt());
  if (answer.errorName().endsWith(QStringLiteral(".NoReply")) && bus->is_connected())
    throw cue::CueError("the session bus does not answer");
  return std::nullopt;
}

bool ServiceClient::can_be_started() {
  const QDBusMessage answer = bus->ask_bus("ListActivatableNames", {});
  return answer.type() == QDBusMessage::ReplyMessage &&
         answer.arguments().value(0).toStringList().contains(service_name());
}

ServiceClient::State ServiceClient::status() {
  const std::string word = Bus::text(bus->ask_service("get_status", {}, kAnswer));
  if (word == "run") return State::Recording;
  return word == "on" ? State::Armed : State::Off;
}

void ServiceClient::grab(const std::string& path) {
  bus->ask_service("grab", {QString::fromStdString(path)}, kNoLimit);
}

void ServiceClient::stop() {
  bus->ask_service("stop", {}, kNoLimit);
}

std::string ServiceClient::latest_grab() {
  return Bus::text(bus->ask_service("latest_grab", {}, kNoLimit));
}

std::string words_about_missing_service() {
  return std::string(
             "kadrel does not run on this session bus, and the bus cannot start it: start it with "
             "\"systemctl --user start kadrel\", or \"kadrel 6454\" by hand; or it runs on another "
             "bus: ") +
         kSameUser + ", or set DBUS_SESSION_BUS_ADDRESS to the address of its bus";
}

}  // namespace kadrel_cue
