#include <QCoreApplication>
#include <cstdlib>

#include "bench/micro/micro.h"
#include "kesto/logger.h"

benchmark::internal::Benchmark* add(const char* name, void (*run)(benchmark::State&)) {
  benchmark::internal::Benchmark* const added = benchmark::RegisterBenchmark(name, run);
  const char* const text = std::getenv("MICRO_ITERATIONS");
  if (text != nullptr) added->Iterations(std::strtol(text, nullptr, 10));
  return added;
}

int main(int argc, char** argv) {
  const QCoreApplication app(argc, argv);
  // As the service runs: informational lines are looked at, and written nowhere.
  kesto::Logger::instance()->setLevel(3);
  kesto::Logger::instance()->setOutput(kesto::Logger::None);
  register_parser();
  register_service();
  register_support();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
