#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QFile>
#include <QTextCodec>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>

#include "kesto/device_info.h"
#include "kesto/logger.h"
#include "tests/fuzz/script.h"
#include "tests/fuzz/service_model.h"
#include "tests/support/DumpProbe.h"

// The whole service object without its threads: datagrams with their senders, D-Bus calls, detection cycles,
// full send buffers and the clock, in any order. After every step its state, its signals and what it sent are
// compared with the model, after every recording the file.
//
// Input: one byte that chooses the announced universes, then steps, each an operation (one byte) and its
// arguments.

namespace {

std::vector<Sent> sent_datagrams;
bool send_buffer_full = false;

}  // namespace

// The linker sends the calls of the socket here: nothing leaves the process. The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" ssize_t __wrap_sendto(int, const void* data, std::size_t size, int, const sockaddr* to,
                                 socklen_t) {
  if (send_buffer_full) {
    errno = EAGAIN;
    return -1;
  }
  const auto* peer = reinterpret_cast<const sockaddr_in*>(to);
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &peer->sin_addr, text, sizeof text);
  sent_datagrams.push_back({text, ntohs(peer->sin_port), std::string(static_cast<const char*>(data), size)});
  return static_cast<ssize_t>(size);
}

extern "C" int __real_ioctl(int fd, unsigned long request, void* value);
extern "C" int __wrap_ioctl(int fd, unsigned long request, void* value) {
  if (request != SIOCOUTQ) return __real_ioctl(fd, request, value);
  *static_cast<int*>(value) = send_buffer_full ? std::numeric_limits<int>::max() : 0;
  return 0;
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

constexpr const char* kOwnAddress = "10.0.0.1";
constexpr const char* kOwnAddressHex = "0a000001";
constexpr const char* kSenders[] = {"10.0.0.2", "10.0.0.3", "127.0.0.2", kOwnAddress, "127.0.0.1"};

struct FileName {
  const char* name;
  bool opens;
  bool takes_data;
};
constexpr FileName kFiles[] = {
    {"cue0", true, true},       {"cue1", true, true},          {"c\xC3\xBC\x65 %n%1\"", true, true},
    {"", false, false},         {"missing/cue", false, false}, {".", false, false},
    {"/dev/full", true, false},
};

/// A directory in memory, with the cues of one input at a time.
void enter_directory() {
  std::string path = "/dev/shm/kadrel-fuzz-XXXXXX";
  REQUIRE(mkdtemp(path.data()) != nullptr);
  REQUIRE(chdir(path.c_str()) == 0);
  static std::string directory;
  directory = path;
  atexit([] { std::filesystem::remove_all(directory); });
}

std::string content_of(const char* name) {
  QFile file(QString::fromUtf8(name));
  REQUIRE(file.open(QIODevice::ReadOnly));
  return file.readAll().toStdString();
}

NodeModel model_of(const ArtnetNode& node) {
  return {node.id,       node.short_name.toStdString(), node.long_name.toStdString(),
          node.universe, node.ip.toStdString(),         node.port};
}

bool same_list(const std::vector<ArtnetNode>& nodes, const std::vector<NodeModel>& expected) {
  return std::equal(nodes.begin(), nodes.end(), expected.begin(), expected.end(),
                    [](const ArtnetNode& node, const NodeModel& model) {
                      const NodeModel mine = model_of(node);
                      return mine.id == model.id && mine.same_node(model);
                    });
}

bool same_content(const std::vector<ArtnetNode>& nodes, const std::vector<NodeModel>& expected) {
  const auto count = [](const auto& list, const NodeModel& node) {
    return std::count_if(list.begin(), list.end(),
                         [&node](const NodeModel& other) { return other.same_node(node); });
  };
  std::vector<NodeModel> mine;
  for (const ArtnetNode& node : nodes) mine.push_back(model_of(node));
  return mine.size() == expected.size() && std::all_of(mine.begin(), mine.end(), [&](const NodeModel& node) {
           return node.id == -1 && count(mine, node) == count(expected, node);
         });
}

/// Whether there is an ArtDmx of at most 512 slots anywhere in a datagram.
bool holds_whole_dmx(const std::string& datagram) {
  static const std::string head("Art-Net\0\x00\x50", 10);
  for (std::size_t at = datagram.find(head); at != std::string::npos; at = datagram.find(head, at + 1)) {
    if (datagram.size() < at + 18) return false;
    const auto byte = [&](std::size_t offset) { return static_cast<std::uint8_t>(datagram[at + offset]); };
    const std::size_t length = byte(16) * 256U + byte(17);
    if (length <= 512 && datagram.size() >= at + 18 + length) return true;
  }
  return false;
}

std::string bytes_of_hex(const std::string& hex, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; 2 * i + 1 < hex.size() && i < size; ++i)
    bytes[i] = static_cast<char>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
  return bytes;
}

class Comparison {
public:
  Comparison(int announced, Script& input)
      : script(input), probe(announced, kOwnAddressHex), model(announced) {
    model.own_ip = bytes_of_hex(kOwnAddressHex, 4);
    model.own_oem = kesto::device::oem_id();
    model.own_manufacturer = kesto::device::manufacturer_id();
    model.short_name = kesto::device::short_name().substr(0, 17);
    model.long_name = kesto::device::long_name().substr(0, 63);
    sent_datagrams.clear();
    send_buffer_full = false;
    QObject::connect(&probe.service(), &Dump::OnArtnetTrigger,
                     [this](int key, int subkey) { triggers.emplace_back(key, subkey); });
    QObject::connect(&probe.service(), &Dump::OnArtnetNodesUpdated,
                     [this](const QString& message) { messages.push_back(message.toStdString()); });
  }

  void run() {
    for (int steps = 0; steps < kSteps && !script.at_end(); ++steps) {
      const int state_before = model.state;
      step();
      compare();
      if (state_before != 0 && model.state == 0) compare_file();
    }
    if (model.state != 0) {
      probe.flush_file();
      compare_file();
    }
  }

private:
  static constexpr int kSteps = 500;

  void step() {
    switch (script.byte() % 24) {
      case 0:
      case 1:
      case 2:
        return receive(any_datagram());
      case 3:
      case 4:
      case 5:
      case 6:
        return receive(dmx_datagram());
      case 7:
        return receive(header(0x9900) + std::string(6, '\0') + letter() + letter());
      case 8:
        return receive(header(0x2000) + std::string(4, '\x02'));
      case 9:
        return receive(poll_reply());
      case 10:
        return receive(relay_request(), "127.0.0.1");
      case 11:
      case 12:
        return grab();
      case 13:
        probe->stop();
        return model.stop();
      case 14:
        return ask();
      case 15: {
        const int universe = script.number();
        REQUIRE(probe->set_ctrl_universe(universe) == model.set_ctrl_universe(universe));
        return;
      }
      case 16: {
        const int key = script.number();
        const int value = script.number();
        const int step = script.number();
        REQUIRE(probe->set_ctrl_action(key, value, step) == model.set_ctrl_action(key, value, step));
        return;
      }
      case 17: {
        const int channel = script.number();
        const int threshold = script.number();
        REQUIRE(probe->set_ctrl_record(channel, threshold) == model.set_ctrl_record(channel, threshold));
        return;
      }
      case 18:
        return manual_nodes();
      case 19:
        return detection();
      case 20:
        now += static_cast<std::int64_t>(script.word()) * script.word();
        return;
      case 21: {
        send_buffer_full = model.send_buffer_full = script.byte() % 2 == 1;
        const int limit = script.byte();
        const PollResponder::Wait wait = probe.send_poll_replies(limit, now);
        const bool full = model.send_replies(limit, now);
        const PollResponder::Wait expected = model.askers() == 0 ? PollResponder::Wait::NothingDue
                                             : full              ? PollResponder::Wait::NoRoom
                                                                 : PollResponder::Wait::MoreDue;
        REQUIRE(wait == expected);
        return;
      }
      case 22:
        return two_triggers_of_the_record_channel();
      default:
        return detection();
    }
  }

  std::string letter() { return std::string(1, static_cast<char>(script.byte())); }

  static std::string header(unsigned opcode) {
    return std::string("Art-Net\0", 8) + static_cast<char>(opcode & 0xFFU) + static_cast<char>(opcode >> 8U);
  }

  std::string any_datagram() {
    const std::vector<char> bytes = script.bytes(script.word() % 8192);
    return {bytes.begin(), bytes.end()};
  }

  static std::string dmx(unsigned universe, unsigned length, const std::string& levels) {
    return header(0x5000) + std::string("\0\x0E\0\0", 4) + static_cast<char>(universe & 0xFFU) +
           static_cast<char>(universe >> 8U) + static_cast<char>(length >> 8U) +
           static_cast<char>(length & 0xFFU) + levels;
  }

  /// One to four ArtDmx in a row, on the control universe or another.
  std::string dmx_datagram() {
    std::string datagram;
    const unsigned choice = script.byte();
    for (unsigned packet = 0; packet <= choice % 4; ++packet) {
      const unsigned where = script.byte();
      unsigned universe = static_cast<unsigned>(model.ctrl_universe - 1) & 0xFFFFU;
      if (where % 4 == 1) universe = where / 4;
      if (where % 4 == 2) universe = script.word();
      const unsigned shape = script.byte();
      const std::size_t length = shape < 200 ? shape % 32 : shape < 230 ? 512 : script.word() % 600;
      std::string levels(length, static_cast<char>(script.byte()));
      const std::vector<char> first = script.bytes(std::min<std::size_t>(length, shape % 8));
      std::copy(first.begin(), first.end(), levels.begin());
      const int record_channel = model.record_channel;
      if (record_channel > 0 && static_cast<std::size_t>(record_channel) <= length)
        levels[static_cast<std::size_t>(record_channel) - 1] =
            static_cast<char>(static_cast<unsigned>(model.record_threshold) - (choice / 4 + packet) % 2);
      datagram += dmx(universe, static_cast<unsigned>(length), levels);
    }
    return datagram;
  }

  std::string poll_reply() {
    std::string reply = header(0x2100) + std::string(229, '\0');
    reply[13] = static_cast<char>(script.byte() % 4);
    reply[18] = static_cast<char>(script.byte());
    reply[20] = 1;
    reply[26] = static_cast<char>(script.byte());
    reply[173] = static_cast<char>(script.byte() % 8);
    for (std::size_t port = 0; port < 4; ++port) {
      static constexpr char kTypes[] = {'\x80', '\x85', '\xC5', '\x40', '\x81'};
      const unsigned choice = script.byte();
      reply[174 + port] = choice < 250 ? kTypes[choice % sizeof kTypes] : static_cast<char>(choice);
      reply[190 + port] = static_cast<char>(choice / 8);
    }
    if (script.byte() % 8 == 0) reply.resize(script.byte() % (reply.size() + 1));
    return reply;
  }

  std::string relay_request() {
    static constexpr const char* kTexts[] = {"10.0.0.7", "127.0.0.1", "",     "255.255.255.255",
                                             "1.2.3.04", "host",      "1.2.3"};
    const unsigned choice = script.byte();
    std::string address = kTexts[choice % (sizeof kTexts / sizeof *kTexts)];
    if (choice >= 240) address = std::string(any_datagram(), 0, 16).c_str();
    address.resize(16, static_cast<char>(choice % 2 == 0 ? 0 : '1'));
    const auto port = static_cast<std::uint32_t>(script.number());
    const unsigned other_maker = script.byte() % 8 == 7 ? 1 : 0;
    const std::string id = word32(static_cast<std::uint32_t>(model.own_manufacturer) + other_maker);
    return id + address + word32(port) + any_datagram();
  }

  static std::string word32(std::uint32_t value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
  }

  void receive(const std::string& datagram, const char* sender = nullptr) {
    const unsigned who = script.byte();
    // Most datagrams come from strangers.
    if (sender == nullptr) sender = who < 240 ? kSenders[who % 3] : kSenders[who % 5];
    const int port = 1024 + static_cast<int>(who);
    now += who;
    // Memory of exactly this size, so that a sanitizer sees a read beyond its end.
    std::vector<char> held(datagram.begin(), datagram.end());
    held.reserve(1);  // an empty datagram needs an address, too
    probe.receive({held.data(), held.size()}, sender, port, now);
    probe.settle_grabs();
    model.receive(datagram, sender, port, now, kOwnAddress);
  }

  void two_triggers_of_the_record_channel() {
    if (model.record_channel < 1) return;
    std::string levels(static_cast<std::size_t>(model.record_channel),
                       static_cast<char>(model.record_threshold));
    const auto universe = static_cast<unsigned>(model.ctrl_universe - 1) & 0xFFFFU;
    receive(dmx(universe, static_cast<unsigned>(levels.size()), levels));
    compare();
    receive(dmx(script.byte(), static_cast<unsigned>(levels.size()), levels));
  }

  void grab() {
    const FileName& file = kFiles[script.byte() % (sizeof kFiles / sizeof *kFiles)];
    const bool idle = model.state == 0;
    probe->grab(QString::fromUtf8(file.name));
    model.grab(file.name, file.opens);
    if (idle && file.opens) model.file_takes_nothing = !file.takes_data;
  }

  void ask() {
    REQUIRE(probe->get_status().toStdString() == model.status());
    const std::string report = probe->latest_grab().toStdString();
    const std::string start = model.latest_grab_start();
    REQUIRE(report.compare(0, start.size(), start) == 0);
    REQUIRE(report.size() >= start.size() + 2 && report.compare(report.size() - 2, 2, "]}") == 0);
    std::set<int> universes;
    const std::string list = report.substr(start.size(), report.size() - start.size() - 2);
    for (std::size_t at = 0; at < list.size();) {
      const std::size_t end = std::min(list.find(", ", at), list.size());
      REQUIRE(universes.insert(std::stoi(list.substr(at, end - at))).second);
      at = end + 2;
    }
    REQUIRE(universes == model.summary.universes);
  }

  ArtnetNode node() {
    const auto text = [this] {
      const std::vector<char> bytes = script.bytes(script.byte() % 12);
      return QString::fromUtf8(bytes.data(), static_cast<int>(bytes.size()));
    };
    ArtnetNode made{};
    made.id = script.number();
    made.short_name = text();
    made.long_name = text();
    made.universe = script.number();
    made.ip = text();
    made.port = script.number();
    return made;
  }

  void manual_nodes() {
    switch (script.byte() % 8) {
      case 0:
      case 1:
      case 2: {
        const ArtnetNode added = node();
        REQUIRE(probe->add_manual_node(added) == model.add_manual_node(model_of(added)));
        return;
      }
      case 3: {
        const ArtnetNode updated = node();
        REQUIRE(probe->update_manual_node(updated) == model.update_manual_node(model_of(updated)));
        return;
      }
      case 4:
      case 5: {
        const int id = script.number();
        REQUIRE(probe->remove_manual_node(id) == model.remove_manual_node(id));
        return;
      }
      case 6:
        probe->remove_all_manual_nodes();
        return model.remove_all_manual_nodes();
      default: {
        std::vector<ArtnetNode> nodes;
        std::vector<NodeModel> expected;
        for (unsigned left = script.byte() % 5; left > 0; --left) {
          nodes.push_back(node());
          expected.push_back(model_of(nodes.back()));
        }
        REQUIRE(probe->init_manual_nodes(nodes) == model.init_manual_nodes(expected));
        return;
      }
    }
  }

  void detection() {
    switch (script.byte() % 8) {
      case 0:
      case 1:
        probe.mark_detection_in_progress();
        probe.begin_detection_cycle();
        return model.begin_cycle();
      case 2:
      case 3:
        probe.evaluate_detection_cycle();
        return model.end_cycle();
      case 4: {
        const bool enable = script.byte() % 2 == 1;
        REQUIRE(probe->set_automatic_node_detection(enable) == model.set_automatic(enable));
        return;
      }
      case 5:
        REQUIRE(probe->request_node_detection() == model.request_detection());
        return;
      case 6:
        REQUIRE(probe->remove_detected_nodes() == model.remove_detected_nodes());
        return;
      default:
        REQUIRE(probe->node_detection_request_pending() == model.requested);
        const QString json = probe->get_detected_nodes();
        REQUIRE(json.startsWith(QLatin1String("{ \"nodes\":[")) && json.endsWith(QLatin1String("]}")));
        return;
    }
  }

  void compare() {
    REQUIRE(probe.grab_state() >= 0 && probe.grab_state() <= 4);
    REQUIRE(probe.grab_state() == model.state);
    REQUIRE(probe.grab_packet_count() == (model.state == 0 ? 0 : static_cast<int>(model.records.size())));
    REQUIRE(probe.grab_max_universe() == model.ceiling);
    REQUIRE(std::set<int>(probe.grab_universes().begin(), probe.grab_universes().end()) == model.universes);
    REQUIRE(probe.current_universe() == model.current_universe);
    const GrabSummary& summary = probe.latest_grab_summary();
    REQUIRE(summary.file_name.toStdString() == model.summary.name);
    REQUIRE(summary.empty == model.summary.empty);
    REQUIRE(summary.universe_ceiling == model.summary.ceiling);
    REQUIRE(std::set<int>(summary.universes.begin(), summary.universes.end()) == model.summary.universes);

    REQUIRE(probe.ctrl_universe() == model.ctrl_universe);
    REQUIRE(probe.ctrl_key_channel() == model.key_channel);
    REQUIRE(probe.ctrl_value_channel() == model.value_channel);
    REQUIRE(probe.ctrl_step() == model.ctrl_step);
    REQUIRE(probe.ctrl_record_channel() == model.record_channel);
    REQUIRE(probe.ctrl_record_threshold() == model.record_threshold);

    REQUIRE(same_list(probe.manual_nodes(), model.manual_nodes));
    REQUIRE(std::all_of(model.manual_nodes.begin(), model.manual_nodes.end(),
                        [](const NodeModel& node) { return node.id >= 0; }));
    REQUIRE(same_list(probe.poll_new_nodes(), model.fresh));
    REQUIRE(same_content(probe.poll_seen_nodes(), model.seen));
    REQUIRE(same_content(probe.poll_missing_nodes(), model.missing));
    const std::vector<ArtnetNode> detected = probe.detected_nodes();
    REQUIRE(same_content(detected, model.detected));
    REQUIRE(std::is_sorted(detected.begin(), detected.end()));
    REQUIRE(probe.automatic_detection() == model.automatic);
    REQUIRE(probe.detection_requested() == model.requested);
    REQUIRE(probe.nodes_changed() == model.changed);

    REQUIRE(triggers == model.triggers);
    REQUIRE(messages_are_the_same());
    REQUIRE(sent_datagrams == model.sent);
    REQUIRE(probe.pending_askers() == model.askers());
    triggers.clear();
    model.triggers.clear();
    messages.clear();
    model.messages.clear();
    sent_datagrams.clear();
    model.sent.clear();
  }

  /// Vanished nodes come in the order of the detected list. The model keeps no order, so entries are compared
  /// as sets.
  bool messages_are_the_same() const {
    const auto entries = [](const std::vector<std::string>& texts) {
      std::vector<std::string> sorted;
      for (const std::string& text : texts) {
        std::string letters = text;
        std::sort(letters.begin(), letters.end());
        sorted.push_back(letters);
      }
      return sorted;
    };
    return entries(messages) == entries(model.messages);
  }

  void compare_file() {
    for (std::size_t i = 0; i < model.records.size(); ++i) {
      REQUIRE(i == 0 || model.records[i].delay >= 0);
      REQUIRE(holds_whole_dmx(model.records[i].datagram));
    }
    if (!model.file_takes_nothing) REQUIRE(content_of(model.file_name.c_str()) == model.file());
  }

  Script& script;
  DumpProbe probe;
  ServiceModel model;
  std::int64_t now = 1;
  std::vector<std::pair<int, int>> triggers;
  std::vector<std::string> messages;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
  kesto::Logger::instance()->setOutput(kesto::Logger::None);
  kesto::Logger::instance()->setLevel(6);
  enter_directory();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static constexpr int kAnnounced[] = {1, 3, 16, 257};
  Script script(data, size);
  Comparison comparison(kAnnounced[script.byte() % 4], script);
  comparison.run();
  return 0;
}
