#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/DatagramModel.h"

/// One thing that left the service: a datagram or a signal, as text.
struct Sent {
  std::string address;
  int port = 0;
  std::string data;

  friend bool operator==(const Sent& a, const Sent& b) {
    return a.address == b.address && a.port == b.port && a.data == b.data;
  }
};

struct NodeModel {
  int id = -1;
  std::string short_name;
  std::string long_name;
  int universe = 0;
  std::string ip;
  int port = 0;

  bool same_node(const NodeModel& other) const {
    return short_name == other.short_name && long_name == other.long_name && universe == other.universe &&
           ip == other.ip && port == other.port;
  }
  std::string entry(char digit) const {
    return std::string(1, digit) + ":" + std::to_string(universe) + ":" + ip + ":" + std::to_string(port);
  }
};

/// The service in the simplest code: recorder, triggers, settings, answers to ArtPoll, node detection,
/// manual nodes, relay. It keeps a recording as a list and knows nothing of threads or files.
class ServiceModel {
public:
  struct Record {
    std::int64_t delay;  // ns; meaningless for the first record of a file
    std::string datagram;
  };
  struct Summary {
    std::string name;
    bool empty = true;
    int ceiling = -1;
    std::set<int> universes;
  };

  explicit ServiceModel(int announced) : announced_universes(announced) {}

  // ---- settings ----

  bool set_ctrl_universe(int universe) {
    if (state != 0 || !off_or(universe, 32768)) return false;
    ctrl_universe = universe;
    return true;
  }
  bool set_ctrl_action(int key, int value, int step) {
    if (state != 0 || !off_or(key, 512) || !off_or(value, 512) || !off_or(step, 255)) return false;
    key_channel = key;
    value_channel = value;
    ctrl_step = step;
    return true;
  }
  bool set_ctrl_record(int channel, int threshold) {
    if (state != 0 || !off_or(channel, 512) || !off_or(threshold, 255)) return false;
    record_channel = channel;
    record_threshold = threshold;
    return true;
  }

  // ---- recorder ----

  void grab(const std::string& name, bool opens) {
    if (state != 0 || !opens) return;
    file_name = name;
    records.clear();
    state = record_control() ? 1 : 2;
  }
  void stop() {
    if (state != 0) finish();
  }
  std::string status() const { return state == 0 ? "off" : state < 3 ? "on" : "run"; }
  std::string latest_grab_start() const {
    return "{\"filename\": \"" + summary.name + "\", \"empty\": " + (summary.empty ? "true" : "false") +
           ", \"uniceil\": " + std::to_string(summary.ceiling) + ", \"universes\": [";
  }
  std::string file() const {
    std::string content;
    for (std::size_t i = 0; i < records.size(); ++i) {
      if (i > 0) {
        content += std::string("Art-Net\0\xFE\0", 10);
        for (unsigned shift = 0; shift < 64; shift += 8)
          content += static_cast<char>(static_cast<std::uint64_t>(records[i].delay) >> shift & 0xFFU);
      }
      content += records[i].datagram;
    }
    return content;
  }

  // ---- network ----

  void receive(const std::string& datagram, const std::string& sender, int port, std::int64_t now,
               const std::string& own) {
    if (sender == "127.0.0.1") {
      relay(datagram);
      return;
    }
    if (sender == own) return;
    bool marked = false;
    const DatagramModel::Result walk =
        packets.parse(reinterpret_cast<const std::uint8_t*>(datagram.data()), datagram.size());
    for (const DatagramModel::Event& event : walk.events) {
      if (event.stale) continue;
      switch (event.kind) {
        case DatagramModel::Poll:
          take_poll(sender, port);
          break;
        case DatagramModel::PollReply:
          take_reply(event.bytes);
          break;
        case DatagramModel::Trigger:
          if (state == 0) triggers.emplace_back(event.bytes[16], event.bytes[17]);
          break;
        case DatagramModel::Dmx:
          take_dmx(event.bytes, marked);
          break;
        default:
          break;
      }
    }
    if (walk.error == 0 && marked) record(datagram, now);
    if (state == 4) finish();
  }

  /// The askers take a turn, and one that cannot be reached is forgotten. @return whether there was no room
  bool send_replies(int limit, std::int64_t now) {
    if (!take_turn(limit)) return false;
    if (!no_room) no_room_since = now;
    no_room = true;
    if (now - no_room_since >= 500'000'000) {
      for (auto asker = pending.begin(); asker != pending.end(); ++asker) {
        if (asker->address != last_address || asker->port != last_port) continue;
        pending.erase(asker);
        break;
      }
    }
    return true;
  }

  /// @return whether the send buffer had no room
  bool take_turn(int limit) {
    if (pending.empty()) return false;
    Asker& first = pending.front();
    for (int i = 0; i < limit && first.next < announced_universes; ++i) {
      if (send_buffer_full) return true;
      sent.push_back({first.address, first.port, reply_bytes(first.next)});
      ++first.next;
      last_address = first.address;
      last_port = first.port;
      no_room = false;
    }
    // Askers take turns; one that has asked again meanwhile begins anew.
    Asker asker = first;
    pending.pop_front();
    if (asker.next >= announced_universes && asker.again) {
      asker.again = false;
      asker.next = 0;
    }
    if (asker.next < announced_universes) pending.push_back(asker);
    return false;
  }

  // ---- nodes ----

  bool init_manual_nodes(const std::vector<NodeModel>& nodes) {
    if (!manual_nodes.empty()) return false;
    for (const NodeModel& node : nodes)
      if (node.id < 0) return false;
    std::string message;
    for (const NodeModel& node : nodes) message += node.entry('1') + ";";
    messages.push_back(message);
    manual_nodes = nodes;
    return true;
  }
  bool add_manual_node(const NodeModel& node) {
    if (manual_index(node.id) >= 0 || node.id < 0) return false;
    messages.push_back(node.entry('1'));
    manual_nodes.push_back(node);
    return true;
  }
  bool update_manual_node(const NodeModel& node) {
    const int index = manual_index(node.id);
    if (index < 0) return false;
    NodeModel& old = manual_nodes[static_cast<std::size_t>(index)];
    messages.push_back(old.entry('0') + ";" + node.entry('1'));
    old = node;
    return true;
  }
  bool remove_manual_node(int id) {
    const int index = manual_index(id);
    if (index < 0) return false;
    messages.push_back(manual_nodes[static_cast<std::size_t>(index)].entry('0'));
    manual_nodes.erase(manual_nodes.begin() + index);
    return true;
  }
  void remove_all_manual_nodes() {
    std::string message;
    for (const NodeModel& node : manual_nodes) message += node.entry('0') + ";";
    messages.push_back(message);
    manual_nodes.clear();
  }

  bool set_automatic(bool enable) {
    if (requested) return false;
    automatic = enable;
    return true;
  }
  bool request_detection() {
    if (automatic) return false;
    requested = true;
    return true;
  }
  bool remove_detected_nodes() {
    if (automatic || requested) return false;
    std::string message;
    for (const NodeModel& node : detected) message += node.entry('0') + ";";
    messages.push_back(message);
    changed = false;
    fresh.clear();
    seen.clear();
    missing.clear();
    detected.clear();
    return true;
  }
  void begin_cycle() {
    if (requested) in_progress = true;
    changed = false;
    fresh.clear();
    seen.clear();
    missing = detected;
  }
  void end_cycle() {
    if (!automatic && !in_progress) return;
    if (!missing.empty()) changed = true;
    if (changed) {
      std::string message;
      for (const NodeModel& node : fresh) message += node.entry('1') + ";";
      for (const NodeModel& node : missing) message += node.entry('0') + ";";
      messages.push_back(message);
      missing.clear();
      changed = false;
    }
    detected = fresh;
    detected.insert(detected.end(), seen.begin(), seen.end());
    fresh.clear();
    seen.clear();
    requested = in_progress = false;
  }

  // For the comparison.
  int state = 0;
  int ctrl_universe = -1, key_channel = -1, value_channel = -1, ctrl_step = -1;
  int record_channel = -1, record_threshold = -1;
  std::string file_name;
  std::vector<Record> records;  // of the current recording, or the last
  int ceiling = -1;
  std::set<int> universes;
  int current_universe = -1;
  Summary summary;
  bool file_takes_nothing = false;  // a full disk

  std::vector<std::pair<int, int>> triggers;
  std::vector<std::string> messages;
  std::vector<Sent> sent;
  bool send_buffer_full = false;
  std::size_t askers() const { return pending.size(); }

  std::vector<NodeModel> manual_nodes;
  std::vector<NodeModel> detected, fresh, seen, missing;  // detected: in no particular order
  bool automatic = true, requested = false, in_progress = false, changed = false;

private:
  struct Asker {
    std::string address;
    int port;
    int next;
    bool again;
  };

  void take_poll(const std::string& address, int port) {
    for (Asker& asker : pending) {
      if (asker.address == address && asker.port == port) {
        asker.again = true;
        return;
      }
    }
    if (pending.size() >= 256) return;
    pending.push_front({address, port, 0, false});
    take_turn(64);
  }

  static bool off_or(int value, int highest) { return value == -1 || (value >= 1 && value <= highest); }

  bool record_control() const {
    return ctrl_universe != -1 && record_channel != -1 && record_threshold != -1;
  }

  int manual_index(int id) const {
    for (std::size_t i = 0; id >= 0 && i < manual_nodes.size(); ++i)
      if (manual_nodes[i].id == id) return static_cast<int>(i);
    return -1;
  }

  void take_dmx(const std::vector<std::uint8_t>& packet, bool& marked) {
    const int universe = packet[14] | packet[15] << 8;
    const int length = packet[16] << 8 | packet[17];
    const auto slot = [&packet](int channel) -> int {
      return packet.at(static_cast<std::size_t>(17 + channel));
    };
    const bool control = universe == ctrl_universe - 1;
    if (state == 0) {
      if (ctrl_universe == -1 || key_channel == -1 || value_channel == -1 || !control) return;
      if (length < key_channel || length < value_channel) return;
      const int key = slot(key_channel);
      const int divisor = (key == 1 || key == 2) && ctrl_step != -1 ? ctrl_step : 1;
      triggers.emplace_back(key, slot(value_channel) / divisor);
      return;
    }
    current_universe = universe;
    if (state == 1) {
      if (control && length >= record_channel && slot(record_channel) >= record_threshold) {
        state = 2;
        marked = false;
      }
      return;
    }
    marked = true;
    if (record_control() && control && length >= record_channel && slot(record_channel) < record_threshold) {
      marked = false;
      state = 4;
    }
  }

  void record(const std::string& datagram, std::int64_t now) {
    if (state == 2) state = 3;
    const int universe = std::exchange(current_universe, -1);
    records.push_back({now - last_time, datagram});
    ceiling = std::max(ceiling, universe);
    universes.insert(universe);
    last_time = now;
  }

  void finish() {
    summary = {file_name, records.empty() || file_takes_nothing, ceiling, universes};
    if (file_takes_nothing) summary = {file_name, true, -1, {}};
    state = 0;
    ceiling = -1;
    universes.clear();
    current_universe = -1;
  }

  std::string reply_bytes(int index) const {
    std::string reply(239, '\0');
    const auto put = [&reply](std::size_t offset, int value) { reply[offset] = static_cast<char>(value); };
    reply.replace(0, 10, std::string("Art-Net\0\x00\x21", 10));
    reply.replace(10, 4, own_ip);
    reply.replace(14, 4, std::string("\x36\x19\x01\x00", 4));
    put(18, index / 256 % 128);
    put(19, index / 16 % 16);
    put(20, own_oem / 256);
    put(21, own_oem % 256);
    put(24, own_manufacturer % 256);
    put(25, own_manufacturer / 256);
    reply.replace(26, short_name.size(), short_name);
    reply.replace(44, long_name.size(), long_name);
    put(173, 1);
    put(174, 0xC5);
    put(186, index % 16);
    put(190, index % 16);
    reply.replace(201, 6, own_mac);
    reply.replace(207, 4, own_ip);
    put(211, index % 256 + 1);
    return reply;
  }

  void take_reply(std::vector<std::uint8_t> reply) {
    reply.resize(239);
    for (const std::size_t last : {43U, 107U, 171U}) reply[last] = 0;
    const auto at = [&reply](std::size_t offset) -> int { return reply[offset]; };
    if (at(20) * 256 + at(21) == own_oem && at(24) + at(25) * 256 == own_manufacturer) return;
    const int ports = at(172) * 256 + at(173);
    if (ports < 1 || ports > 4) return;
    for (std::size_t port = 0; port < static_cast<std::size_t>(ports); ++port) {
      const int type = at(174 + port);
      const int protocol = type % 64;
      if (type < 128 || (protocol != 0 && protocol != 5)) continue;
      NodeModel node;
      node.short_name = latin1(&reply[26]);
      node.long_name = latin1(&reply[44]);
      node.universe = at(18) * 256 + at(19) * 16 % 256 + at(190 + port) % 16;
      node.ip = std::to_string(at(10)) + "." + std::to_string(at(11)) + "." + std::to_string(at(12)) + "." +
                std::to_string(at(13));
      node.port = at(14) + at(15) * 256;
      take_node(node);
    }
  }

  void take_node(const NodeModel& node) {
    const auto is_it = [&node](const NodeModel& other) { return other.same_node(node); };
    const auto holds = [&is_it](const std::vector<NodeModel>& nodes) {
      return std::find_if(nodes.begin(), nodes.end(), is_it) != nodes.end();
    };
    if (holds(seen) || holds(fresh)) return;
    const auto found = std::find_if(missing.begin(), missing.end(), is_it);
    if (found != missing.end()) {
      seen.push_back(node);
      missing.erase(found);
      return;
    }
    if (missing.size() + seen.size() + fresh.size() >= 32768) return;
    fresh.push_back(node);
    changed = true;
  }

  /// Latin-1 as UTF-8.
  static std::string latin1(const std::uint8_t* text) {
    std::string result;
    for (; *text != 0; ++text) {
      if (*text < 0x80) {
        result += static_cast<char>(*text);
      } else {
        result += static_cast<char>(0xC0 | *text >> 6);
        result += static_cast<char>(0x80 | (*text & 0x3F));
      }
    }
    return result;
  }

  void relay(const std::string& datagram) {
    if (datagram.size() < 25) return;
    const auto number = [&datagram](std::size_t offset) {
      std::int64_t value = 0;
      for (std::size_t i = 4; i-- > 0;) value = value * 256 + static_cast<std::uint8_t>(datagram[offset + i]);
      return value;
    };
    if (number(0) != own_manufacturer) return;
    const std::string address = std::string(datagram, 4, 15).c_str();
    const std::int64_t port = number(20);
    if (address.empty() || address == "127.0.0.1" || port < 1024 || port > 65535) return;
    if (!is_dotted(address)) return;
    if (!send_buffer_full) sent.push_back({address, static_cast<int>(port), datagram.substr(24)});
  }

  /// Four decimal numbers of at most three digits up to 255, without leading zeros.
  static bool is_dotted(const std::string& text) {
    int numbers = 0;
    std::size_t i = 0;
    for (;;) {
      const std::size_t start = i;
      int value = 0;
      while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i - start < 4)
        value = value * 10 + (text[i++] - '0');
      if (i == start || value > 255 || (i - start > 1 && text[start] == '0')) return false;
      ++numbers;
      if (i == text.size()) return numbers == 4;
      if (text[i++] != '.' || numbers == 4) return false;
    }
  }

  int announced_universes;
  DatagramModel packets;
  std::deque<Asker> pending;
  std::string last_address;  // receiver of the last reply
  int last_port = 0;
  bool no_room = false;  // since the time below, and nothing was sent to an asker since then
  std::int64_t no_room_since = 0;
  std::int64_t last_time = 0;

public:
  // Identity of the appliance.
  std::string own_ip = std::string(4, '\0');
  std::string own_mac = std::string(6, '\0');
  int own_oem = 0;
  int own_manufacturer = 0;
  std::string short_name;
  std::string long_name;
};
