#include "tools/JsonText.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>

namespace kadrel_cue {

std::string json_string(const std::string& text) {
  // The blank keeps Qt from removing a byte order mark at the front.
  const QString decoded = QString::fromStdString(" " + text).mid(1);
  const QByteArray list = QJsonDocument(QJsonArray{decoded}).toJson(QJsonDocument::Compact);
  return list.mid(1, list.size() - 2).toStdString();
}

}  // namespace kadrel_cue
