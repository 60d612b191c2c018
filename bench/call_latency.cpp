// Calls methods of the service one after the other and says how long each call took, as its caller sees it:
// through the bus, there and back.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QVariant>
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

QDBusMessage method(const char* name, const QVariantList& arguments = {}) {
  auto message = QDBusMessage::createMethodCall(
      QStringLiteral("com.tolvekserver.Kadrel"), QStringLiteral("/"),
      QStringLiteral("com.tolvekserver.Kadrel.Dump"), QString::fromLatin1(name));
  message.setArguments(arguments);
  return message;
}

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication app(argc, argv);
  if (argc != 4) {
    fputs(
        "Usage: call_latency COUNT METHOD FILE\n"
        "METHOD is get_status, latest_grab, set_ctrl_universe, set_ctrl_action, set_ctrl_record, or "
        "grab_stop, which is\n"
        "grab(FILE) and stop() in turn. Prints one JSON object.\n",
        stderr);
    return 2;
  }
  const long count = std::strtol(argv[1], nullptr, 10);
  const char* const name = argv[2];
  std::vector<QDBusMessage> messages;
  if (std::strcmp(name, "grab_stop") == 0) {
    messages = {method("grab", {QString::fromLocal8Bit(argv[3])}), method("stop")};
  } else if (std::strcmp(name, "set_ctrl_universe") == 0) {
    messages = {method(name, {32768})};
  } else if (std::strcmp(name, "set_ctrl_action") == 0) {
    messages = {method(name, {1, 2, 10})};
  } else if (std::strcmp(name, "set_ctrl_record") == 0) {
    messages = {method(name, {1, 128})};
  } else {
    messages = {method(name)};
  }

  QDBusConnection bus = QDBusConnection::sessionBus();
  std::vector<std::int64_t> times;
  for (long i = 0; i < count; ++i) {
    const QDBusMessage& message = messages[static_cast<std::size_t>(i) % messages.size()];
    const auto began = std::chrono::steady_clock::now();
    const QDBusMessage reply = bus.call(message);
    const auto lasted = std::chrono::steady_clock::now() - began;
    if (reply.type() != QDBusMessage::ReplyMessage) {
      fprintf(stderr, "call_latency: %s: %s\n", name, reply.errorMessage().toLocal8Bit().constData());
      return 1;
    }
    times.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(lasted).count());
  }
  if (times.empty()) return 2;
  std::sort(times.begin(), times.end());
  printf("{\"calls\": %zu, \"p50_ns\": %" PRId64 ", \"p99_ns\": %" PRId64 ", \"max_ns\": %" PRId64 "}\n",
         times.size(), times[times.size() / 2], times[times.size() * 99 / 100], times.back());
  return 0;
}
