#pragma once

#include <benchmark/benchmark.h>

/// Registers the benchmarks of one subject.
void register_parser();
void register_service();
void register_support();

/// Adds a benchmark. With MICRO_ITERATIONS in the environment it runs exactly that often, so that two runs
/// under callgrind differ by a known number of iterations.
benchmark::internal::Benchmark* add(const char* name, void (*run)(benchmark::State&));
