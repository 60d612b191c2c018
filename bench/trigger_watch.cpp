// Waits for trigger signals whose key and subkey are the two halves of a 16-bit count, and says which came,
// in which order and how late.
#include "bench/trigger_watch.h"

#include <QDBusConnection>
#include <QTimer>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  if (argc != 3) {
    fputs(
        "Usage: trigger_watch COUNT SECONDS\n"
        "Ends after COUNT signals or SECONDS. Prints \"ready\", then one line per signal: time in ns, key, "
        "subkey.\n",
        stderr);
    return 2;
  }
  TriggerWatch watch(static_cast<std::size_t>(std::strtoul(argv[1], nullptr, 10)));
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.connect(QString(), QStringLiteral("/"), QStringLiteral("com.tolvekserver.Kadrel.Dump"),
                   QStringLiteral("OnArtnetTrigger"), &watch, SLOT(arrived(int, int)))) {
    fputs("trigger_watch: no connection to the bus\n", stderr);
    return 1;
  }
  QTimer::singleShot(static_cast<int>(std::strtol(argv[2], nullptr, 10)) * 1000, &app,
                     &QCoreApplication::quit);
  puts("ready");
  fflush(stdout);
  QCoreApplication::exec();
  for (const TriggerWatch::Arrival& one : watch.all()) {
    printf("%" PRId64 " %d %d\n", one.time, one.key, one.subkey);
  }
  return 0;
}
