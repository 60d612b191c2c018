#pragma once

#include <QString>
#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "src/DetectedNode.h"

/// The nodes of a detection cycle, compared with those of the cycle before.
///
/// Replies can be forged, so no reply may cost more than the logarithm of what is known: every look-up goes
/// by order, not by a hash, and a node that answers again is marked, not moved.
///
/// Knows nothing of threads: the caller holds a mutex around every call.
class NodeCycle {
public:
  /// Nodes of the cycle before and new ones, together: one for every port-address there is.
  static constexpr std::size_t kLimit = kUniverseLimit;

  enum class Intake {
    New,             // not in the list of the cycle before
    SeenAgain,       // in that list, and the first answer in this cycle
    Duplicate,       // has answered in this cycle
    FirstOverLimit,  // new, and no room for it: the first of this cycle
    OverLimit,       // any further one
  };

  /// How a cycle ends.
  struct Result {
    std::optional<QString> message;              // none when nothing has changed
    std::shared_ptr<const DetectedNodes> nodes;  // the next list, sorted
  };

  NodeCycle() = default;
  NodeCycle(const NodeCycle&) = delete;
  NodeCycle& operator=(const NodeCycle&) = delete;
  NodeCycle(NodeCycle&&) = delete;
  NodeCycle& operator=(NodeCycle&&) = delete;
  ~NodeCycle() = default;

  /// Nobody has answered yet.
  void begin();

  /// A node has answered. Before the first begin(), and after a conclude() until the next, every node is new.
  Intake take_in(const DetectedNode& node);

  /// What this cycle has found; it goes on as if nobody had asked.
  Result evaluate() const;

  /// Ends the cycle with what evaluate() said.
  void conclude(const Result& result);

  /// Forgets every node. @return the message about it, empty for an empty list
  QString forget();

  /// The result of the last cycle that was concluded, sorted.
  const std::shared_ptr<const DetectedNodes>& detected_nodes() const { return detected; }

  /// Not in the list of the cycle before, in order of arrival.
  DetectedNodes poll_new_nodes() const;
  /// In that list and answered, and not answered yet; both in its order.
  DetectedNodes poll_seen_nodes() const { return previous_nodes(true); }
  DetectedNodes poll_missing_nodes() const { return previous_nodes(false); }

  /// Whether the current cycle met a node that the list of the cycle before did not hold.
  bool nodes_changed() const { return !arrivals.empty(); }

private:
  DetectedNodes previous_nodes(bool answered_again) const;
  void clear();

  static const std::shared_ptr<const DetectedNodes>& nothing();

  std::shared_ptr<const DetectedNodes> detected = nothing();
  std::shared_ptr<const DetectedNodes> previous = nothing();  // what the cycle is compared with
  std::vector<bool> answered;                                 // for each node of `previous`
  std::set<DetectedNode> new_nodes;
  std::vector<const DetectedNode*> arrivals;  // `new_nodes` in order of arrival
  bool over_limit = false;
};
