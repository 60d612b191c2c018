#pragma once

#include <QString>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "artnet/ArtNet.h"
#include "kesto/mutex.h"
#include "kesto/thread_annotations.h"
#include "src/DetectedNode.h"
#include "src/NodeCycle.h"
#include "src/SignalRelays.h"

/// An ArtPoll that the polling thread asks the receive thread to send.
struct ArtPollRequest {
  std::string address;  // dotted decimal, at most 15 characters; empty without a network
  qint32 port = 0;
  ArtPoll packet{};
};

/// Node detection: the modes that clients choose, the cycles of the polling thread, the intake of replies.
///
/// Lock order: artpoll_request_mutex, poll_mutex, detected_mutex. The polling thread holds
/// artpoll_request_mutex except while it waits. The receive thread takes it only when a request is there, and
/// never waits for the others.
class NodeDetector {
public:
  struct Waits {
    std::chrono::milliseconds collect;  // for replies, after the ArtPoll
    std::chrono::milliseconds idle;     // between two looks at the modes
  };
  static constexpr Waits kWaits{std::chrono::milliseconds(3000), std::chrono::milliseconds(100)};

  /// Connects the relay to the receiver of its messages. Called at the start of the polling thread, where the
  /// relay lives and emits.
  using ConnectUpdates = std::function<void(ArtnetNodesUpdatedObject&)>;

  explicit NodeDetector(ConnectUpdates connect, Waits durations = kWaits);

  /// Ends the polling thread as stop() does.
  ~NodeDetector();

  NodeDetector(const NodeDetector&) = delete;
  NodeDetector& operator=(const NodeDetector&) = delete;
  NodeDetector(NodeDetector&&) = delete;
  NodeDetector& operator=(NodeDetector&&) = delete;

  // Main thread: the D-Bus methods of the same names.
  bool set_automatic_node_detection(bool enable);
  bool request_node_detection();
  bool node_detection_request_pending();
  /// @param broadcast_ip  where ArtPolls go
  /// @return false when the thread runs already, or cannot be made now (the client may ask again)
  bool start_polling_artnet_nodes(const std::string& broadcast_ip);
  QString get_detected_nodes() EXCLUDES(detected_mutex);
  /// @return the message to emit, or nothing when the modes forbid it. The nodes are forgotten before it goes
  ///         out; no client can tell, because its next call runs only after this one has returned.
  std::optional<QString> remove_detected_nodes() EXCLUDES(poll_mutex, detected_mutex);

  /// Wakes the polling thread wherever it waits, and joins it. Nothing is emitted afterwards. Main thread.
  void stop() EXCLUDES(artpoll_request_mutex);

  // Receive thread.

  /// Takes a reply in, or drops it while the polling thread or remove_detected_nodes() works on the lists.
  void process_art_poll_reply(const ArtPollReply& reply) EXCLUDES(poll_mutex);

  /// Takes the waiting request, if there is one. For a call before every datagram: without a request it costs
  /// one load.
  std::optional<ArtPollRequest> take_request() EXCLUDES(artpoll_request_mutex) {
    if (artpoll_request_done) return std::nullopt;
    return take_waiting_request();
  }

private:
  // They let a test drive single steps without a thread.
  friend class DumpProbe;
  friend class NodeDetectorProbe;

  std::optional<ArtPollRequest> take_waiting_request() EXCLUDES(artpoll_request_mutex);
  void take_in(const DetectedNode& node) REQUIRES(poll_mutex);

  // Polling thread. The two waits return false once the service is ending.
  void poll_artnet_nodes() EXCLUDES(artpoll_request_mutex);
  bool cycle_due();
  bool pause(std::chrono::milliseconds duration) REQUIRES(artpoll_request_mutex);
  void begin_detection_cycle() EXCLUDES(poll_mutex);
  bool send_artpoll() REQUIRES(artpoll_request_mutex);
  void evaluate_detection_cycle(ArtnetNodesUpdatedObject& updates) EXCLUDES(poll_mutex, detected_mutex);

  // Constant after construction.
  const ConnectUpdates connect_updates;
  const Waits waits;

  // Main thread only.
  std::thread poll_thread;

  // Constant while the polling thread runs.
  std::string broadcast_ip;  // dotted decimal

  // Modes: set by the main thread, read and cleared by the polling thread.
  std::atomic<bool> automatic_detection{true};
  std::atomic<bool> detection_requested{false};

  // Polling thread only.
  bool detection_in_progress = false;  // a request began the current cycle

  kesto::Mutex artpoll_request_mutex ACQUIRED_BEFORE(poll_mutex);
  kesto::Mutex poll_mutex ACQUIRED_BEFORE(detected_mutex);
  kesto::Mutex detected_mutex;

  kesto::ConditionVariable artpoll_request_cv;
  bool ending GUARDED_BY(artpoll_request_mutex) = false;
  char artpoll_request_address[16] GUARDED_BY(artpoll_request_mutex) = {};  // zero-terminated
  qint32 artpoll_request_port GUARDED_BY(artpoll_request_mutex) = 0;
  ArtPoll artpoll_request_packet GUARDED_BY(artpoll_request_mutex){};
  // False while a request waits. Written with artpoll_request_mutex held.
  std::atomic<bool> artpoll_request_done{true};

  NodeCycle cycle GUARDED_BY(poll_mutex);

  // For clients: the list of `cycle`. Written with both mutexes held.
  std::shared_ptr<const DetectedNodes> detected_nodes GUARDED_BY(detected_mutex) =
      std::make_shared<const DetectedNodes>();
};
