#pragma once

#include <QString>
#include <vector>

#include "src/ArtnetNode.h"
#include "src/DetectedNode.h"

/// Texts about nodes. A node-update message consists of entries "1:universe:ip:port" (a node appeared) and
/// "0:universe:ip:port" (a node went away); the separators depend on the operation.

/// One entry, without a separator.
QString appeared_entry(const ArtnetNode& node);
QString vanished_entry(const ArtnetNode& node);

/// One entry per node in list order, each followed by ";"; empty for an empty list.
QString appeared_entries(const std::vector<ArtnetNode>& nodes);
QString appeared_entries(const DetectedNodes& nodes);
QString vanished_entries(const std::vector<ArtnetNode>& nodes);
QString vanished_entries(const DetectedNodes& nodes);

/// Old state, ";", new state.
QString changed_entry(const ArtnetNode& before, const ArtnetNode& after);

/// JSON text of a node list; names are not escaped.
QString nodes_json(const DetectedNodes& nodes);
