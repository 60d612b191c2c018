#include "tools/TrafficJson.h"

#include <array>
#include <charconv>

#include "cue/Time.h"
#include "tools/JsonText.h"
#include "tools/TrafficWords.h"

namespace kadrel_cue {
namespace {

/// Writes the members of one object after the other.
class JsonObject {
public:
  explicit JsonObject(std::string& out) : text(out) { text += '{'; }

  /// @param value  JSON
  void add(const char* name, const std::string& value) {
    key(name);
    text += value;
  }
  void add(const char* name, std::uint64_t value) { add(name, std::to_string(value)); }
  void add_flag(const char* name, bool value) { add(name, value ? "true" : "false"); }
  void add_text(const char* name, const std::string& value) { add(name, json_string(value)); }

  /// What comes next is the value.
  void key(const char* name) {
    if (!is_first) text += ',';
    is_first = false;
    text += '"';
    text += name;
    text += "\":";
  }

  void end() { text += '}'; }

private:
  std::string& text;
  bool is_first = true;
};

void add_levels(std::string& out, const cue::StreamFigures& stream) {
  out += '[';
  for (std::size_t slot = 0; slot < stream.slots; ++slot) {
    std::array<char, 4> digits{};
    char* const end =
        std::to_chars(digits.data(), digits.data() + digits.size(), unsigned{stream.levels[slot]}).ptr;
    if (slot > 0) out += ',';
    out.append(digits.data(), end);
  }
  out += ']';
}

void add_stream(std::string& out, const cue::StreamFigures& stream) {
  const bool is_sacn = stream.protocol == cue::Protocol::Sacn;
  const auto address = net_address_text(stream.universe);
  JsonObject object(out);
  object.add_text("protocol", protocol_name(stream.protocol));
  object.add("universe", std::uint64_t{stream.universe} + 1);
  object.add("address", address ? json_string(*address) : "null");
  object.add("sender", stream.sender == 0 ? "null" : json_string(ipv4_text(stream.sender)));
  object.add("cid", is_sacn ? json_string(cid_text(stream.cid)) : "null");
  object.add("name", stream.name.empty() ? "null" : json_string(stream.name));
  object.add_flag("unicast", stream.unicast);
  object.add_flag("contested", stream.contested);
  object.add_flag("ended", stream.ended);
  object.add("priority", is_sacn ? std::to_string(stream.priority) : "null");
  object.add("datagrams", stream.datagrams);
  object.add("rate", decimal_text(stream.rate, 3));
  object.add("jitter", decimal_text(stream.jitter, 3));
  object.add_text("counting", cue::counting_name(stream.counting));
  object.add("missing", stream.counts ? std::to_string(stream.missing) : "null");
  object.add("disordered", stream.counts ? std::to_string(stream.disordered) : "null");
  object.add("slots", stream.slots);
  object.add("highest", stream.highest);
  object.add("age", decimal_seconds(stream.age));
  object.key("levels");
  add_levels(out, stream);
  object.end();
}

void add_kinds(std::string& out, const cue::TrafficFigures& figures) {
  JsonObject kinds(out);
  for (const cue::TrafficKind& kind : cue::kTrafficKinds) {
    const cue::KindFigures& of = figures.*kind.figures;
    kinds.key(kind.name);
    JsonObject object(out);
    object.add("packets", of.packets);
    object.add("rate", decimal_text(of.rate, 3));
    object.end();
  }
  kinds.end();
}

}  // namespace

std::string traffic_json(const cue::TrafficFigures& figures, const std::string& source, std::int64_t time,
                         std::uint64_t lost) {
  std::string out;
  JsonObject object(out);
  object.add("time", decimal_seconds(time));
  object.add_text("source", source);
  object.add("lost", lost);
  object.add("streams_not_shown", figures.streams_not_shown);
  object.key("packets");
  add_kinds(out, figures);
  object.key("streams");
  out += '[';
  for (const cue::StreamFigures& stream : figures.streams) {
    if (&stream != &figures.streams.front()) out += ',';
    add_stream(out, stream);
  }
  out += ']';
  object.end();
  return out;
}

}  // namespace kadrel_cue
