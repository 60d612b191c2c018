#pragma once

#include <QObject>
#include <QString>

/// A worker thread emits from a relay; a queued connection brings the signal to the main thread, which sends
/// it to the bus.

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

/// A recording is complete in its file.
class GrabConcludedObject : public QObject {
  Q_OBJECT
signals:
  void grab_concluded();
};
