#include "src/ManualNodes.h"

#include <algorithm>

#include "src/NodeMessages.h"

std::optional<QString> ManualNodes::init(const std::vector<ArtnetNode>& nodes) {
  if (!manual_nodes.empty()) return std::nullopt;
  if (std::any_of(nodes.begin(), nodes.end(), [](const ArtnetNode& node) { return node.id < 0; }))
    return std::nullopt;
  manual_nodes = nodes;
  return appeared_entries(nodes);
}

std::optional<QString> ManualNodes::add(const ArtnetNode& node) {
  if (node.id < 0 || find(node.id) != manual_nodes.end()) return std::nullopt;
  manual_nodes.push_back(node);
  return appeared_entry(node);
}

std::optional<QString> ManualNodes::update(const ArtnetNode& node) {
  const auto found = find(node.id);
  if (found == manual_nodes.end()) return std::nullopt;
  QString message = changed_entry(*found, node);
  *found = node;
  return message;
}

std::optional<QString> ManualNodes::remove(qint32 id) {
  const auto found = find(id);
  if (found == manual_nodes.end()) return std::nullopt;
  QString message = vanished_entry(*found);
  manual_nodes.erase(found);
  return message;
}

QString ManualNodes::remove_all() {
  QString message = vanished_entries(manual_nodes);
  manual_nodes.clear();
  return message;
}

std::vector<ArtnetNode>::iterator ManualNodes::find(qint32 id) {
  return std::find_if(manual_nodes.begin(), manual_nodes.end(),
                      [id](const ArtnetNode& node) { return node.id == id; });
}
