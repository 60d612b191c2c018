#include "src/ArtnetNode.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServer>
#include <QDBusVirtualObject>
#include <QEventLoop>
#include <QSequentialIterable>
#include <algorithm>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "unit/support/child.h"

namespace {

using Limits = std::numeric_limits<qint32>;

ArtnetNode node(qint32 id, const char* short_name, const char* long_name, qint32 universe, const char* ip,
                qint32 port) {
  return {id,       QString::fromUtf8(short_name), QString::fromUtf8(long_name),
          universe, QString::fromUtf8(ip),         port};
}

/// All six fields as one text.
std::string text(const ArtnetNode& n) {
  return std::to_string(n.id) + '|' + n.short_name.toStdString() + '|' + n.long_name.toStdString() + '|' +
         std::to_string(n.universe) + '|' + n.ip.toStdString() + '|' + std::to_string(n.port);
}

std::vector<std::string> texts(const std::vector<ArtnetNode>& nodes) {
  std::vector<std::string> result;
  result.reserve(nodes.size());
  for (const ArtnetNode& each : nodes) result.push_back(text(each));
  return result;
}

const ArtnetNode& base() {
  static const ArtnetNode value = node(3, "short", "long", 5, "10.0.0.9", 6454);
  return value;
}

/// Whether @p a precedes @p b, and nothing else.
void expect_before(const ArtnetNode& a, const ArtnetNode& b) {
  EXPECT_TRUE(a < b) << text(a) << " and " << text(b);
  EXPECT_FALSE(b < a) << text(a) << " and " << text(b);
  EXPECT_FALSE(a == b) << text(a) << " and " << text(b);
  EXPECT_TRUE(a != b) << text(a) << " and " << text(b);
}

TEST(ArtnetNode, StartsWithEmptyTexts) {
  const ArtnetNode empty{};
  EXPECT_EQ(text(empty), "0|||0||0");
}

TEST(ArtnetNode, IsEqualToOneThatDiffersInItsIdOnly) {
  ArtnetNode other = base();
  other.id = 7;
  EXPECT_TRUE(base() == other);
  EXPECT_FALSE(base() != other);
  EXPECT_FALSE(base() < other);
  EXPECT_FALSE(other < base());
}

TEST(ArtnetNode, DiffersByEachOtherField) {
  const std::vector<ArtnetNode> others{
      node(3, "Short", "long", 5, "10.0.0.9", 6454), node(3, "short", "longer", 5, "10.0.0.9", 6454),
      node(3, "short", "long", 6, "10.0.0.9", 6454), node(3, "short", "long", 5, "10.0.0.09", 6454),
      node(3, "short", "long", 5, "10.0.0.9", 6455), node(3, "long", "short", 5, "10.0.0.9", 6454)};
  for (const ArtnetNode& other : others) {
    EXPECT_FALSE(base() == other) << text(other);
    EXPECT_TRUE(base() != other) << text(other);
    EXPECT_NE(base() < other, other < base()) << text(other);
  }
}

TEST(ArtnetNode, IsOrderedByUniverseAsASignedNumber) {
  expect_before(node(0, "z", "z", 1, "99.0.0.1", 9), node(0, "a", "a", 2, "10.0.0.1", 1));
  expect_before(node(0, "z", "z", -1, "99.0.0.1", 9), node(0, "a", "a", 0, "10.0.0.1", 1));
  expect_before(node(0, "", "", Limits::min(), "", 0), node(0, "", "", Limits::max(), "", 0));
}

TEST(ArtnetNode, IsOrderedByAddressAsTextNext) {
  expect_before(node(0, "z", "z", 5, "192.168.0.100", 9), node(0, "a", "a", 5, "192.168.0.20", 1));
  expect_before(node(0, "z", "z", 5, "10.0.0.10", 9), node(0, "a", "a", 5, "10.0.0.2", 1));
  expect_before(node(0, "z", "z", 5, "", 9), node(0, "a", "a", 5, "0", 1));
}

TEST(ArtnetNode, IsOrderedByPortNext) {
  expect_before(node(0, "z", "z", 5, "10.0.0.9", 999), node(0, "a", "a", 5, "10.0.0.9", 1000));
  expect_before(node(0, "z", "z", 5, "10.0.0.9", -1), node(0, "a", "a", 5, "10.0.0.9", 0));
}

TEST(ArtnetNode, IsOrderedByShortNameThenLongName) {
  expect_before(node(0, "B", "z", 5, "10.0.0.9", 1), node(0, "a", "a", 5, "10.0.0.9", 1));
  expect_before(node(0, "a", "z", 5, "10.0.0.9", 1), node(0, "Ä", "a", 5, "10.0.0.9", 1));
  expect_before(node(0, "a", "Z", 5, "10.0.0.9", 1), node(0, "a", "a", 5, "10.0.0.9", 1));
  expect_before(node(0, "a", "", 5, "10.0.0.9", 1), node(0, "a", "a", 5, "10.0.0.9", 1));
}

TEST(ArtnetNode, OrderAndEqualityAgreeForEveryPair) {
  std::vector<ArtnetNode> nodes;
  for (const qint32 universe : {-1, 0, 1}) {
    for (const char* const ip : {"10.0.0.10", "10.0.0.2"}) {
      for (const qint32 port : {1, 6454}) {
        for (const char* const short_name : {"", "a"}) {
          for (const char* const long_name : {"", "a"})
            nodes.push_back(node(0, short_name, long_name, universe, ip, port));
        }
      }
    }
  }
  // The list was made in ascending order.
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    for (std::size_t j = 0; j < nodes.size(); ++j) {
      nodes[i].id = static_cast<qint32>(100 - i);
      ASSERT_EQ(nodes[i] < nodes[j], i < j) << i << ' ' << j;
      ASSERT_EQ(nodes[i] == nodes[j], i == j) << i << ' ' << j;
    }
  }
  const std::vector<std::string> ascending = texts(nodes);
  std::shuffle(nodes.begin(), nodes.end(), std::mt19937(1));
  std::sort(nodes.begin(), nodes.end());
  EXPECT_EQ(texts(nodes), ascending);
}

TEST(ArtnetNode, IsRegisteredUnderItsNameAndSignature) {
  register_node_types();
  register_node_types();
  EXPECT_EQ(QMetaType::type("ArtnetNode"), qMetaTypeId<ArtnetNode>());
  EXPECT_EQ(QMetaType::type("std::vector<ArtnetNode>"), qMetaTypeId<std::vector<ArtnetNode>>());
  EXPECT_STREQ(QDBusMetaType::typeToSignature(qMetaTypeId<ArtnetNode>()), "(issisi)");
  EXPECT_STREQ(QDBusMetaType::typeToSignature(qMetaTypeId<std::vector<ArtnetNode>>()), "a(issisi)");
}

TEST(ArtnetNode, ListIsAnIterableSequence) {
  register_node_types();
  const std::vector<ArtnetNode> nodes{node(1, "a", "A", 1, "b", 2), node(2, "c", "C", 3, "d", 4)};
  const QVariant variant = QVariant::fromValue(nodes);
  ASSERT_TRUE(variant.canConvert<QVariantList>());
  std::vector<ArtnetNode> walked;
  for (const QVariant& element : variant.value<QSequentialIterable>())
    walked.push_back(element.value<ArtnetNode>());
  EXPECT_EQ(texts(walked), texts(nodes));
}

/// An argument of a message. Marshalled here, because the framework's own thread may destroy an unmarshalled
/// one, and the thread sanitizer does not see that this thread is done with it.
template <typename Value>
QVariant marshalled(const Value& value) {
  QDBusArgument argument;
  argument << value;
  return QVariant::fromValue(argument);
}

/// Notes the arguments of the one call that it gets, and returns them.
class Echo : public QDBusVirtualObject {
public:
  QString introspect(const QString& /*path*/) const override { return {}; }

  bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
    signature = message.signature().toStdString();
    one = qdbus_cast<ArtnetNode>(message.arguments().at(0));
    many = {one};  // these entries must be gone afterwards
    message.arguments().at(1).value<QDBusArgument>() >> many;
    return connection.send(message.createReply({marshalled(one), marshalled(many)}));
  }

  std::string signature;
  ArtnetNode one{};
  std::vector<ArtnetNode> many;
};

struct Echoed {
  bool answered = false;
  std::string signature_there;
  std::string signature_back;
  ArtnetNode one{};
  std::vector<ArtnetNode> many;
};

/// Sends a node and a list over a D-Bus connection of this process with itself, and takes them back from the
/// reply.
Echoed echo(const ArtnetNode& one, const std::vector<ArtnetNode>& many) {
  register_node_types();
  int argc = 1;
  std::string name = "echo";
  char* argv[] = {name.data(), nullptr};
  const QCoreApplication application(argc, argv);
  Echo object;
  QDBusServer server(QStringLiteral("unix:tmpdir=/tmp"));
  QObject::connect(&server, &QDBusServer::newConnection, &server, [&object](QDBusConnection connection) {
    connection.registerVirtualObject(QStringLiteral("/"), &object);
  });
  const QString peer = QStringLiteral("peer");
  Echoed result;
  {
    QDBusConnection client = QDBusConnection::connectToPeer(server.address(), peer);
    QDBusMessage call = QDBusMessage::createMethodCall({}, QStringLiteral("/"), {}, QStringLiteral("Echo"));
    call << marshalled(one) << marshalled(many);
    QDBusPendingCallWatcher watcher(client.asyncCall(call, 60'000));
    QEventLoop loop;
    QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
    if (!watcher.isFinished()) loop.exec();
    const QDBusPendingReply<ArtnetNode, std::vector<ArtnetNode>> reply = watcher;
    result.answered = !reply.isError();
    if (result.answered) {
      result.signature_back = reply.reply().signature().toStdString();
      result.one = reply.argumentAt<0>();
      result.many = reply.argumentAt<1>();
    } else {
      ADD_FAILURE() << reply.error().message().toStdString();
    }
  }
  QDBusConnection::disconnectFromPeer(peer);
  result.signature_there = object.signature;
  return result;
}

CHILD_SCENARIO(round_trip) {
  const ArtnetNode one =
      node(7, "short \"%1\"", "long Ü \xF0\x9F\x8E\xAC", Limits::max(), "10.0.0.21", Limits::min());
  const std::vector<ArtnetNode> many{node(-1, "", "", -1, "", 0), one,
                                     node(Limits::min(), "b", "B", 0, "a", 65535), one};
  const Echoed echoed = echo(one, many);
  EXPECT_TRUE(echoed.answered);
  EXPECT_EQ(echoed.signature_there, "(issisi)a(issisi)");
  EXPECT_EQ(echoed.signature_back, "(issisi)a(issisi)");
  EXPECT_EQ(text(echoed.one), text(one));
  EXPECT_TRUE(echoed.one == one);
  EXPECT_EQ(texts(echoed.many), texts(many));
}

TEST(ArtnetNode, CrossesTheBusWithAllItsFieldsAndListsInOrder) {
  const unit::Outcome child = unit::run_child("round_trip");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CHILD_SCENARIO(round_trip_of_an_empty_list) {
  const Echoed echoed = echo(base(), {});
  EXPECT_TRUE(echoed.answered);
  EXPECT_EQ(echoed.signature_there, "(issisi)a(issisi)");
  EXPECT_EQ(texts(echoed.many), std::vector<std::string>{});
}

TEST(ArtnetNode, EmptyListCrossesTheBusAsAnEmptyArray) {
  const unit::Outcome child = unit::run_child("round_trip_of_an_empty_list");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

}  // namespace
