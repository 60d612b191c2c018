#include "src/PollResponder.h"

#include <algorithm>
#include <utility>

PollResponder::Asked PollResponder::ask(const kesto::net::HostAddress& address, int port,
                                        ReplySender& sender) {
  if (universe_count <= 0) return Asked::Taken;
  const auto known = find(address, port);
  if (known != askers.end()) {
    known->again = true;
    return Asked::Taken;
  }
  if (askers.size() >= kAskers) {
    return std::exchange(refusal_known, true) ? Asked::Refused : Asked::FirstRefused;
  }
  // Only when no asker waits: in a flood askers are taken and refused by turns, thousands of times a second,
  // and each refusal would be logged.
  if (askers.empty()) refusal_known = false;
  // To the front: its first replies leave at once, the rest take turns.
  askers.push_front({address, port, 0, false});
  send_turn(kAtOnce, sender);
  return Asked::Taken;
}

PollResponder::Wait PollResponder::send_due(int limit, std::int64_t now, ReplySender& sender) {
  if (askers.empty()) return Wait::NothingDue;
  const bool had_room = send_turn(limit, sender);
  if (!had_room) forget_unreachable(now);
  if (askers.empty()) return Wait::NothingDue;
  return had_room ? Wait::MoreDue : Wait::NoRoom;
}

bool PollResponder::send_turn(int limit, ReplySender& sender) {
  Asker& asker = askers.front();
  for (int i = 0; i < limit && asker.next < universe_count; ++i) {
    if (!sender.has_room()) return false;
    set_port_address(reply, asker.next++);
    sender.send(reply, asker.address, asker.port);
    last_address = asker.address;
    last_port = asker.port;
    full_since.reset();
  }
  if (asker.next >= universe_count && asker.again) {
    asker.next = 0;
    asker.again = false;
  }
  if (asker.next < universe_count) askers.push_back(asker);
  askers.pop_front();
  return true;
}

void PollResponder::forget_unreachable(std::int64_t now) {
  if (!full_since) full_since = now;
  if (now - *full_since < kUnreachable) return;
  const auto unreachable = find(last_address, last_port);
  if (unreachable != askers.end()) askers.erase(unreachable);
}

std::deque<PollResponder::Asker>::iterator PollResponder::find(const kesto::net::HostAddress& address,
                                                               int port) {
  return std::find_if(askers.begin(), askers.end(),
                      [&](const Asker& asker) { return asker.port == port && asker.address == address; });
}
