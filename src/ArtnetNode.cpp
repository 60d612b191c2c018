#include "src/ArtnetNode.h"

#include <QDBusMetaType>
#include <tuple>

bool operator<(const ArtnetNode& a, const ArtnetNode& b) {
  return std::tie(a.universe, a.ip, a.port, a.short_name, a.long_name) <
         std::tie(b.universe, b.ip, b.port, b.short_name, b.long_name);
}

QDBusArgument& operator<<(QDBusArgument& argument, const ArtnetNode& node) {
  argument.beginStructure();
  argument << node.id << node.short_name << node.long_name << node.universe << node.ip << node.port;
  argument.endStructure();
  return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, ArtnetNode& node) {
  argument.beginStructure();
  argument >> node.id >> node.short_name >> node.long_name >> node.universe >> node.ip >> node.port;
  argument.endStructure();
  return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const std::vector<ArtnetNode>& nodes) {
  argument.beginArray(qMetaTypeId<ArtnetNode>());
  for (const ArtnetNode& node : nodes) argument << node;
  argument.endArray();
  return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, std::vector<ArtnetNode>& nodes) {
  nodes.clear();
  argument.beginArray();
  while (!argument.atEnd()) {
    ArtnetNode node{};
    argument >> node;
    nodes.push_back(std::move(node));
  }
  argument.endArray();
  return argument;
}

void register_node_types() {
  static const bool registered = [] {
    qRegisterMetaType<ArtnetNode>("ArtnetNode");
    // Also registers the conversion to a sequential iterable.
    qRegisterMetaType<std::vector<ArtnetNode>>("std::vector<ArtnetNode>");
    qDBusRegisterMetaType<ArtnetNode>();
    qDBusRegisterMetaType<std::vector<ArtnetNode>>();
    return true;
  }();
  Q_UNUSED(registered);
}
