#pragma once

#include <memory>
#include <string_view>

#include "bench/micro/packets.h"
#include "src/Dump.h"

/// The service object without its threads. It handles datagrams as the receive thread does after reading
/// them, and adds nothing of its own to what is measured.
class DumpProbe {
public:
  DumpProbe() : dump(new Dump(1, nullptr)) { dump->sender_port = kArtNetPort; }

  Dump* operator->() { return dump.get(); }

  /// Handles a datagram from 10.77.0.2. @param time  receive time, ns
  void receive(const micro::Datagram& datagram, qint64 time) {
    dump->rx_time = time;
    dump->current_datagram = std::string_view(datagram.data(), datagram.size());
    dump->sender_address = sender;
    dump->handle_datagram(own);
  }

  void begin_detection_cycle() { dump->node_detector.begin_detection_cycle(); }
  void evaluate_detection_cycle() {
    ArtnetNodesUpdatedObject updates;
    dump->node_detector.evaluate_detection_cycle(updates);
  }

private:
  std::unique_ptr<Dump> dump;
  const kesto::net::HostAddress own{"10.77.0.1"};
  const kesto::net::HostAddress sender{"10.77.0.2"};
};
