#include "kesto/logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QByteArray>
#include <QMetaMethod>
#include <QMetaObject>
#include <QString>
#include <QTextCodec>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "unit/support/child.h"

using kesto::Logger;

namespace {

constexpr int kErr = 3;       // LOG_ERR
constexpr int kWarning = 4;   // LOG_WARNING
constexpr int kInfo = 6;      // LOG_INFO
constexpr int kLocal0 = 128;  // LOG_LOCAL0

/// One call of syslog(): its arguments and the line that it would have written.
struct SystemLogLine {
  int priority;
  std::string format;
  std::string text;

  friend bool operator==(const SystemLogLine& a, const SystemLogLine& b) {
    return a.priority == b.priority && a.format == b.format && a.text == b.text;
  }
  friend std::ostream& operator<<(std::ostream& out, const SystemLogLine& line) {
    return out << line.priority << " \"" << line.format << "\" \"" << line.text << '"';
  }
};

struct SystemLog {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> connection;  // openlog and closelog, as text
  std::vector<SystemLogLine> lines;
  bool hangs = false;     // it takes no line
  int waiting = 0;        // threads that wait meanwhile with a line
  std::string last_name;  // of the thread that wrote last
  sigset_t last_mask{};   // and the signals it blocks
};

SystemLog& system_log() {
  static auto* const log = new SystemLog;  // outlives the logger, which closes it at exit
  return *log;
}

__attribute__((format(printf, 2, 0))) void record_syslog(int priority, const char* format, va_list args) {
  va_list measured;
  va_copy(measured, args);
  std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, format, measured)) + 1, '\0');
  va_end(measured);
  vsnprintf(text.data(), text.size(), format, args);
  text.pop_back();
  SystemLog& log = system_log();
  std::unique_lock<std::mutex> lock(log.mutex);
  ++log.waiting;
  log.changed.notify_all();
  log.changed.wait(lock, [&log] { return !log.hangs; });
  --log.waiting;
  log.lines.push_back({priority, format, text});
  std::array<char, 16> name{};
  prctl(PR_GET_NAME, name.data());
  log.last_name = name.data();
  pthread_sigmask(SIG_SETMASK, nullptr, &log.last_mask);
}

/// Returns when all lines logged so far are on their output.
void settle() {
  EXPECT_TRUE(Logger::instance()->flush(std::chrono::minutes(1)));
}

/// All lines of the system log.
std::vector<SystemLogLine> system_log_lines() {
  settle();
  const std::lock_guard<std::mutex> guard(system_log().mutex);
  return system_log().lines;
}

/// From now on the system log takes no line; returns when the writer waits with one.
void hang_system_log(const char* line) {
  SystemLog& log = system_log();
  {
    const std::lock_guard<std::mutex> guard(log.mutex);
    log.hangs = true;
  }
  Logger::instance()->write(3, line);
  std::unique_lock<std::mutex> lock(log.mutex);
  log.changed.wait(lock, [&log] { return log.waiting > 0; });
}

void wake_system_log() {
  const std::lock_guard<std::mutex> guard(system_log().mutex);
  system_log().hangs = false;
  system_log().changed.notify_all();
}

// Whether the logger can make a thread.
std::atomic<bool> threads_can_be_made{true};

}  // namespace

// The linker sends the system log calls of the logger, and its attempt to make a thread, here. The names are
// the linker's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void __wrap_openlog(const char* ident, int option, int facility);
void __wrap_closelog();
void __wrap_syslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                          void* argument);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                          void* argument);
void __wrap___syslog_chk(int priority, int flag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

void __wrap_openlog(const char* ident, int option, int facility) {
  const std::lock_guard<std::mutex> guard(system_log().mutex);
  system_log().connection.push_back(std::string("open ") + (ident != nullptr ? ident : "null") + ' ' +
                                    std::to_string(option) + ' ' + std::to_string(facility));
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                          void* argument) {
  if (!threads_can_be_made) return EAGAIN;
  return __real_pthread_create(thread, attributes, start, argument);
}

void __wrap_closelog() {
  const std::lock_guard<std::mutex> guard(system_log().mutex);
  system_log().connection.emplace_back("close");
}

void __wrap_syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  record_syslog(priority, format, args);
  va_end(args);
}

// syslog() in a build with checked library functions.
void __wrap___syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  record_syslog(priority, format, args);
  va_end(args);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

/// Standard error goes into a memory file while this object lives.
class CapturedStandardError {
public:
  CapturedStandardError() : saved(dup(STDERR_FILENO)), file(memfd_create("stderr", MFD_CLOEXEC)) {
    settle();
    dup2(file, STDERR_FILENO);
  }
  ~CapturedStandardError() {
    settle();
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(file);
  }
  CapturedStandardError(const CapturedStandardError&) = delete;
  CapturedStandardError& operator=(const CapturedStandardError&) = delete;
  CapturedStandardError(CapturedStandardError&&) = delete;
  CapturedStandardError& operator=(CapturedStandardError&&) = delete;

  std::string text() const {
    settle();
    std::string all;
    std::array<char, 4096> piece{};
    for (;;) {
      const ssize_t size = pread(file, piece.data(), piece.size(), static_cast<off_t>(all.size()));
      if (size <= 0) return all;
      all.append(piece.data(), static_cast<size_t>(size));
    }
  }

private:
  int saved;
  int file;
};

constexpr std::array<int, 12> kLevels{INT_MIN, -3, -2, -1, 0, 1, 2, 3, 4, 5, 6, INT_MAX};

/// Every test starts with the settings of a new logger and an empty system log.
class LoggerTest : public testing::Test {
protected:
  LoggerTest() {
    logger->setLevel(3);
    logger->setOutput(Logger::Console);
    logger->useContext(true);
    settle();
    const std::lock_guard<std::mutex> guard(system_log().mutex);
    system_log().lines.clear();
  }
  ~LoggerTest() override {
    logger->setLevel(3);
    logger->setOutput(Logger::Console);
    logger->useContext(true);
  }

  /// Levels of kLevels at which a message is written with the present threshold.
  std::vector<int> emitted_levels() const {
    std::vector<int> emitted;
    for (const int level : kLevels) {
      const CapturedStandardError console;
      logger->useContext(false);
      logger->log(level, "file", 1, "f", "x");
      if (console.text() == "x\n") emitted.push_back(level);
    }
    return emitted;
  }

  /// What log() puts on the console, at error level unless told otherwise.
  std::string console_line(const char* file, int line, const char* function, const char* text,
                           int level = -2) const {
    const CapturedStandardError console;
    logger->log(level, file, line, function, "%s", text);
    return console.text();
  }

  Logger* const logger = Logger::instance();
};

using Lines = std::vector<SystemLogLine>;

TEST_F(LoggerTest, IsOneObjectWithoutAParent) {
  EXPECT_EQ(Logger::instance(), logger);
  EXPECT_EQ(logger->parent(), nullptr);
}

TEST_F(LoggerTest, ThresholdThreeLetsOperationalMessagesPassButNoDetail) {
  EXPECT_EQ(emitted_levels(), (std::vector<int>{INT_MIN, -3, -2, -1, 0, 1, 2, 3}));
}

TEST_F(LoggerTest, ThresholdMinusTwoLetsOnlyErrorsPass) {
  logger->setLevel(-2);
  EXPECT_EQ(emitted_levels(), (std::vector<int>{INT_MIN, -3, -2}));
}

TEST_F(LoggerTest, ThresholdSixLetsPerPacketMessagesPass) {
  logger->setLevel(6);
  EXPECT_EQ(emitted_levels(), (std::vector<int>{INT_MIN, -3, -2, -1, 0, 1, 2, 3, 4, 5, 6}));
}

TEST_F(LoggerTest, ThresholdsAtTheEndsOfTheRange) {
  logger->setLevel(INT_MAX);
  EXPECT_EQ(emitted_levels(), std::vector<int>(kLevels.begin(), kLevels.end()));
  logger->setLevel(INT_MIN);
  EXPECT_EQ(emitted_levels(), std::vector<int>{INT_MIN});
}

TEST_F(LoggerTest, SuppressedMessageIsNotFormatted) {
  const CapturedStandardError console;
  // Formatting would follow this pointer.
  logger->log(4, nullptr, 0, nullptr, "%s",
              reinterpret_cast<const char*>(1));  // NOLINT(performance-no-int-to-ptr)
  EXPECT_EQ(console.text(), "");
}

TEST_F(LoggerTest, MacroEvaluatesNoArgumentOfASuppressedMessage) {
  const CapturedStandardError console;
  int evaluated = 0;
  KESTO_LOG(4, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  KESTO_LOG(3, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(console.text(), "1\n");
}

void log_an_error_with_the_macro() {
  KESTO_LOG(-2, "Failed to bind grabber socket");
}

TEST_F(LoggerTest, MacroPassesTheSignatureOfItsFunction) {
  const CapturedStandardError console;
  log_an_error_with_the_macro();
  const std::string text = console.text();
  const std::string tail =
      " void {anonymous}::log_an_error_with_the_macro()) Failed to bind grabber socket\n";
  ASSERT_GE(text.size(), tail.size());
  EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
}

TEST_F(LoggerTest, ConsoleLineIsTheMessageAndANewline) {
  EXPECT_EQ(console_line("file", 1, "f", "[Dump::grab] Preparing to grab", 3),
            "[Dump::grab] Preparing to grab\n");
}

TEST_F(LoggerTest, ConsoleTakesPercentSignsOfAFinishedLineAsTheyAre) {
  const CapturedStandardError console;
  logger->write(3, "100 % %n%s%1%2 %%");
  EXPECT_EQ(console.text(), "100 % %n%s%1%2 %%\n");
}

TEST_F(LoggerTest, FormatsAsPrintfDoes) {
  const CapturedStandardError console;
  logger->log(3, "file", 1, "f", "(universe:%d, address:%s:%d) 100%%", -5, "10.0.0.21", 6454);
  EXPECT_EQ(console.text(), "(universe:-5, address:10.0.0.21:6454) 100%\n");
}

TEST_F(LoggerTest, ErrorLeavesOut133CharactersOfThePath) {
  const std::string skipped(133, 'p');
  EXPECT_EQ(
      console_line((skipped + "src/Dump.cpp").c_str(), 57, "void Dump::grab(const QString&)", "Can't open"),
      "src/Dump.cpp57 void Dump::grab(const QString&)) Can't open\n");
}

TEST_F(LoggerTest, WarningLeavesOut131CharactersOfThePath) {
  const std::string skipped(131, 'p');
  EXPECT_EQ(
      console_line((skipped + "src/Dump.cpp").c_str(), 57, "void Dump::grab(const QString&)", "Careful", -1),
      "src/Dump.cpp57 void Dump::grab(const QString&)) Careful\n");
}

TEST_F(LoggerTest, PathOfExactlyTheSkippedLengthOrLessGivesAnEmptyFilePiece) {
  for (const size_t length :
       {size_t{0}, size_t{1}, size_t{12}, size_t{130}, size_t{131}, size_t{132}, size_t{133}}) {
    EXPECT_EQ(console_line(std::string(length, 'p').c_str(), 7, "f()", "m"), "7 f()) m\n") << length;
  }
  for (const size_t length : {size_t{0}, size_t{1}, size_t{12}, size_t{129}, size_t{130}, size_t{131}}) {
    EXPECT_EQ(console_line(std::string(length, 'p').c_str(), 7, "f()", "m", -1), "7 f()) m\n") << length;
  }
}

TEST_F(LoggerTest, PathOneCharacterLongerThanTheSkippedLengthGivesItsLastCharacter) {
  EXPECT_EQ(console_line((std::string(133, 'p') + "x").c_str(), 7, "f()", "m"), "x7 f()) m\n");
  EXPECT_EQ(console_line((std::string(131, 'p') + "x").c_str(), 7, "f()", "m", -1), "x7 f()) m\n");
}

TEST_F(LoggerTest, PathWithPercentSignsIsNoFormat) {
  EXPECT_EQ(console_line((std::string(133, 'p') + "%s%n").c_str(), 7, "%d()", "m"), "%s%n7 %d()) m\n");
}

TEST_F(LoggerTest, NullPathGivesAnEmptyFilePiece) {
  EXPECT_EQ(console_line(nullptr, 7, "f()", "m"), "7 f()) m\n");
  EXPECT_EQ(console_line(nullptr, 7, "f()", "m", -1), "7 f()) m\n");
}

TEST_F(LoggerTest, NullFunctionGivesAnEmptyFunctionText) {
  EXPECT_EQ(console_line(nullptr, 0, nullptr, "m"), "0 ) m\n");
  EXPECT_EQ(console_line(nullptr, 0, nullptr, "m", -1), "0 ) m\n");
}

TEST_F(LoggerTest, LineNumbersAreSignedDecimals) {
  EXPECT_EQ(console_line(nullptr, INT_MIN, "f", "m"), "-2147483648 f) m\n");
  EXPECT_EQ(console_line(nullptr, INT_MAX, "f", "m"), "2147483647 f) m\n");
}

TEST_F(LoggerTest, OnlyErrorsAndWarningsCarryTheContext) {
  logger->setLevel(INT_MAX);
  for (const int level : kLevels) {
    const bool context = level == -2 || level == -1;
    EXPECT_EQ(console_line("a", 12, "f()", "m", level), context ? "12 f()) m\n" : "m\n") << level;
  }
}

TEST_F(LoggerTest, WithoutContextAnErrorLineIsTheMessage) {
  logger->useContext(false);
  EXPECT_EQ(console_line(std::string(200, 'p').c_str(), 12, "f()", "m"), "m\n");
  EXPECT_EQ(console_line(std::string(200, 'p').c_str(), 12, "f()", "m", -1), "m\n");
}

TEST_F(LoggerTest, MessagesOfAnyLengthAreWhole) {
  for (const size_t length : {size_t{0}, size_t{1}, size_t{255}, size_t{256}, size_t{1023}, size_t{1024},
                              size_t{4096}, size_t{8192}, size_t{100000}}) {
    const std::string text(length, 'm');
    EXPECT_EQ(console_line(nullptr, 0, nullptr, text.c_str(), 3), text + "\n") << length;
    EXPECT_EQ(console_line(nullptr, 1, "f", text.c_str()), "1 f) " + text + "\n") << length;
  }
}

TEST_F(LoggerTest, MessageThatCannotBeFormattedIsWrittenEmpty) {
  const CapturedStandardError console;
  logger->log(-2, nullptr, 1, "f", "before %ls", L"\u20ac");  // no such character in the C locale
  EXPECT_EQ(console.text(), "1 f) \n");
}

TEST_F(LoggerTest, OutputNoneDiscardsEveryLine) {
  const CapturedStandardError console;
  logger->setOutput(Logger::None);
  for (const int level : kLevels) logger->log(level, "file", 1, "f", "m");
  logger->write(-2, "line");
  EXPECT_EQ(console.text(), "");
  EXPECT_EQ(system_log_lines(), Lines{});
}

TEST_F(LoggerTest, OutputValuesWithoutAMeaningDiscardEveryLine) {
  for (const int output : {7, 3, -1, INT_MAX, INT_MIN}) {
    const CapturedStandardError console;
    logger->setOutput(static_cast<Logger::Output>(output));
    for (const int level : kLevels) logger->log(level, "file", 1, "f", "m");
    logger->write(-2, "line");
    EXPECT_EQ(console.text(), "") << output;
    EXPECT_EQ(system_log_lines(), Lines{}) << output;
  }
}

TEST_F(LoggerTest, WriteDoesNotTestTheLevel) {
  const CapturedStandardError console;
  logger->setLevel(-2);
  logger->write(6, "line");
  EXPECT_EQ(console.text(), "line\n");
}

TEST_F(LoggerTest, SystemLogPriorityFollowsTheLevel) {
  logger->setOutput(Logger::Syslog);
  logger->setLevel(INT_MAX);
  logger->useContext(false);
  const CapturedStandardError console;
  Lines expected;
  for (const int level : kLevels) {
    logger->log(level, "file", 1, "f", "m");
    expected.push_back({level == -2 ? kErr : level == -1 ? kWarning : kInfo, "m", "m"});
  }
  EXPECT_EQ(system_log_lines(), expected);
  EXPECT_EQ(console.text(), "");
}

TEST_F(LoggerTest, SystemLogGetsTheFinishedLineAsItsFormatWithPercentSignsDoubled) {
  logger->setOutput(Logger::Syslog);
  logger->log(3, "file", 1, "f", "%s", "100 % %n%s%1%2 %%");
  logger->log(-2, nullptr, 57, "void %f()", "%s", "%d");
  logger->write(-1, "%");
  EXPECT_EQ(system_log_lines(), (Lines{{kInfo, "100 %% %%n%%s%%1%%2 %%%%", "100 % %n%s%1%2 %%"},
                                       {kErr, "57 void %%f()) %%d", "57 void %f()) %d"},
                                       {kWarning, "%%", "%"}}));
}

TEST_F(LoggerTest, SystemLogGetsLongMessagesWhole) {
  logger->setOutput(Logger::Syslog);
  const std::string text(100000, '%');
  logger->log(3, "file", 1, "f", "%s", text.c_str());
  EXPECT_EQ(system_log_lines(), (Lines{{kInfo, text + text, text}}));
}

TEST_F(LoggerTest, FrameworkMessagesAreMappedToLevels) {
  logger->setOutput(Logger::Syslog);
  const QMessageLogContext context("file.cpp", 12, "void f()", "default");
  Logger::MessageHandler(QtDebugMsg, context, QStringLiteral("debug"));
  Logger::MessageHandler(QtWarningMsg, context, QStringLiteral("warning"));
  Logger::MessageHandler(QtCriticalMsg, context, QStringLiteral("critical"));
  Logger::MessageHandler(QtFatalMsg, context, QStringLiteral("fatal"));
  EXPECT_EQ(system_log_lines(), (Lines{{kInfo, "debug", "debug"},
                                       {kWarning, "12 void f()) warning", "12 void f()) warning"},
                                       {kErr, "12 void f()) critical", "12 void f()) critical"},
                                       {kErr, "12 void f()) fatal", "12 void f()) fatal"}}));
}

TEST_F(LoggerTest, FrameworkDebugMessageIsAtLevelOne) {
  const CapturedStandardError console;
  logger->setLevel(0);
  Logger::MessageHandler(QtDebugMsg, QMessageLogContext(), QStringLiteral("hidden"));
  logger->setLevel(1);
  Logger::MessageHandler(QtDebugMsg, QMessageLogContext(), QStringLiteral("seen"));
  EXPECT_EQ(console.text(), "seen\n");
}

TEST_F(LoggerTest, FrameworkInformationIsDropped) {
  const CapturedStandardError console;
  logger->setLevel(INT_MAX);
  Logger::MessageHandler(QtInfoMsg, QMessageLogContext("file.cpp", 12, "void f()", "default"),
                         QStringLiteral("info"));
  EXPECT_EQ(console.text(), "");
}

TEST_F(LoggerTest, FrameworkMessageWithoutContextSurvives) {
  const CapturedStandardError console;
  Logger::MessageHandler(QtWarningMsg, QMessageLogContext(), QStringLiteral("warning"));
  EXPECT_EQ(console.text(), "0 ) warning\n");
}

TEST_F(LoggerTest, PercentSignsOfAFrameworkMessageStay) {
  const CapturedStandardError console;
  Logger::MessageHandler(QtWarningMsg, QMessageLogContext(), QStringLiteral("100 % %n%s%1%2 %%"));
  EXPECT_EQ(console.text(), "0 ) 100 % %n%s%1%2 %%\n");
}

TEST_F(LoggerTest, PercentSignsOfAFrameworkMessageStayInTheSystemLogToo) {
  logger->setOutput(Logger::Syslog);
  Logger::MessageHandler(QtDebugMsg, QMessageLogContext(), QStringLiteral("%s %%"));
  EXPECT_EQ(system_log_lines(), (Lines{{kInfo, "%%s %%%%", "%s %%"}}));
}

TEST_F(LoggerTest, FrameworkHandsItsMessagesToTheLogger) {
  const CapturedStandardError console;
  qt_message_output(QtWarningMsg, QMessageLogContext(nullptr, 3, "void f()", "default"),
                    QStringLiteral("through Qt"));
  EXPECT_EQ(console.text(), "3 void f()) through Qt\n");
}

TEST_F(LoggerTest, EscapePercentDoublesEveryPercentSign) {
  EXPECT_EQ(kesto::escape_percent(""), QByteArray(""));
  EXPECT_EQ(kesto::escape_percent("plain"), QByteArray("plain"));
  EXPECT_EQ(kesto::escape_percent("%a%%b%"), QByteArray("%%a%%%%b%%"));
}

TEST_F(LoggerTest, MetaObjectHoldsTheFourSlotsInOrderAndNothingElse) {
  const QMetaObject& meta = Logger::staticMetaObject;
  const QMetaObject& base = QObject::staticMetaObject;
  EXPECT_STREQ(meta.className(), "kesto::Logger");
  EXPECT_EQ(meta.superClass(), &base);
  EXPECT_EQ(meta.propertyCount(), base.propertyCount());
  EXPECT_EQ(meta.enumeratorCount(), base.enumeratorCount());
  EXPECT_EQ(meta.constructorCount(), 0);
  std::vector<std::string> slots_found;
  for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
    const QMetaMethod method = meta.method(i);
    EXPECT_EQ(method.methodType(), QMetaMethod::Slot) << i;
    EXPECT_EQ(method.access(), QMetaMethod::Public) << i;
    slots_found.push_back(std::string(method.typeName()) + ' ' + method.methodSignature().toStdString() +
                          ' ' + method.parameterNames().join(',').toStdString());
  }
  EXPECT_EQ(slots_found,
            (std::vector<std::string>{"void setOutput(Output) output", "void setLevel(int) level",
                                      "int getLevel() ", "void useContext(bool) use_context"}));
  EXPECT_EQ(meta.method(meta.methodOffset()).parameterType(0), int{QMetaType::UnknownType});
}

TEST_F(LoggerTest, SlotsCanBeInvokedByName) {
  const CapturedStandardError console;
  int level = 0;
  Logger::Output output = Logger::Syslog;
  EXPECT_TRUE(QMetaObject::invokeMethod(logger, "setLevel", Q_ARG(int, -1)));
  EXPECT_TRUE(QMetaObject::invokeMethod(logger, "getLevel", Q_RETURN_ARG(int, level)));
  EXPECT_TRUE(QMetaObject::invokeMethod(logger, "useContext", Q_ARG(bool, false)));
  EXPECT_TRUE(QMetaObject::invokeMethod(logger, "setOutput", QGenericArgument("Output", &output)));
  EXPECT_EQ(level, -1);
  logger->log(-2, "file", 1, "f", "m");
  logger->log(0, "file", 1, "f", "m");
  EXPECT_EQ(console.text(), "");
  EXPECT_EQ(system_log_lines(), (Lines{{kErr, "m", "m"}}));
}

TEST_F(LoggerTest, LinesOfSeveralThreadsStayWhole) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 200;
  const CapturedStandardError console;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      const std::string text(300, static_cast<char>('a' + t));
      for (int i = 0; i < kMessages; ++i) logger->log(-2, nullptr, i, "f", "%s", text.c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::istringstream lines(console.text());
  std::array<int, kThreads> next{};
  for (std::string line; std::getline(lines, line);) {
    const auto t = static_cast<size_t>(line.back() - 'a');
    ASSERT_LT(t, next.size());
    ASSERT_EQ(line, std::to_string(next.at(t)) + " f) " + std::string(300, line.back()));
    ++next.at(t);
  }
  EXPECT_EQ(next, (std::array<int, kThreads>{kMessages, kMessages, kMessages, kMessages}));
}

TEST_F(LoggerTest, WriterHasANameAndTakesNoSignal) {
  logger->setOutput(Logger::Syslog);
  logger->log(3, "file", 1, "f", "m");
  settle();
  EXPECT_EQ(system_log().last_name, "log writer");
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGPIPE, SIGUSR1, SIGCHLD, SIGTTOU, SIGRTMIN}) {
    EXPECT_EQ(sigismember(&system_log().last_mask, signal), 1) << signal;
  }
  sigset_t mine;
  pthread_sigmask(SIG_SETMASK, nullptr, &mine);
  EXPECT_EQ(sigismember(&mine, SIGTERM), 0);
}

TEST_F(LoggerTest, LinesGoToTheOutputThatWasInForceWhenTheyWereLogged) {
  const CapturedStandardError console;
  logger->setOutput(Logger::Syslog);
  hang_system_log("first");
  logger->log(3, "file", 1, "f", "second");
  logger->setOutput(Logger::None);
  logger->log(3, "file", 1, "f", "discarded");
  logger->setOutput(Logger::Console);
  logger->log(3, "file", 1, "f", "third");
  logger->setOutput(Logger::None);
  wake_system_log();
  EXPECT_EQ(system_log_lines(), (Lines{{kInfo, "first", "first"}, {kInfo, "second", "second"}}));
  EXPECT_EQ(console.text(), "third\n");
}

TEST_F(LoggerTest, WaitsForItsLinesNoLongerThanItIsTold) {
  EXPECT_TRUE(logger->flush(std::chrono::milliseconds(0)));
  logger->setOutput(Logger::Syslog);
  hang_system_log("hangs");
  EXPECT_FALSE(logger->flush(std::chrono::milliseconds(0)));
  EXPECT_FALSE(logger->flush(std::chrono::milliseconds(1)));
  wake_system_log();
  settle();
}

/// Lines of a system log that hung while more lines than the queue holds were logged: 5,000 of level 3, with
/// an error after every hundredth.
Lines after_a_hang(Logger& logger, int threshold) {
  logger.setOutput(Logger::Syslog);
  hang_system_log("before");
  for (int i = 0; i < 5000; ++i) {
    if (i % 100 == 0) logger.log(-2, nullptr, i, "f", "error");
    logger.log(3, nullptr, 0, nullptr, "%d", i);
  }
  logger.setLevel(threshold);
  wake_system_log();
  return system_log_lines();
}

/// The expected lines: of 5,050 lines 4,096 are kept, all errors among them.
Lines kept_lines(const std::string& context, const std::string& report) {
  Lines lines{{kInfo, "before", "before"}};
  if (!report.empty()) lines.push_back({kWarning, report, report});
  for (int i = 0; i < 5000; ++i) {
    const std::string error = (context.empty() ? "" : std::to_string(i) + context) + "error";
    if (i % 100 == 0) lines.push_back({kErr, error, error});
    const std::string text = std::to_string(i);
    if (i >= 954) lines.push_back({kInfo, text, text});
  }
  return lines;
}

TEST_F(LoggerTest, HangingOutputCostsTheOldestOrdinaryLinesAndAWarningSaysSo) {
  logger->useContext(false);
  EXPECT_EQ(after_a_hang(*logger, 3),
            kept_lines("", "Dropped log lines, their output takes too few (lines:954)"));
}

TEST_F(LoggerTest, WarningAboutDroppedLinesHasAContextLikeAnyOther) {
  const Lines lines = after_a_hang(*logger, -1);
  ASSERT_GT(lines.size(), 1U);
  const std::regex report(
      R"(\d+ void kesto::Logger::report_dropped\(.*\)\) Dropped log lines, their output takes too few \(lines:954\))");
  EXPECT_TRUE(std::regex_match(lines[1].text, report)) << lines[1];
  EXPECT_EQ(lines, kept_lines(" f) ", lines[1].text));
}

TEST_F(LoggerTest, WarningAboutDroppedLinesIsSubjectToTheThreshold) {
  EXPECT_EQ(after_a_hang(*logger, -2), kept_lines(" f) ", ""));
}

TEST_F(LoggerTest, PipeThatNobodyReadsHoldsNobodyUp) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
  const int saved = dup(STDERR_FILENO);
  dup2(pipe[1], STDERR_FILENO);
  const std::string text(100, 'x');  // far more than a pipe takes
  for (int i = 0; i < 4000; ++i) logger->log(3, nullptr, 0, nullptr, "%d %s", i, text.c_str());
  EXPECT_FALSE(logger->flush(std::chrono::milliseconds(0)));
  std::string expected;
  for (int i = 0; i < 4000; ++i) expected += std::to_string(i) + ' ' + text + '\n';
  std::string got(expected.size(), '\0');
  for (size_t size = 0; size < got.size();) {
    const ssize_t more = read(pipe[0], &got[size], got.size() - size);
    ASSERT_GT(more, 0);
    size += static_cast<size_t>(more);
  }
  settle();
  dup2(saved, STDERR_FILENO);
  for (const int fd : {saved, pipe[0], pipe[1]}) close(fd);
  EXPECT_EQ(got, expected);
}

CHILD_SCENARIO(new_logger) {
  EXPECT_EQ(system_log().connection, std::vector<std::string>{});
  Logger* const logger = Logger::instance();
  EXPECT_EQ(system_log().connection, (std::vector<std::string>{"open null 0 " + std::to_string(kLocal0)}));
  EXPECT_EQ(logger->getLevel(), 3);
  const std::string path = std::string(131, 'p') + "/x";
  for (const int level : {-2, -1, 0, 1, 3, 4, 6})
    logger->log(level, path.c_str(), 9, "f()", "level %d", level);
  EXPECT_EQ(system_log_lines(), Lines{});
}

TEST(Logger, StartsAtThresholdThreeOnTheConsoleWithContext) {
  const unit::Outcome child = unit::run_child("new_logger");
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.err, "9 f()) level -2\n/x9 f()) level -1\nlevel 0\nlevel 1\nlevel 3\n");
}

CHILD_SCENARIO(first_calls_at_once) {
  constexpr int kThreads = 4;
  std::atomic<int> ready{0};
  std::array<Logger*, kThreads> seen{};
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (Logger*& mine : seen) {
    threads.emplace_back([&ready, &mine] {
      ++ready;
      while (ready.load() < kThreads) {
      }
      mine = Logger::instance();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_NE(seen[0], nullptr);
  for (Logger* const other : seen) EXPECT_EQ(other, seen[0]);
  EXPECT_EQ(system_log().connection, (std::vector<std::string>{"open null 0 128"}));
}

TEST(Logger, IsConstructedOnceWhenSeveralThreadsCallFirst) {
  const unit::Outcome child = unit::run_child("first_calls_at_once");
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.err, "");
}

/// Prints the calls and lines of the system log. For use after the last log line.
void print_system_log() {
  for (const std::string& event : system_log().connection) printf("%s\n", event.c_str());
  for (const SystemLogLine& line : system_log().lines) printf("%s\n", line.text.c_str());
}

void after_the_end() {
  Logger::MessageHandler(QtWarningMsg, QMessageLogContext(), QStringLiteral("framework, after the end"));
  print_system_log();
}

/// Logs when it is destroyed.
struct Farewell {
  const char* text;
  ~Farewell() { KESTO_LOG(3, "%s", text); }
};

CHILD_SCENARIO(lines_at_static_destruction) {
  EXPECT_EQ(std::atexit(&after_the_end), 0);
  static const Farewell made_before{"after the end"};
  Logger::instance();
  static const Farewell made_afterwards{"before the end"};
  KESTO_LOG(3, "last line of main");
}

TEST(Logger, ClosesTheSystemLogAtExitAndStillTakesLines) {
  const unit::Outcome child = unit::run_child("lines_at_static_destruction");
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.out, "open null 0 128\nclose\n");
  EXPECT_EQ(child.err, "last line of main\nbefore the end\nafter the end\n0 ) framework, after the end\n");
}

CHILD_SCENARIO(nothing_logged) {
  EXPECT_EQ(std::atexit(&print_system_log), 0);
  Logger::instance();
}

TEST(Logger, ClosesTheSystemLogAtExitWhenNothingWasLogged) {
  const unit::Outcome child = unit::run_child("nothing_logged");
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.out, "open null 0 128\nclose\n");
}

CHILD_SCENARIO(lines_at_the_end) {
  EXPECT_EQ(std::atexit(&print_system_log), 0);
  Logger::instance()->setOutput(Logger::Syslog);
  hang_system_log("0");
  for (int i = 1; i < 1000; ++i) KESTO_LOG(3, "%d", i);
  wake_system_log();
}

TEST(Logger, WritesAtExitWhatTheQueueHolds) {
  const unit::Outcome child = unit::run_child("lines_at_the_end");
  EXPECT_EQ(child.status, 0);
  std::string expected = "open null 0 128\nclose\n";
  for (int i = 0; i < 1000; ++i) expected += std::to_string(i) + '\n';
  EXPECT_EQ(child.out, expected);
}

void after_an_end_that_hangs() {
  KESTO_LOG(-2, "after the end");
  Logger::MessageHandler(QtWarningMsg, QMessageLogContext(), QStringLiteral("framework"));
  const std::lock_guard<std::mutex> guard(system_log().mutex);
  print_system_log();
}

CHILD_SCENARIO(hanging_at_the_end) {
  EXPECT_EQ(std::atexit(&after_an_end_that_hangs), 0);
  Logger::instance()->setOutput(Logger::Syslog);
  hang_system_log("hangs");
  KESTO_LOG(-2, "waits");
}

TEST(Logger, ProcessEndsWhileTheSystemLogTakesNoLine) {
  const unit::Outcome child = unit::run_child("hanging_at_the_end");
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.out, "open null 0 128\n");
}

CHILD_SCENARIO(no_thread) {
  EXPECT_EQ(std::atexit(&print_system_log), 0);
  threads_can_be_made = false;
  Logger* const logger = Logger::instance();
  logger->setOutput(Logger::Syslog);
  KESTO_LOG(3, "without a thread");
  EXPECT_EQ(system_log().lines, (Lines{{kInfo, "without a thread", "without a thread"}}));
  threads_can_be_made = true;
  KESTO_LOG(3, "with one");
  EXPECT_EQ(system_log_lines().size(), 2U);
  EXPECT_EQ(system_log().last_name, "log writer");
  threads_can_be_made = false;
  KESTO_LOG(3, "with the same");
}

TEST(Logger, WritesByItselfWhileNoThreadCanBeMade) {
  const unit::Outcome child = unit::run_child("no_thread");
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.out, "open null 0 128\nclose\nwithout a thread\nwith one\nwith the same\n");
}

CHILD_SCENARIO(forked) {
  KESTO_LOG(3, "parent");
  settle();
  const pid_t pid = fork();
  if (pid == 0) {
    KESTO_LOG(3, "child");
    exit(7);
  }
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
  KESTO_LOG(3, "parent again");
}

TEST(Logger, LinesOfAForkedChildArrive) {
  const unit::Outcome child = unit::run_child("forked");
  EXPECT_EQ(child.status, 0) << child.out;
  // The leak checker would complain that it cannot stop the writer, which does not exist in the child.
  const std::regex remark("==.*False leaks are possible\\.\n");
  EXPECT_EQ(std::regex_replace(child.err, remark, ""), "parent\nchild\nparent again\n");
}

CHILD_SCENARIO(fatal) {
  prctl(PR_SET_DUMPABLE, 0);
  Logger::instance();
  qFatal("nothing goes any more");
}

TEST(Logger, FatalFrameworkMessageIsOutBeforeTheProcessIsEnded) {
  const unit::Outcome child = unit::run_child("fatal");
  EXPECT_EQ(child.status, -SIGABRT);
  EXPECT_EQ(child.err, "0 ) nothing goes any more\n");
}

CHILD_SCENARIO(message_before_the_first_call) {
  Logger::MessageHandler(QtWarningMsg, QMessageLogContext(), QStringLiteral("early"));
}

TEST(Logger, IsMadeByTheFirstFrameworkMessageIfNobodyCameBefore) {
  const unit::Outcome child = unit::run_child("message_before_the_first_call");
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.err, "0 ) early\n");
}

CHILD_SCENARIO(message_in_utf8) {
  QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
  Logger::instance();
  qt_message_output(QtWarningMsg, QMessageLogContext(), QString::fromUtf8("Übung \xf0\x9f\x8e\xac"));
}

TEST(Logger, FrameworkMessageKeepsItsTextInTheLocalEncoding) {
  const unit::Outcome child = unit::run_child("message_in_utf8");
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.err, "0 ) Übung \xf0\x9f\x8e\xac\n");
}

}  // namespace
