#include <algorithm>

#include "kesto/logger.h"
#include "src/Dump.h"
#include "src/NodeMessages.h"

// Nodes entered by hand. All on the main thread.

std::vector<ArtnetNode>::iterator Dump::find_manual_node(qint32 id) {
  if (id < 0) return manual_nodes.end();
  return std::find_if(manual_nodes.begin(), manual_nodes.end(),
                      [id](const ArtnetNode& node) { return node.id == id; });
}

bool Dump::init_manual_nodes(const std::vector<ArtnetNode>& nodes) {
  if (!manual_nodes.empty()) return false;
  if (std::any_of(nodes.begin(), nodes.end(), [](const ArtnetNode& node) { return node.id < 0; }))
    return false;
  const QString message = appeared_entries(nodes);
  KESTO_LOG(3, "[Dump::init_manual_nodes] Emitting OnArtnetNodesUpdated signal");
  emit OnArtnetNodesUpdated(message);
  manual_nodes = nodes;
  return true;
}

bool Dump::add_manual_node(const ArtnetNode& node) {
  if (node.id < 0 || find_manual_node(node.id) != manual_nodes.end()) return false;
  const QString message = appeared_entry(node);
  KESTO_LOG(3, "[Dump::add_manual_node] Emitting OnArtnetNodesUpdated signal");
  emit OnArtnetNodesUpdated(message);
  manual_nodes.push_back(node);
  return true;
}

bool Dump::update_manual_node(const ArtnetNode& node) {
  const auto found = find_manual_node(node.id);
  if (found == manual_nodes.end()) return false;
  const QString message = changed_entry(*found, node);
  KESTO_LOG(3, "[Dump::update_manual_node] Emitting OnArtnetNodesUpdated signal");
  emit OnArtnetNodesUpdated(message);
  *found = node;  // the id is the same
  return true;
}

bool Dump::remove_manual_node(int id) {
  const auto found = find_manual_node(id);
  if (found == manual_nodes.end()) return false;
  const QString message = vanished_entry(*found);
  KESTO_LOG(3, "[Dump::remove_manual_node] Emitting OnArtnetNodesUpdated signal");
  emit OnArtnetNodesUpdated(message);
  manual_nodes.erase(found);
  return true;
}

void Dump::remove_all_manual_nodes() {
  const QString message = vanished_entries(manual_nodes);
  KESTO_LOG(3, "[Dump::remove_all_manual_nodes] Emitting OnArtnetNodesUpdated signal");
  emit OnArtnetNodesUpdated(message);
  manual_nodes.clear();
}
