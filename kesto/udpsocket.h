#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kesto::net {

/// IPv4 address as dotted-decimal text, for example 192.168.1.20. Any other text is held, too, but not sent
/// to. An address is kept as a number; its text is made by text().
class HostAddress {
public:
  HostAddress() = default;
  // Implicit on purpose: an address is its text.
  HostAddress(std::string text);  // NOLINT(google-explicit-constructor)
  HostAddress(const char* text)
      : HostAddress(std::string(text != nullptr ? text : "")) {}  // NOLINT(google-explicit-constructor)

  /// @param number  in network byte order
  static HostAddress from_ipv4(std::uint32_t number);

  /// Becomes the address @p new_number, in network byte order.
  void set_ipv4(std::uint32_t new_number) {
    is_number = true;
    number = new_number;
    other_text.clear();
  }

  std::string text() const;
  bool empty() const { return !is_number && other_text.empty(); }

  /// Number of the address in network byte order. @return false when the text is no IPv4 address
  bool ipv4(std::uint32_t& result) const;

  friend bool operator==(const HostAddress& a, const HostAddress& b) {
    // A text is held as a number only when it is the text of that number, so the two kinds are never equal.
    if (a.is_number != b.is_number) return false;
    return a.is_number ? a.number == b.number : a.other_text == b.other_text;
  }
  friend bool operator!=(const HostAddress& a, const HostAddress& b) { return !(a == b); }

private:
  bool is_number = false;
  std::uint32_t number = 0;  // network byte order
  std::string other_text;    // when it is no number
};

/// One received datagram.
struct Datagram {
  std::string_view bytes;  // the socket's memory, valid until it receives or waits again
  HostAddress sender_address;
  int sender_port = 0;
  std::int64_t rx_time = 0;  // ns on kesto::Clock
  bool stamped = false;  // rx_time is the arrival as the kernel saw it; otherwise the datagram was read then

  /// What the kernel had thrown away, because the socket's buffer was full, before this datagram was queued;
  /// modulo 2^32. A datagram whose checksum is wrong counts, too.
  std::uint32_t kernel_drops = 0;
};

/// Thin non-blocking IPv4 UDP socket with broadcast allowed, created by the first operation that needs it.
///
/// Datagrams are fetched from the kernel in batches and kept in order until they are read. A caller sees no
/// difference from asking the kernel for each. The kernel is asked to tell when each arrived and how many it
/// dropped; where it refuses, all else works.
///
/// Every operation reports failure by its result and leaves errno as the failing call set it; nothing throws
/// or logs.
///
/// No lock. One thread makes all calls that create the socket or look at datagrams: initialize, bind,
/// hasPendingDatagrams, hasFetchedDatagrams, pendingDatagramSize, readDatagram, takeDatagram,
/// select_with_tm and waitForReadyRead; the const ones among them fetch, too. Once initialize() or bind()
/// has succeeded, other threads may call writeDatagram, sendBufferIsBelow, kernelDrops and wake at the same
/// time, also while that thread waits, and select_with_tm for writing.
class UdpSocket {
public:
  /// Datagrams of this size and beyond count as too long.
  static constexpr std::size_t kSizeLimit = 8192;

  UdpSocket();
  ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;
  UdpSocket(UdpSocket&&) = delete;
  UdpSocket& operator=(UdpSocket&&) = delete;

  /// Creates the socket unless it exists. @return true when it is ready.
  bool initialize();

  /// Binds to the wildcard address, the only one accepted: any text but "0.0.0.0" gives false and binds
  /// nothing.
  bool bind(const HostAddress& address, int port);
  bool bind(int port);

  /// True when a datagram waits. Creates no socket.
  bool hasPendingDatagrams() const;

  /// True when a datagram has been fetched already. Never asks the kernel.
  bool hasFetchedDatagrams() const;

  /// Size of the datagram at the head of the queue, which stays queued. Creates no socket.
  /// @return bytes (below kSizeLimit), or -1 when nothing waits, the peek fails, or the datagram is too long.
  std::int64_t pendingDatagramSize() const;

  /// Takes one datagram from the queue; bytes beyond @p maxSize are lost. With @p maxSize 0 it is discarded
  /// whole.
  /// @param address, port  sender, written when not null; "0.0.0.0" and 0 when the receive failed.
  /// @return bytes, or -1; with @p maxSize 0: 0 for success; 0 as well when the socket cannot be created.
  std::int64_t readDatagram(char* data, unsigned int maxSize, HostAddress* address, int* port);

  /// Takes one datagram from the queue without a copy, with its time of arrival if the kernel tells it.
  /// @return false when there is none; @p datagram stays as it is
  bool takeDatagram(Datagram& datagram);

  /// Sends one datagram, without a retry. @return bytes sent, or -1 (errno EINVAL when @p address is no IPv4
  /// address).
  std::int64_t writeDatagram(const char* data, unsigned int size, const HostAddress& address, int port);

  /// True while the sent datagrams that have not left yet take less than @p percent of the send buffer. The
  /// kernel accepts a datagram of any size while they take less than all of it. Creates no socket: true when
  /// there is none.
  bool sendBufferIsBelow(int percent) const;

  /// What the kernel has dropped by now, as Datagram::kernel_drops counts it. Creates no socket.
  /// @return nothing when nobody counts
  std::optional<std::uint32_t> kernelDrops() const;

  /// Waits until the socket is readable (@p read) or writable. Creates no socket.
  /// @param timeout_ms  negative: without limit
  /// @return above 0 ready, 0 time-out, -1 error (also without a descriptor that select() can take).
  int select_with_tm(int timeout_ms, bool read) const;

  /// True when a datagram can be read within the time-out.
  bool waitForReadyRead(int timeout_ms);

  /// Ends the present wait and every later one at once, as if a datagram could be read. For the end: the
  /// socket receives nothing more. It must exist.
  void wake() const;

  /// The same as waitForReadyRead(), and why not. Failed: there is no socket to wait for, or the wait failed
  /// (see errno).
  enum class Wait { Ready, TimeOut, Interrupted, Failed };
  Wait waitFor(int timeout_ms);

private:
  struct Batch;

  /// Makes the socket. @return false when a step of it failed
  bool create();

  /// Fetches waiting datagrams, unless some of the last batch are left. @return false when there is none (see
  /// errno).
  bool fetch() const;

  // Constant once the socket is there.
  std::int32_t fd = -1;
  bool initialized = false;
  int send_buffer_size = 0;  // bytes, as SO_SNDBUF says
  bool counts_drops = false;

  std::unique_ptr<Batch> batch;  // made with the socket
};

}  // namespace kesto::net
