#pragma once

#include <QObject>
#include <QString>

/// Relays live on one thread and are emitted from another: the queued connection to the service object lets
/// the event loop send the D-Bus signal from the main thread.

class OnArtnetTriggerObject : public QObject {
  Q_OBJECT
signals:
  void OnArtnetTrigger(int key, int subkey);
};

class ArtnetNodesUpdatedObject : public QObject {
  Q_OBJECT
signals:
  void OnArtnetNodesUpdated(const QString& message);
};
