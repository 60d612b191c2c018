#pragma once

#include <QDBusArgument>
#include <QMetaType>
#include <QString>
#include <vector>

/// One Art-Net node, found on the network or entered by hand. D-Bus structure (issisi), in field order.
struct ArtnetNode {
  qint32 id;  // key of a manual node, never negative; -1: detected
  QString short_name;
  QString long_name;
  qint32 universe;  // 0-based port-address of an output port; above 32767 when a node sends a Net byte with
                    // bit 7
  QString ip;       // dotted decimal
  qint32 port;      // UDP

  /// Same node: all fields but `id`.
  friend bool operator==(const ArtnetNode& a, const ArtnetNode& b) {
    // Numbers first: they differ between most nodes, and need no look at the memory of a text.
    return a.universe == b.universe && a.port == b.port && a.short_name == b.short_name &&
           a.long_name == b.long_name && a.ip == b.ip;
  }
  friend bool operator!=(const ArtnetNode& a, const ArtnetNode& b) { return !(a == b); }

  /// By universe, address as text (10.0.0.10 before 10.0.0.2), port, short name, long name.
  friend bool operator<(const ArtnetNode& a, const ArtnetNode& b);
};

Q_DECLARE_METATYPE(ArtnetNode)

QDBusArgument& operator<<(QDBusArgument& argument, const ArtnetNode& node);
const QDBusArgument& operator>>(const QDBusArgument& argument, ArtnetNode& node);

/// Array form a(issisi), in list order; reading replaces the list.
QDBusArgument& operator<<(QDBusArgument& argument, const std::vector<ArtnetNode>& nodes);
const QDBusArgument& operator>>(const QDBusArgument& argument, std::vector<ArtnetNode>& nodes);

/// Registers both types with the meta-type system and with D-Bus. Only the first call does anything.
void register_node_types();
