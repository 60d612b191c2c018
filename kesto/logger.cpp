#include "kesto/logger.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "kesto/wait_budget.h"

namespace kesto {
namespace {

constexpr int kErrorLevel = -2;
constexpr int kWarningLevel = -1;

// Leading characters of a source path that a context prefix leaves out, fixed for each of the two levels.
constexpr size_t kErrorPathSkip = 133;
constexpr size_t kWarningPathSkip = 131;

constexpr char kLogSocket[] = "/dev/log";

// The logger has been destroyed: a framework message during static destruction must not revive it.
std::atomic<bool> logger_gone{false};

/// @p file behind its first @p skip characters; empty when it has no more than that or is null.
const char* file_piece(const char* file, size_t skip) {
  if (file == nullptr || strnlen(file, skip) < skip) return "";
  return file + skip;
}

// How long lines wait for a system log that takes none: far less than a socket's receive buffer holds of a
// show. Once one has waited in vain, none waits until the log takes lines again.
WaitBudget log_waits(std::chrono::milliseconds(25), 40);

std::atomic<bool> log_stalled{false};

// One line at most in this time says that lines were dropped.
constexpr std::chrono::seconds kDropReportPause(1);
std::atomic<std::int64_t> drop_reported{-kDropReportPause / std::chrono::nanoseconds(1)};

// Lines dropped since the system log last took one.
std::atomic<unsigned int> dropped_lines{0};

// What unread lines take of the send buffer of the C library's log socket (208 KiB on a Debian), counted on
// the safe side. Before it is full, and syslog() would wait, the socket is given up for a new one.
constexpr size_t kLogSocketShare = 65536;
constexpr size_t kLogLineCost = 1024;
std::atomic<size_t> log_socket_use{0};

// Held from the look for room until the line is written: another thread would take the room meanwhile, and
// syslog() would wait.
std::mutex system_log_mutex;

void send_to_system_log(int priority, const QByteArray& format) {
  if (log_socket_use.fetch_add(static_cast<size_t>(format.size()) + kLogLineCost) > kLogSocketShare) {
    closelog();  // syslog() opens it anew, as openlog() has set it up
    log_socket_use.store(0);
  }
#pragma GCC diagnostic push
  // The line is the format by design; it holds no conversion, every percent sign in it is doubled.
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  syslog(priority, format.constData());
#pragma GCC diagnostic pop
}

std::chrono::nanoseconds steady_time() {
  return std::chrono::steady_clock::now().time_since_epoch();
}

/// Whether the descriptor can be written to, if need be after a wait. A look that fails, because a signal
/// comes in between, counts as one that found no room.
bool wait_for_room(int fd) {
  pollfd probe{fd, POLLOUT, 0};
  if (poll(&probe, 1, 0) > 0) return true;
  if (log_stalled.load()) return false;
  const std::chrono::nanoseconds began = steady_time();
  const auto most = std::chrono::duration_cast<std::chrono::milliseconds>(log_waits.left(began));
  if (most.count() == 0) return false;
  const bool room = poll(&probe, 1, static_cast<int>(most.count())) > 0;
  const std::chrono::nanoseconds ended = steady_time();
  log_waits.spend(ended, ended - began);
  return room;
}

/// Whether the system log takes a line without making the caller wait. A log daemon that has stopped reading,
/// with its queue full, would otherwise hold up every thread that logs. When there is no daemon at all,
/// syslog() sees to that.
bool system_log_has_room() {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd == -1) return !log_stalled.load();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, kLogSocket, sizeof kLogSocket);
  bool room = true;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    room = wait_for_room(fd);
    log_stalled.store(!room);
  }
  close(fd);
  return room;
}

/// @return whether that took a line
bool report_dropped_lines() {
  if (dropped_lines.load() == 0) return false;
  const std::int64_t now = steady_time().count();
  if (now - drop_reported.load() < std::chrono::nanoseconds(kDropReportPause).count()) return false;
  drop_reported.store(now);
  const unsigned int dropped = dropped_lines.exchange(0);
  if (dropped == 0) return false;
  send_to_system_log(LOG_WARNING, QByteArray::number(dropped) + " lines dropped, the system log took none");
  return true;
}

int framework_level(QtMsgType type) {
  switch (type) {
    case QtDebugMsg:
      return 1;
    case QtWarningMsg:
      return kWarningLevel;
    default:
      return kErrorLevel;
  }
}

}  // namespace

Logger* Logger::instance() {
  static Logger logger;
  return &logger;
}

Logger::Logger() : QObject(nullptr) {
  qInstallMessageHandler(&Logger::MessageHandler);
  openlog(nullptr, 0, LOG_LOCAL0);
}

Logger::~Logger() {
  logger_gone.store(true);
  qInstallMessageHandler(nullptr);
  closelog();
}

void Logger::log(int message_level, const char* file, int line_number, const char* function,
                 const char* format, ...) {
  if (level.load(std::memory_order_relaxed) < message_level) return;

  va_list args;
  va_start(args, format);
  va_list measured;
  va_copy(measured, args);
  const int length = vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  std::string message;
  if (length > 0) {
    message.assign(static_cast<size_t>(length) + 1, '\0');
    vsnprintf(message.data(), message.size(), format, args);
    message.pop_back();
  }
  va_end(args);

  std::string line;
  if (use_context.load(std::memory_order_relaxed) &&
      (message_level == kErrorLevel || message_level == kWarningLevel)) {
    line += file_piece(file, message_level == kErrorLevel ? kErrorPathSkip : kWarningPathSkip);
    line += std::to_string(line_number);
    line += ' ';
    line += function != nullptr ? function : "";
    line += ") ";
  }
  line += message;
  write(message_level, line.c_str());
}

void Logger::write(int message_level, const char* line) {
  switch (output.load(std::memory_order_relaxed)) {
    case None:
      writeToNone(message_level, line);
      break;
    case Console:
      writeToConsole(message_level, line);
      break;
    case Syslog:
      writeToSyslog(message_level, line);
      break;
    default:
      break;
  }
}

void Logger::writeToNone(int /*level*/, const char* /*line*/) {}

void Logger::writeToConsole(int /*level*/, const char* line) {
  fprintf(stderr, "%s\n", line);
}

void Logger::writeToSyslog(int message_level, const char* line) {
  int priority = LOG_INFO;
  if (message_level == kErrorLevel) priority = LOG_ERR;
  if (message_level == kWarningLevel) priority = LOG_WARNING;
  const std::lock_guard<std::mutex> guard(system_log_mutex);
  if (!system_log_has_room()) {
    ++dropped_lines;
    return;
  }
  if (report_dropped_lines() && !system_log_has_room()) {
    ++dropped_lines;
    return;
  }
  send_to_system_log(priority, escape_percent(line));
}

void Logger::MessageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message) {
  if (logger_gone.load() || type == QtInfoMsg) return;
  const QByteArray format = escape_percent(message.toLocal8Bit().constData());
#pragma GCC diagnostic push
  // As above: a format without a conversion.
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  instance()->log(framework_level(type), context.file, context.line, context.function, format.constData());
#pragma GCC diagnostic pop
}

void Logger::setOutput(Output new_output) {
  output.store(new_output, std::memory_order_relaxed);
}

void Logger::setLevel(int new_level) {
  level.store(new_level, std::memory_order_relaxed);
}

int Logger::getLevel() {
  return level.load(std::memory_order_relaxed);
}

void Logger::useContext(bool new_use_context) {
  use_context.store(new_use_context, std::memory_order_relaxed);
}

QByteArray escape_percent(const char* text) {
  QByteArray escaped(text);
  escaped.replace('%', "%%");
  return escaped;
}

}  // namespace kesto
