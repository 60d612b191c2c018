#pragma once

#include <pthread.h>

#include <QObject>
#include <QtGlobal>
#include <atomic>
#include <chrono>
#include <string>

#include "kesto/log_queue.h"
#include "kesto/mutex.h"
#include "kesto/thread_annotations.h"

class QMessageLogContext;
class QString;

namespace kesto {

/// The one logger of the process: filters by level, prefixes errors and warnings with their place in the
/// source, and hands each finished line to one output. Takes over the framework's own messages as soon as it
/// exists.
///
/// Levels are signed, smaller is more important: -2 error, -1 warning, 1 debug and start banner, 3
/// operational, 4 detail, 6 per packet. Nothing here throws or reports a failure; a line that cannot be
/// written is lost. Any thread may call anything here, and none waits for an output: lines go into a queue,
/// and the logger's own thread, started by the first line, writes them in order, each in a single call. When
/// the queue is full, lines are dropped (see LogQueue), and a warning tells how many. At exit the queue is
/// written out, for at most a second.
///
/// A thread writes its line itself when there is no such thread: none could be made, or this is a child
/// process after fork(), or the queue has ended at exit.
class Logger : public QObject {
  Q_OBJECT

public:
  /// Where finished lines go. Any other value drops them.
  enum Output : qint32 { None = 0, Console = 1, Syslog = 2 };

  /// The logger of the process; made by the first call, on any thread. It is never destroyed: static
  /// destructors and its own thread use it to the very end.
  static Logger* instance();

  /// Formats one message of any length as printf does, and writes it when @p level is at most the threshold.
  /// @param file      source path, may be null; @param line      line number there
  /// @param function  full signature of the function, may be null
  void log(int level, const char* file, int line, const char* function, const char* format, ...)
      __attribute__((format(printf, 6, 7)));

  /// Routes a finished line (no newline at its end) to the present output.
  void write(int level, const char* line);

  /// Waits until no line is left in the queue or on its way to the output, for at most @p most.
  /// @return whether no line is left
  bool flush(std::chrono::milliseconds most);

  /// Framework message handler: debug becomes level 1, warning -1, critical and fatal -2; informational
  /// messages are dropped. For a fatal one this waits until it is written, for at most a second: the
  /// framework ends the process then.
  static void MessageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);

public slots:
  /// Lines that were logged before still go to the output of their time.
  void setOutput(Output output);
  void setLevel(int level);
  int getLevel();
  void useContext(bool use_context);

private:
  /// The way of a finished line.
  enum class Route {
    ToQueue,
    ToOutput,  // no thread empties the queue, now or later
    Nowhere    // the process ends while the writer waits for its output
  };

  Logger();
  ~Logger() override = default;

  std::string finished_line(int level, const char* file, int line, const char* function,
                            const std::string& message) const;
  void deliver(LogLine line);
  bool enqueue(LogLine& line);
  bool start_writer() REQUIRES(mutex);

  static void* write_lines(void* that);
  bool wait_for_next(LogQueue::Next& next);
  void report_dropped(std::size_t count);

  void put(const LogLine& line);
  void writeToNone(int level, const char* line);
  void writeToConsole(int level, const char* line);
  void writeToSyslog(int level, const char* line);

  static void end();

  // Written by the setters, read by every logging thread; no order among them is needed.
  std::atomic<qint32> output{Console};
  std::atomic<qint32> level{3};
  std::atomic<bool> use_context{true};

  // Leaves ToQueue once, with the mutex held; in a child process without it, for nobody may take it there.
  std::atomic<Route> route{Route::ToQueue};

  // Held for a look at the queue, never during a write.
  Mutex mutex;
  ConditionVariable changed;  // for the writer: there is a line, or the end has come
  ConditionVariable settled;  // for those who wait for the writer: it is idle, or has ended
  LogQueue queue GUARDED_BY(mutex);
  bool has_writer GUARDED_BY(mutex) = false;
  pthread_t writer GUARDED_BY(mutex) = 0;
  bool writing GUARDED_BY(mutex) = false;  // a line has left the queue and is not yet out
  bool ending GUARDED_BY(mutex) = false;
};

/// @p text with every percent sign doubled, for calls that take their text as a printf format.
QByteArray escape_percent(const char* text);

}  // namespace kesto

/// Logs with the place of the call. The level is tested before any argument is evaluated: a suppressed
/// message costs one comparison. A macro, because only a macro sees the caller's file, line and
/// signature.
#define KESTO_LOG(LEVEL, ...)                                                                       \
  do {                                                                                              \
    kesto::Logger* const kesto_logger = kesto::Logger::instance();                                  \
    if (kesto_logger->getLevel() >= (LEVEL))                                                        \
      kesto_logger->log((LEVEL), __FILE__, __LINE__, static_cast<const char*>(__PRETTY_FUNCTION__), \
                        __VA_ARGS__);                                                               \
  } while (false)
