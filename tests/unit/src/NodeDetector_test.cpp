#include "src/NodeDetector.h"

#include <gtest/gtest.h>

#include <QString>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "artnet/ArtNetPackets.h"
#include "kesto/device_info.h"
#include "kesto/logger.h"
#include "unit/src/replies.h"

namespace {

bool no_thread_to_be_had = false;

}  // namespace

// std::thread::_M_start_thread(), the one step of std::thread that can fail. The state is a std::unique_ptr
// to a private type, which is passed by its address.
extern "C" {
void __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* thread, void* state, void (*depend)());
void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* thread, void* state, void (*depend)()) {
  if (no_thread_to_be_had)
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
  __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(thread, state,
                                                                                               depend);
}
}

/// What only the polling thread and the receive thread see.
class NodeDetectorProbe {
public:
  static bool request_waits(const NodeDetector& detector) { return !detector.artpoll_request_done; }
  static kesto::Mutex& poll_mutex(NodeDetector& detector) { return detector.poll_mutex; }
};

namespace {

using Texts = std::vector<std::string>;

constexpr std::chrono::hours kForEver(1);
constexpr NodeDetector::Waits kShortest{std::chrono::milliseconds(0), std::chrono::milliseconds(1)};

void wait_until(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    std::this_thread::yield();
  }
}

/// The detector with a test in place of the receive thread and the bus. A cycle waits until its ArtPoll is
/// taken: replies until then belong to it. Then it is evaluated at once.
class NodeDetectorTest : public testing::Test {
protected:
  NodeDetectorTest() { kesto::Logger::instance()->setOutput(kesto::Logger::None); }

  void await_cycle() {
    wait_until([this] { return NodeDetectorProbe::request_waits(detector); });
  }

  /// The current cycle, in which these replies come. It has ended when the next one begins.
  void run_cycle(const std::vector<ArtPollReply>& received) {
    await_cycle();
    for (const ArtPollReply& reply : received) detector.process_art_poll_reply(reply);
    ASSERT_TRUE(detector.take_request());
  }

  /// Messages since the last call.
  Texts messages() {
    const kesto::MutexLock lock(mutex);
    return std::move(heard);
  }

  std::string nodes() { return detector.get_detected_nodes().toStdString(); }

  static std::string json(int universe, const char* ip) {
    return R"({ "short_name": "node", "long_name": "", "universe": )" + std::to_string(universe) +
           R"(, "ip": ")" + ip + R"(", "port": 6454 })";
  }

  void listen_to(ArtnetNodesUpdatedObject& updates) {
    QObject::connect(&updates, &ArtnetNodesUpdatedObject::OnArtnetNodesUpdated, [this](const QString& text) {
      const kesto::MutexLock lock(mutex);
      heard.push_back(text.toStdString());
    });
  }

  kesto::Mutex mutex;
  Texts heard;
  NodeDetector detector{[this](ArtnetNodesUpdatedObject& updates) { listen_to(updates); }, kShortest};
};

const std::string kNoNodes = R"({ "nodes":[]})";

TEST_F(NodeDetectorTest, IsAutomaticAtFirstAndRefusesRequestsAndRemoval) {
  EXPECT_FALSE(detector.request_node_detection());
  EXPECT_FALSE(detector.node_detection_request_pending());
  EXPECT_FALSE(detector.remove_detected_nodes().has_value());
  EXPECT_EQ(nodes(), kNoNodes);
}

TEST_F(NodeDetectorTest, KeepsItsModeWhileARequestIsPending) {
  EXPECT_TRUE(detector.set_automatic_node_detection(false));
  EXPECT_TRUE(detector.request_node_detection());
  EXPECT_TRUE(detector.request_node_detection());
  EXPECT_TRUE(detector.node_detection_request_pending());
  EXPECT_FALSE(detector.set_automatic_node_detection(true));
  EXPECT_FALSE(detector.set_automatic_node_detection(false));
  EXPECT_FALSE(detector.remove_detected_nodes().has_value());
}

TEST_F(NodeDetectorTest, PollsNobodyUntilItIsStarted) {
  EXPECT_FALSE(detector.take_request());
}

TEST_F(NodeDetectorTest, StartsItsThreadOnce) {
  EXPECT_TRUE(detector.start_polling_artnet_nodes("10.0.0.255"));
  EXPECT_FALSE(detector.start_polling_artnet_nodes("10.0.0.255"));
}

TEST_F(NodeDetectorTest, WithoutAThreadToBeHadCanBeAskedAgain) {
  no_thread_to_be_had = true;
  EXPECT_FALSE(detector.start_polling_artnet_nodes("10.0.0.255"));
  EXPECT_FALSE(detector.start_polling_artnet_nodes("10.0.0.255"));
  no_thread_to_be_had = false;
  EXPECT_TRUE(detector.start_polling_artnet_nodes("10.0.0.255"));
}

TEST_F(NodeDetectorTest, AsksForOneArtPollInEachCycle) {
  detector.start_polling_artnet_nodes("10.0.0.255");
  for (int cycle = 0; cycle < 3; ++cycle) {
    await_cycle();
    const auto request = detector.take_request();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->address, "10.0.0.255");
    EXPECT_EQ(request->port, 6454);
    const ArtPoll expected = make_art_poll();
    EXPECT_EQ(memcmp(&request->packet, &expected, sizeof expected), 0);
  }
}

TEST_F(NodeDetectorTest, CutsTheAddressOfTheArtPollToFifteenCharacters) {
  detector.start_polling_artnet_nodes("255.255.255.255.255");
  await_cycle();
  EXPECT_EQ(detector.take_request()->address, "255.255.255.255");
}

TEST_F(NodeDetectorTest, TellsWhatCameAndWhatWentAtTheEndOfEachCycle) {
  detector.start_polling_artnet_nodes("10.0.0.255");
  run_cycle({replies::of(7, {2, 1})});
  await_cycle();
  EXPECT_EQ(messages(), Texts{"1:2:10.0.0.7:6454;1:1:10.0.0.7:6454;"});
  EXPECT_EQ(nodes(), R"({ "nodes":[)" + json(1, "10.0.0.7") + "," + json(2, "10.0.0.7") + "]}");
  run_cycle({replies::of(7, {2, 1})});
  await_cycle();
  EXPECT_EQ(messages(), Texts{});
  run_cycle({replies::of(8, {3}), replies::of(7, {1})});
  await_cycle();
  EXPECT_EQ(messages(), Texts{"1:3:10.0.0.8:6454;0:2:10.0.0.7:6454;"});
  run_cycle({});
  await_cycle();
  EXPECT_EQ(messages(), Texts{"0:1:10.0.0.7:6454;0:3:10.0.0.8:6454;"});
  EXPECT_EQ(nodes(), kNoNodes);
}

TEST_F(NodeDetectorTest, TakesInNoReplyOfThisDeviceAndNoPortThatPutsNothingOut) {
  ArtPollReply own = replies::of(1, {1});
  own.esta_man = kesto::device::manufacturer_id();
  own.oem = kesto::device::oem_id();
  ArtPollReply same_maker = replies::of(2, {2});
  same_maker.esta_man = kesto::device::manufacturer_id();
  ArtPollReply same_oem = replies::of(3, {3});
  same_oem.oem = kesto::device::oem_id();
  ArtPollReply no_ports = replies::of(4, {4});
  no_ports.num_ports = 0;
  ArtPollReply five_ports = replies::of(5, {5, 6, 7, 8});
  five_ports.num_ports = 5;
  ArtPollReply kinds = replies::of(6, {9, 10, 11, 12});
  kinds.port_types[0] = 0x80;
  kinds.port_types[1] = 0x40;
  kinds.port_types[2] = 0x81;
  detector.start_polling_artnet_nodes("10.0.0.255");
  run_cycle({own, same_maker, same_oem, no_ports, five_ports, kinds});
  await_cycle();
  EXPECT_EQ(messages(), Texts{"1:2:10.0.0.2:6454;1:3:10.0.0.3:6454;1:9:10.0.0.6:6454;1:12:10.0.0.6:6454;"});
}

TEST_F(NodeDetectorTest, DropsAReplyRatherThanWaitForTheLists) {
  detector.start_polling_artnet_nodes("10.0.0.255");
  await_cycle();
  {
    const kesto::MutexLock lock(NodeDetectorProbe::poll_mutex(detector));
    std::thread([this] { detector.process_art_poll_reply(replies::of(1, {1})); }).join();
  }
  run_cycle({replies::of(2, {2})});
  await_cycle();
  EXPECT_EQ(messages(), Texts{"1:2:10.0.0.2:6454;"});
}

TEST_F(NodeDetectorTest, RunsOneCycleForARequest) {
  detector.set_automatic_node_detection(false);
  detector.request_node_detection();
  detector.start_polling_artnet_nodes("10.0.0.255");
  run_cycle({replies::of(7, {1})});
  wait_until([this] { return !detector.node_detection_request_pending(); });
  EXPECT_EQ(messages(), Texts{"1:1:10.0.0.7:6454;"});
  EXPECT_EQ(detector.remove_detected_nodes().value_or(QStringLiteral("refused")).toStdString(),
            "0:1:10.0.0.7:6454;");
  EXPECT_EQ(nodes(), kNoNodes);
  EXPECT_EQ(detector.remove_detected_nodes().value_or(QStringLiteral("refused")).toStdString(), "");
}

TEST_F(NodeDetectorTest, DiscardsACycleInWhichAutomaticDetectionIsSwitchedOff) {
  detector.start_polling_artnet_nodes("10.0.0.255");
  await_cycle();
  detector.set_automatic_node_detection(false);
  // The request comes too late for this cycle and begins another.
  detector.request_node_detection();
  run_cycle({replies::of(7, {1})});
  run_cycle({replies::of(8, {2})});
  wait_until([this] { return !detector.node_detection_request_pending(); });
  EXPECT_EQ(messages(), Texts{"1:2:10.0.0.8:6454;"});
  EXPECT_EQ(nodes(), R"({ "nodes":[)" + json(2, "10.0.0.8") + "]}");
}

TEST_F(NodeDetectorTest, SeesKnownNodesAgainWhenForgedRepliesHaveFilledTheList) {
  detector.start_polling_artnet_nodes("10.0.0.255");
  run_cycle({replies::of(7, {1})});
  await_cycle();
  messages();
  for (std::uint32_t number = 0; number < NodeCycle::kLimit + 10; ++number)
    detector.process_art_poll_reply(replies::forged(number));
  run_cycle({replies::of(7, {1})});
  await_cycle();
  const Texts told = messages();
  ASSERT_EQ(told.size(), 1U);
  EXPECT_EQ(told[0].substr(0, 2), "1:");
  EXPECT_EQ(told[0].find(";0:"), std::string::npos) << "nobody is missing";
  EXPECT_EQ(std::count(told[0].begin(), told[0].end(), ';'), NodeCycle::kLimit - 1);
}

// The end.

TEST_F(NodeDetectorTest, EndsWhileItsArtPollWaitsToBeSent) {
  detector.start_polling_artnet_nodes("10.0.0.255");
  await_cycle();
  detector.process_art_poll_reply(replies::of(7, {1}));
  detector.stop();
  EXPECT_EQ(messages(), Texts{});
}

TEST_F(NodeDetectorTest, EndsWithoutHavingBeenStarted) {
  detector.stop();
  detector.stop();
}

TEST_F(NodeDetectorTest, EndsWhileItCollectsRepliesAndNobodyHearsOfThem) {
  NodeDetector collecting([this](ArtnetNodesUpdatedObject& updates) { listen_to(updates); },
                          {kForEver, kForEver});
  collecting.start_polling_artnet_nodes("10.0.0.255");
  wait_until([&] { return NodeDetectorProbe::request_waits(collecting); });
  ASSERT_TRUE(collecting.take_request());
  collecting.process_art_poll_reply(replies::of(7, {1}));
  collecting.stop();
  EXPECT_EQ(messages(), Texts{});
}

TEST_F(NodeDetectorTest, EndsWhileItIsIdle) {
  NodeDetector idle([this](ArtnetNodesUpdatedObject& updates) { listen_to(updates); }, {kForEver, kForEver});
  idle.set_automatic_node_detection(false);
  idle.start_polling_artnet_nodes("10.0.0.255");
}

}  // namespace
