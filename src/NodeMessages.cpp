#include "src/NodeMessages.h"

namespace {

QString entry(const QString& format, const ArtnetNode& node) {
  return format.arg(QString::number(node.universe), node.ip, QString::number(node.port));
}

}  // namespace

QString appeared_entry(const ArtnetNode& node) {
  return entry(QStringLiteral("1:%1:%2:%3"), node);
}

QString vanished_entry(const ArtnetNode& node) {
  return entry(QStringLiteral("0:%1:%2:%3"), node);
}

QString appeared_entries(const std::vector<ArtnetNode>& nodes) {
  QString message;
  for (const ArtnetNode& node : nodes) message += appeared_entry(node) + QLatin1Char(';');
  return message;
}

QString vanished_entries(const std::vector<ArtnetNode>& nodes) {
  QString message;
  for (const ArtnetNode& node : nodes) message += vanished_entry(node) + QLatin1Char(';');
  return message;
}

QString changed_entry(const ArtnetNode& before, const ArtnetNode& after) {
  return vanished_entry(before) + QLatin1Char(';') + appeared_entry(after);
}

QString nodes_json(const std::vector<ArtnetNode>& nodes) {
  QString json = QStringLiteral("{ \"nodes\":[");
  for (const ArtnetNode& node : nodes) {
    if (json.endsWith(QLatin1Char('}'))) json += QLatin1Char(',');
    json +=
        QStringLiteral(R"({ "short_name": "%1", "long_name": "%2", "universe": %3, "ip": "%4", "port": %5 })")
            .arg(node.short_name, node.long_name, QString::number(node.universe), node.ip,
                 QString::number(node.port));
  }
  json += QStringLiteral("]}");
  return json;
}

bool is_accepted_port(const ArtPollReply& reply, int index) {
  const unsigned type = reply.port_types[index];
  const unsigned protocol = type & 0x3FU;
  return (type & 0x80U) != 0 && (protocol == 0 || protocol == 5);
}

ArtnetNode node_of_reply(const ArtPollReply& reply, int index) {
  ArtnetNode node{};
  node.id = -1;
  node.short_name = QString::fromLatin1(reply.short_name);
  node.long_name = QString::fromLatin1(reply.long_name);
  const unsigned sub_net = (static_cast<unsigned>(reply.sub_switch) << 4U) & 0xFFU;
  node.universe = static_cast<qint32>((static_cast<unsigned>(reply.net_switch) << 8U) | sub_net |
                                      (reply.sw_out[index] & 0x0FU));
  node.ip = QStringLiteral("%1.%2.%3.%4")
                .arg(QString::number(reply.ip[0]), QString::number(reply.ip[1]), QString::number(reply.ip[2]),
                     QString::number(reply.ip[3]));
  node.port = reply.port;
  return node;
}
