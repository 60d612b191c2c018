#include "src/NodeMessages.h"

namespace {

QString entry(const QString& format, const ArtnetNode& node) {
  return format.arg(QString::number(node.universe), node.ip, QString::number(node.port));
}

const ArtnetNode& record_of(const ArtnetNode& node) {
  return node;
}

ArtnetNode record_of(const DetectedNode& node) {
  return node.record();
}

template <typename Node>
QString entries(QString (*entry_of)(const ArtnetNode&), const std::vector<Node>& nodes) {
  QString message;
  for (const Node& node : nodes) message += entry_of(record_of(node)) + QLatin1Char(';');
  return message;
}

}  // namespace

QString appeared_entry(const ArtnetNode& node) {
  return entry(QStringLiteral("1:%1:%2:%3"), node);
}

QString vanished_entry(const ArtnetNode& node) {
  return entry(QStringLiteral("0:%1:%2:%3"), node);
}

QString appeared_entries(const std::vector<ArtnetNode>& nodes) {
  return entries(&appeared_entry, nodes);
}

QString appeared_entries(const DetectedNodes& nodes) {
  return entries(&appeared_entry, nodes);
}

QString vanished_entries(const std::vector<ArtnetNode>& nodes) {
  return entries(&vanished_entry, nodes);
}

QString vanished_entries(const DetectedNodes& nodes) {
  return entries(&vanished_entry, nodes);
}

QString changed_entry(const ArtnetNode& before, const ArtnetNode& after) {
  return vanished_entry(before) + QLatin1Char(';') + appeared_entry(after);
}

QString nodes_json(const DetectedNodes& nodes) {
  QString json = QStringLiteral("{ \"nodes\":[");
  for (const DetectedNode& each : nodes) {
    const ArtnetNode node = each.record();
    if (json.endsWith(QLatin1Char('}'))) json += QLatin1Char(',');
    json +=
        QStringLiteral(R"({ "short_name": "%1", "long_name": "%2", "universe": %3, "ip": "%4", "port": %5 })")
            .arg(node.short_name, node.long_name, QString::number(node.universe), node.ip,
                 QString::number(node.port));
  }
  json += QStringLiteral("]}");
  return json;
}
