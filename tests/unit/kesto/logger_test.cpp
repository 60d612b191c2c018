#include "kesto/logger.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <QByteArray>
#include <QMetaMethod>
#include <QMetaObject>
#include <QString>
#include <QTextCodec>
#include <array>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
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

/// One call of syslog(): what it was given and what it would have written.
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
  std::vector<std::string> connection;  // openlog and closelog, as text
  std::vector<SystemLogLine> lines;
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
  const std::lock_guard<std::mutex> guard(system_log().mutex);
  system_log().lines.push_back({priority, format, text});
}

}  // namespace

// The linker sends the system log calls of the logger here. The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void __wrap_openlog(const char* ident, int option, int facility);
void __wrap_closelog();
void __wrap_syslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void __wrap___syslog_chk(int priority, int flag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

void __wrap_openlog(const char* ident, int option, int facility) {
  const std::lock_guard<std::mutex> guard(system_log().mutex);
  system_log().connection.push_back(std::string("open ") + (ident != nullptr ? ident : "null") + ' ' +
                                    std::to_string(option) + ' ' + std::to_string(facility));
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

// What syslog() becomes in a build with checked library functions.
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
    fflush(stderr);
    dup2(file, STDERR_FILENO);
  }
  ~CapturedStandardError() {
    fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(file);
  }
  CapturedStandardError(const CapturedStandardError&) = delete;
  CapturedStandardError& operator=(const CapturedStandardError&) = delete;
  CapturedStandardError(CapturedStandardError&&) = delete;
  CapturedStandardError& operator=(CapturedStandardError&&) = delete;

  std::string text() const {
    fflush(stderr);
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
  EXPECT_EQ(system_log().lines, Lines{});
}

TEST_F(LoggerTest, OutputValuesWithoutAMeaningDiscardEveryLine) {
  for (const int output : {7, 3, -1, INT_MAX, INT_MIN}) {
    const CapturedStandardError console;
    logger->setOutput(static_cast<Logger::Output>(output));
    for (const int level : kLevels) logger->log(level, "file", 1, "f", "m");
    logger->write(-2, "line");
    EXPECT_EQ(console.text(), "") << output;
    EXPECT_EQ(system_log().lines, Lines{}) << output;
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
  EXPECT_EQ(system_log().lines, expected);
  EXPECT_EQ(console.text(), "");
}

TEST_F(LoggerTest, SystemLogGetsTheFinishedLineAsItsFormatWithPercentSignsDoubled) {
  logger->setOutput(Logger::Syslog);
  logger->log(3, "file", 1, "f", "%s", "100 % %n%s%1%2 %%");
  logger->log(-2, nullptr, 57, "void %f()", "%s", "%d");
  logger->write(-1, "%");
  EXPECT_EQ(system_log().lines, (Lines{{kInfo, "100 %% %%n%%s%%1%%2 %%%%", "100 % %n%s%1%2 %%"},
                                       {kErr, "57 void %%f()) %%d", "57 void %f()) %d"},
                                       {kWarning, "%%", "%"}}));
}

TEST_F(LoggerTest, SystemLogGetsLongMessagesWhole) {
  logger->setOutput(Logger::Syslog);
  const std::string text(100000, '%');
  logger->log(3, "file", 1, "f", "%s", text.c_str());
  EXPECT_EQ(system_log().lines, (Lines{{kInfo, text + text, text}}));
}

TEST_F(LoggerTest, FrameworkMessagesAreMappedToLevels) {
  logger->setOutput(Logger::Syslog);
  const QMessageLogContext context("file.cpp", 12, "void f()", "default");
  Logger::MessageHandler(QtDebugMsg, context, QStringLiteral("debug"));
  Logger::MessageHandler(QtWarningMsg, context, QStringLiteral("warning"));
  Logger::MessageHandler(QtCriticalMsg, context, QStringLiteral("critical"));
  Logger::MessageHandler(QtFatalMsg, context, QStringLiteral("fatal"));
  EXPECT_EQ(system_log().lines, (Lines{{kInfo, "debug", "debug"},
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
  EXPECT_EQ(system_log().lines, (Lines{{kInfo, "%%s %%%%", "%s %%"}}));
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
  EXPECT_EQ(system_log().lines, (Lines{{kErr, "m", "m"}}));
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

CHILD_SCENARIO(new_logger) {
  EXPECT_EQ(system_log().connection, std::vector<std::string>{});
  Logger* const logger = Logger::instance();
  EXPECT_EQ(system_log().connection, (std::vector<std::string>{"open null 0 " + std::to_string(kLocal0)}));
  EXPECT_EQ(logger->getLevel(), 3);
  const std::string path = std::string(131, 'p') + "/x";
  for (const int level : {-2, -1, 0, 1, 3, 4, 6})
    logger->log(level, path.c_str(), 9, "f()", "level %d", level);
  EXPECT_EQ(system_log().lines, Lines{});
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

void after_the_logger_is_gone() {
  Logger::MessageHandler(QtWarningMsg, QMessageLogContext(), QStringLiteral("too late"));
  const bool handler_is_installed = qInstallMessageHandler(nullptr) == &Logger::MessageHandler;
  std::string report = handler_is_installed ? "handler still installed\n" : "handler uninstalled\n";
  for (const std::string& event : system_log().connection) report += event + '\n';
  fputs(report.c_str(), stdout);
}

CHILD_SCENARIO(message_after_the_end) {
  EXPECT_EQ(std::atexit(&after_the_logger_is_gone), 0);
  Logger::instance();
}

TEST(Logger, ClosesTheSystemLogAtExitAndIgnoresLaterFrameworkMessages) {
  const unit::Outcome child = unit::run_child("message_after_the_end");
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.out, "handler uninstalled\nopen null 0 128\nclose\n");
  EXPECT_EQ(child.err, "");
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
