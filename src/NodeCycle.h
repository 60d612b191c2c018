#pragma once

#include <QString>
#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "src/DetectedNode.h"

/// The nodes of a detection cycle, compared with the cycle before.
///
/// Replies can be forged, so the cost of a reply grows only with the logarithm of the known nodes: look-ups
/// go by order, not by hash, and a node that answers again is marked, not moved.
///
/// No lock of its own: the caller holds a mutex.
class NodeCycle {
public:
  /// Most nodes of the cycle before and new nodes together: one for every port-address.
  static constexpr std::size_t kLimit = kUniverseLimit;

  enum class Intake {
    New,             // not in the list of the cycle before
    SeenAgain,       // in that list, first answer in this cycle
    Duplicate,       // has answered in this cycle already
    FirstOverLimit,  // new, but no room: the first such node of this cycle
    OverLimit,       // every further one
  };

  /// End of a cycle.
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

  /// Starts a cycle: no node has answered yet.
  void begin();

  /// A node has answered. Before the first begin(), and from conclude() to the next, every node is new.
  Intake take_in(const DetectedNode& node);

  /// The findings of this cycle so far; the cycle goes on.
  Result evaluate() const;

  /// Ends the cycle with the result of evaluate().
  void conclude(const Result& result);

  /// Forgets every node. @return the message about it, empty for an empty list
  QString forget();

  /// The nodes of the last concluded cycle, sorted.
  const std::shared_ptr<const DetectedNodes>& detected_nodes() const { return detected; }

  /// Nodes that are not in the list of the cycle before, in order of arrival.
  DetectedNodes poll_new_nodes() const;
  /// Nodes of that list that have answered, and those that have not; both in its order.
  DetectedNodes poll_seen_nodes() const { return previous_nodes(true); }
  DetectedNodes poll_missing_nodes() const { return previous_nodes(false); }

  /// Whether the current cycle met a new node.
  bool nodes_changed() const { return !arrivals.empty(); }

private:
  DetectedNodes previous_nodes(bool answered_again) const;
  void clear();

  static const std::shared_ptr<const DetectedNodes>& nothing();

  std::shared_ptr<const DetectedNodes> detected = nothing();
  std::shared_ptr<const DetectedNodes> previous = nothing();  // the cycle is compared with these
  std::vector<bool> answered;                                 // for each node of `previous`
  std::set<DetectedNode> new_nodes;
  std::vector<const DetectedNode*> arrivals;  // `new_nodes` in order of arrival
  bool over_limit = false;
};
