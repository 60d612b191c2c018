#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "artnet/ArtNetParser.h"
#include "kesto/mutex.h"
#include "kesto/udpsocket.h"
#include "src/GuardedState.h"

struct ArtPollRequest;
class NodeDetector;
class PollResponder;
class ServiceReport;
class TriggerQueue;

/// The body of the receive thread: receives and sends everything that goes by UDP.
///
/// It owns the socket and the parser and hands each packet to its part. Receive thread only, but for the
/// construction, kernel_drops(), is_without_port() and stop().
class ReceiveLoop {
public:
  /// The parts that packets go to. They outlive the loop.
  struct Consumers {
    GuardedState& state;
    PollResponder& responder;
    NodeDetector& detector;
    TriggerQueue& triggers;
    ServiceReport& report;
  };

  /// @param device_ip_hex  the appliance's address, 8 hexadecimal digits: datagrams from there are dropped
  ReceiveLoop(const std::string& device_ip_hex, const Consumers& consumers);

  /// Receives on UDP port @p port until stop().
  void listen_incoming_data(int port);

  /// What the kernel has dropped by now for a full receive buffer, modulo 2^32. Any thread.
  /// @return nothing when nobody counts
  std::optional<std::uint32_t> kernel_drops() EXCLUDES(socket_mutex);

  /// Whether the UDP port could not be bound. Any thread.
  bool is_without_port() const { return without_port.load(); }

  /// Ends the loop: at once, or within a second when the port could not be bound. Any thread.
  void stop() EXCLUDES(socket_mutex);

private:
  friend class DumpProbe;

  void set_bound(bool new_bound) EXCLUDES(socket_mutex);

  bool receive_datagram();
  void handle_datagram(GuardedState::Reader& state);
  void serve(const ArtPollRequest& request);

  /// Sends some of the due ArtPollReplies. @return longest wait before the next call, ms
  int send_replies(bool between_datagrams);

  void relay_datagram();

  /// @return whether the whole datagram was parsed without an error
  bool parse_datagram(std::string_view bytes);
  void process_datagram(GuardedState::Reader& state);

  // One for each kind of packet.
  void process_art_poll(const ArtPoll& poll);
  void process_art_poll_reply(const ArtPollReply& reply);
  void process_artnet_trigger(const ArtTrigger& trigger);
  void process_artnet_trigger_dmx(const ArtDmx& dmx);
  void unknown_packet(const ArtHeader& header) const;
  void packet_error(std::error_code ec) const;

  void wire_parser();
  template <auto method>
  auto own_packets();

  // Constant after construction.
  const kesto::net::HostAddress loopback = "127.0.0.1";
  const kesto::net::HostAddress this_device_ip;
  const Consumers parts;

  std::atomic<bool> running{true};
  std::atomic<bool> without_port{false};

  // Other threads use the socket only while it is sure to be there.
  kesto::Mutex socket_mutex;
  bool bound GUARDED_BY(socket_mutex) = false;

  // Receive thread only, but for the wake-up and the count of drops.
  std::unique_ptr<kesto::net::UdpSocket> socket;
  ArtNetParser parser;
  kesto::net::Datagram datagram;            // the current one
  bool missed_stamp = false;                // a datagram without a time of arrival has been seen
  GuardedState::Reader* guarded = nullptr;  // while the current one is processed
};
