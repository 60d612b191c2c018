#include "kesto/logger.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace kesto {
namespace {

constexpr int kErrorLevel = -2;
constexpr int kWarningLevel = -1;

// Leading characters of a source path that a context prefix leaves out, fixed for each of the two levels.
constexpr size_t kErrorPathSkip = 133;
constexpr size_t kWarningPathSkip = 131;

constexpr size_t kQueueLines = 4096;
constexpr size_t kQueueBytes = size_t{4} << 20;

// Longest wait for the last lines at the end of the process.
constexpr std::chrono::seconds kLastLines(1);

/// @p file without its first @p skip characters; empty when it is shorter or null.
const char* file_piece(const char* file, size_t skip) {
  if (file == nullptr || strnlen(file, skip) < skip) return "";
  return file + skip;
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
  static auto* const logger = new Logger;
  return logger;
}

Logger::Logger() : QObject(nullptr), queue(kQueueLines, kQueueBytes) {
  qInstallMessageHandler(&Logger::MessageHandler);
  openlog(nullptr, 0, LOG_LOCAL0);
  std::atexit(&Logger::end);
  // The child has no writer, and its mutex may stay locked for ever.
  pthread_atfork(nullptr, nullptr, [] { instance()->route.store(Route::ToOutput); });
}

// At exit. Only the writer may close the system log: the C library holds a lock while it waits for one.
void Logger::end() {
  Logger& logger = *instance();
  if (logger.route.load() != Route::ToQueue) return;
  const auto deadline = std::chrono::steady_clock::now() + kLastLines;
  const MutexLock lock(logger.mutex);
  logger.ending = true;
  if (!logger.has_writer) {
    logger.route.store(Route::ToOutput);
    closelog();
    return;
  }
  logger.changed.notify_one();
  while (logger.route.load() == Route::ToQueue) {
    if (!logger.settled.wait_until(logger.mutex, deadline)) break;
  }
  if (logger.route.load() == Route::ToQueue) {
    logger.route.store(Route::Nowhere);
  } else {
    pthread_join(logger.writer, nullptr);  // it takes the mutex no more
  }
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
  deliver({message_level, output.load(std::memory_order_relaxed),
           finished_line(message_level, file, line_number, function, message)});
}

std::string Logger::finished_line(int message_level, const char* file, int line_number, const char* function,
                                  const std::string& message) const {
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
  return line;
}

void Logger::write(int message_level, const char* line) {
  deliver({message_level, output.load(std::memory_order_relaxed), line});
}

void Logger::deliver(LogLine line) {
  const bool may_wait = line.output == Console || line.output == Syslog;
  if (may_wait && enqueue(line)) return;
  if (route.load() != Route::Nowhere) put(line);
}

/// @return false when there is no writer: the line is not taken
bool Logger::enqueue(LogLine& line) {
  if (route.load() != Route::ToQueue) return false;
  const MutexLock lock(mutex);
  if (route.load() != Route::ToQueue || !start_writer()) return false;
  queue.push(std::move(line));
  changed.notify_one();
  return true;
}

bool Logger::start_writer() {
  if (has_writer) return true;
  // The writer inherits this mask: signals are for other threads.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  has_writer = pthread_create(&writer, nullptr, &Logger::write_lines, this) == 0;
  if (has_writer) pthread_setname_np(writer, "log writer");
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return has_writer;
}

// The writer.
void* Logger::write_lines(void* that) {
  auto& logger = *static_cast<Logger*>(that);
  LogQueue::Next next;
  while (logger.wait_for_next(next)) {
    if (next.dropped > 0) logger.report_dropped(next.dropped);
    if (next.line) logger.put(*next.line);
  }
  return nullptr;
}

/// @return false when the writer is to end
bool Logger::wait_for_next(LogQueue::Next& next) {
  const MutexLock lock(mutex);
  writing = false;
  while (queue.empty() && route.load() == Route::ToQueue) {
    if (ending) {
      closelog();
      route.store(Route::ToOutput);
    }
    settled.notify_all();
    if (!ending) changed.wait(mutex);
  }
  if (route.load() != Route::ToQueue) return false;
  next = queue.take();
  writing = true;
  return true;
}

void Logger::report_dropped(size_t count) {
  if (level.load(std::memory_order_relaxed) < kWarningLevel) return;
  const std::string message =
      "Dropped log lines, their output takes too few (lines:" + std::to_string(count) + ")";
  put({kWarningLevel, output.load(std::memory_order_relaxed),
       finished_line(kWarningLevel, __FILE__, __LINE__, __PRETTY_FUNCTION__, message)});
}

bool Logger::flush(std::chrono::milliseconds most) {
  if (route.load() != Route::ToQueue) return true;
  const auto deadline = std::chrono::steady_clock::now() + most;
  const MutexLock lock(mutex);
  while (writing || !queue.empty()) {
    if (!settled.wait_until(mutex, deadline)) return !writing && queue.empty();
  }
  return true;
}

void Logger::put(const LogLine& line) {
  switch (line.output) {
    case None:
      writeToNone(line.level, line.text.c_str());
      break;
    case Console:
      writeToConsole(line.level, line.text.c_str());
      break;
    case Syslog:
      writeToSyslog(line.level, line.text.c_str());
      break;
    default:
      break;
  }
}

void Logger::writeToNone(int /*level*/, const char* /*line*/) {}

void Logger::writeToConsole(int /*level*/, const char* line) {
  // Straight to the descriptor: a thread that waits for a terminal must not hold the lock of stderr, which
  // the end of the process may want.
  const std::string text = std::string(line) + '\n';
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
    if (written < 0) return;
    rest.remove_prefix(static_cast<size_t>(written));
  }
}

void Logger::writeToSyslog(int message_level, const char* line) {
  int priority = LOG_INFO;
  if (message_level == kErrorLevel) priority = LOG_ERR;
  if (message_level == kWarningLevel) priority = LOG_WARNING;
  const QByteArray format = escape_percent(line);
#pragma GCC diagnostic push
  // The line is the format by design; every percent sign in it is doubled, so it holds no conversion.
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  syslog(priority, format.constData());
#pragma GCC diagnostic pop
}

void Logger::MessageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message) {
  if (type == QtInfoMsg) return;
  const QByteArray format = escape_percent(message.toLocal8Bit().constData());
#pragma GCC diagnostic push
  // As above: a format without a conversion.
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  instance()->log(framework_level(type), context.file, context.line, context.function, format.constData());
#pragma GCC diagnostic pop
  if (type == QtFatalMsg) instance()->flush(kLastLines);
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
