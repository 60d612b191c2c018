#include <algorithm>
#include <cerrno>
#include <limits>

#include "artnet/ArtNetPackets.h"
#include "kesto/device_info.h"
#include "src/Dump.h"

// The answer to an ArtPoll: one ArtPollReply per universe that the recorder offers.

namespace {

// Up to this many universes an ArtPoll is answered on the spot; beyond, the rest follows between the next
// datagrams.
constexpr int kRepliesAtOnce = 64;

// Askers that can wait for the rest of their replies at the same time; a console is one, however often it
// asks.
constexpr std::size_t kPendingAskers = 256;

// What send_poll_replies() says.
constexpr int kNothingDue = std::numeric_limits<int>::max();
constexpr int kSendBufferFull = 1;
constexpr int kMoreDue = 0;

}  // namespace

void Dump::process_art_poll(const ArtPoll& /*poll*/) {
  const qint32 count = universe_count.load();
  if (count <= 0) return;
  const auto asker =
      std::find_if(pending_replies.begin(), pending_replies.end(), [this](const PendingReplies& pending) {
        return pending.port == sender_port && pending.address == sender_address;
      });
  if (asker != pending_replies.end()) {
    ++asker->repeats;
    return;
  }
  if (pending_replies.size() >= kPendingAskers) return;
  // To the front: its first replies leave at once, and the others go on behind it.
  pending_replies.push_front({sender_address, sender_port, 0, count, 0});
  send_poll_replies(kRepliesAtOnce);
}

int Dump::send_poll_replies(int limit) {
  if (pending_replies.empty()) return kNothingDue;
  PendingReplies asker = pending_replies.front();
  ArtPollReply reply = make_art_poll_reply({device_ip_hex, device_mac, kesto::device::oem_id(),
                                            kesto::device::manufacturer_id(), kesto::device::short_name(),
                                            kesto::device::long_name()});
  bool full = false;
  for (int i = 0; i < limit && asker.next < asker.count && !full; ++i) {
    set_port_address(reply, asker.next);
    const auto sent =
        socket->writeDatagram(reinterpret_cast<const char*>(&reply), sizeof reply, asker.address, asker.port);
    // A full send buffer empties by itself: go on from here. Any other failure concerns this one reply.
    full = sent == -1 && errno == EAGAIN;
    if (!full) ++asker.next;
  }
  if (full) {
    pending_replies.front() = asker;
    return kSendBufferFull;
  }
  // Askers take turns.
  pending_replies.pop_front();
  if (asker.next >= asker.count && asker.repeats > 0) {
    --asker.repeats;
    asker.next = 0;
  }
  if (asker.next < asker.count) pending_replies.push_back(asker);
  return pending_replies.empty() ? kNothingDue : kMoreDue;
}
