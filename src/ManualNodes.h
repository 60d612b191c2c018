#pragma once

#include <QString>
#include <optional>
#include <vector>

#include "src/ArtnetNode.h"

/// Nodes entered by hand. The client chooses the key (id) of each. Main thread only.
///
/// Every method that changes the list returns the node-update message to emit, or nothing when it refuses and
/// leaves the list as it is. The list changes before the message goes out; no client can tell, because its
/// next call runs only after this one has returned.
class ManualNodes {
public:
  /// Refuses unless the list is empty and every key is 0 or more. The same key may occur twice.
  std::optional<QString> init(const std::vector<ArtnetNode>& nodes);

  /// Refuses a negative key, and a key that is in the list.
  std::optional<QString> add(const ArtnetNode& node);

  /// Changes the first node with the key of @p node in its place. Refuses a key that is not in the list.
  std::optional<QString> update(const ArtnetNode& node);

  /// Removes the first node with this key. Refuses a key that is not in the list.
  std::optional<QString> remove(qint32 id);

  /// Never refuses; the message about an empty list is empty.
  QString remove_all();

  const std::vector<ArtnetNode>& nodes() const { return manual_nodes; }

private:
  std::vector<ArtnetNode>::iterator find(qint32 id);

  std::vector<ArtnetNode> manual_nodes;  // in order of insertion, no id negative
};
