#pragma once

#include <QObject>
#include <QtGlobal>
#include <atomic>

class QMessageLogContext;
class QString;

namespace kesto {

/// The one logger of the process: filters by level, prefixes errors and warnings with their place in the
/// source, and hands each finished line to one output. Takes over the framework's own messages as soon as it
/// exists.
///
/// Levels are signed, smaller is more important: -2 error, -1 warning, 1 debug and start banner, 3
/// operational, 4 detail, 6 per packet. Nothing here throws or reports a failure; a line that cannot be
/// written is lost. log() may be called from any thread; every line leaves in a single call, so lines are not
/// interleaved.
class Logger : public QObject {
  Q_OBJECT

public:
  /// Where finished lines go. Any other value drops them.
  enum Output : qint32 { None = 0, Console = 1, Syslog = 2 };

  /// The logger of the process; made by the first call, on any thread, and destroyed at exit.
  static Logger* instance();

  /// Formats one message as printf does, whole whatever its length, and writes it when @p level is at most
  /// the threshold.
  /// @param file      source path, may be null; @param line      line number there
  /// @param function  full signature of the function, may be null
  void log(int level, const char* file, int line, const char* function, const char* format, ...)
      __attribute__((format(printf, 6, 7)));

  /// Routes a finished line (no newline at its end) to the present output.
  void write(int level, const char* line);

  /// Framework message handler: debug becomes level 1, warning -1, critical and fatal -2; informational
  /// messages are dropped.
  static void MessageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);

public slots:
  void setOutput(Output output);
  void setLevel(int level);
  int getLevel();
  void useContext(bool use_context);

private:
  Logger();
  ~Logger() override;

  void writeToNone(int level, const char* line);
  void writeToConsole(int level, const char* line);
  void writeToSyslog(int level, const char* line);

  // Written by the setters, read by every logging thread; no order among them is needed.
  std::atomic<qint32> output{Console};
  std::atomic<qint32> level{3};
  std::atomic<bool> use_context{true};
};

/// @p text with every percent sign doubled, for calls that take their text as a printf format.
QByteArray escape_percent(const char* text);

}  // namespace kesto

/// Logs with the place of the call. The level is tested before any argument is evaluated, so that a
/// suppressed message costs one comparison. A macro, because only a macro sees the caller's file, line and
/// signature.
#define KESTO_LOG(LEVEL, ...)                                                                       \
  do {                                                                                              \
    kesto::Logger* const kesto_logger = kesto::Logger::instance();                                  \
    if (kesto_logger->getLevel() >= (LEVEL))                                                        \
      kesto_logger->log((LEVEL), __FILE__, __LINE__, static_cast<const char*>(__PRETTY_FUNCTION__), \
                        __VA_ARGS__);                                                               \
  } while (false)
