#pragma once

#include <QCoreApplication>
#include <QObject>
#include <chrono>
#include <cstdint>
#include <vector>

/// Notes every trigger signal with the time of its arrival.
class TriggerWatch : public QObject {
  Q_OBJECT

public:
  struct Arrival {
    std::int64_t time;  // ns, CLOCK_MONOTONIC
    int key;
    int subkey;
  };

  explicit TriggerWatch(std::size_t expected) : wanted(expected) { arrivals.reserve(expected); }

  const std::vector<Arrival>& all() const { return arrivals; }

public slots:
  void arrived(int key, int subkey) {
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    arrivals.push_back({std::chrono::duration_cast<std::chrono::nanoseconds>(time).count(), key, subkey});
    if (arrivals.size() >= wanted) QCoreApplication::quit();
  }

private:
  std::size_t wanted;
  std::vector<Arrival> arrivals;
};
