#include <fcntl.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDebug>
#include <QLoggingCategory>
#include <QSocketNotifier>
#include <QTextCodec>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>

#include "kesto/logger.h"
#include "kesto/standard_descriptors.h"
#include "src/Dump.h"
#include "src/ServiceManager.h"
#include "src/Settings.h"
#include "src/ThreadSignals.h"

namespace {

// For what(1), and for kadrel-cue, which reads the version of a running kadrel in its program.
[[gnu::used]] constexpr char kWhat[] = "@(#)kadrel " KADREL_VERSION;
constexpr const char* kVersion = &kWhat[sizeof kWhat - sizeof KADREL_VERSION];

// Self-pipe: signals go in at [1], the event loop reads [0].
int signal_pipe[2] = {-1, -1};

// True until the event loop runs. Read by signal handlers, which may run on a thread of the framework.
std::atomic<bool> starting{true};

// A signal during the start ends the process after this time at the latest: a bus that accepts the connection
// and never answers would hold the start for ever.
constexpr unsigned int kStartSeconds = 2;

void on_end_signal(int /*signal*/) {
  const int saved_errno = errno;
  request_end();
  const char byte = 0;
  // The write may fail: a full pipe holds a signal already.
  [[maybe_unused]] const ssize_t written = write(signal_pipe[1], &byte, sizeof byte);
  if (starting.load()) alarm(kStartSeconds);
  errno = saved_errno;
}

void on_alarm(int /*signal*/) {
  if (starting.load()) _exit(0);
}

void handle_signal(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

bool install_signal_handlers() {
  if (pipe2(signal_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  handle_signal(SIGALRM, on_alarm);
  handle_signal(SIGTERM, on_end_signal);
  handle_signal(SIGINT, on_end_signal);
  // A closed terminal ends the service too, unless its starter ignores SIGHUP (nohup).
  struct sigaction hang_up {};
  sigaction(SIGHUP, nullptr, &hang_up);
  if (hang_up.sa_handler == SIG_DFL) handle_signal(SIGHUP, on_end_signal);
  // The process may inherit a mask that blocks them.
  sigset_t ending;
  sigemptyset(&ending);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGALRM}) sigaddset(&ending, signal);
  pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
  // A closed terminal or a file size limit makes a write fail; neither may end a recording.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  return true;
}

void print_usage() {
  // Straight to standard error: by default the framework chooses the journal when there is no terminal.
  qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& message) {
    fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
  });
  QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
  qDebug("Usage: ./kadrel port ");
  qDebug("  ,where        port - dump on port ");
}

Settings configure() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
  Settings settings = read_settings([](const char* name) -> const char* { return getenv(name); });
  kesto::Logger::instance()->setLevel(settings.log_level);
  kesto::Logger::instance()->setOutput(settings.log_output);
  return settings;
}

/// Runs the service until a signal ends it. @return exit code of the process
int serve(int port, const Settings& settings) {
  const ServiceManager manager;
  Dump dump(port, settings.universe_count, static_cast<std::size_t>(settings.write_buffer_mib) << 20U);
  {
    // The first use of D-Bus starts the framework's own thread for it, which must not get the signals.
    const EndSignalsBlocked blocked;
    const QDBusConnection none(QStringLiteral("none"));
  }
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) {
    KESTO_LOG(-2,
              "Cannot connect to the D-Bus session bus.\n"
              "To start it, run:\n"
              "\teval `dbus-launch --auto-syntax`\n");
    return 1;
  }
  if (!bus.registerService(QStringLiteral("%1.Kadrel").arg(QStringLiteral("com.tolvekserver")))) {
    KESTO_LOG(-2, "%s\n", bus.lastError().message().toLocal8Bit().constData());
    return 1;
  }
  if (!bus.registerObject(QStringLiteral("/"), &dump,
                          QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals)) {
    KESTO_LOG(-2, "%s\n", bus.lastError().message().toLocal8Bit().constData());
    return 1;
  }
  dump.watch_bus(bus);
  dump.report_to(manager);
  starting.store(false);
  return QCoreApplication::exec();
}

}  // namespace

int main(int argc, char** argv) {
  kesto::occupy_standard_descriptors();
  if (argc < 2) {
    print_usage();
    return 1;
  }
  // The framework removes its own arguments from the list.
  const char* const port_text = argv[1];
  if (!install_signal_handlers()) {
    const int error = errno;
    configure();
    KESTO_LOG(-2, "Cannot start the service: %s\n", std::generic_category().message(error).c_str());
    return 1;
  }
  QCoreApplication app(argc, argv);
  // Paths and names on the bus are UTF-8 whatever the locale says.
  QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
  QSocketNotifier end_notifier(signal_pipe[0], QSocketNotifier::Read);
  QObject::connect(&end_notifier, &QSocketNotifier::activated, &app, [&end_notifier] {
    end_notifier.setEnabled(false);
    QCoreApplication::exit(0);
  });
  const Settings settings = configure();
  KESTO_LOG(1, "Kadrel Version: %s", kVersion);
  for (const std::string& warning : settings.warnings) KESTO_LOG(-1, "%s", warning.c_str());
  try {
    return serve(static_cast<int>(strtol(port_text, nullptr, 10)), settings);
  } catch (const std::system_error& error) {
    KESTO_LOG(-2, "Cannot start the service: %s\n", error.what());
    return 1;
  }
}
