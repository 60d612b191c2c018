#include "tools/ReadyChecks.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <system_error>
#include <utility>

#include "artnet/ArtNet.h"
#include "artnet/RecordingFormat.h"
#include "cue/Text.h"
#include "tools/TrafficWords.h"

namespace kadrel_cue {
namespace {

// What the kernel counts for a full ArtDmx in a receive buffer. Measured: docs/reliability.md, "How long a
// stall may be".
constexpr double kBufferForDatagram = 1280;

// A stall of the processor that the buffer should last through.
constexpr double kStall = 2;  // seconds

// What the package sets (data/50-kadrel.conf).
constexpr std::uint64_t kPackagedBuffer = std::uint64_t{8} << 20;

constexpr double kFullRate = 44;  // Hz, of a universe

// Of recording: a show is longer than an hour, and a day of rehearsals longer than eight.
constexpr double kFewestHours = 1;
constexpr double kFewHours = 8;

// A disk that is only just quick enough is not while it does something else.
constexpr double kSpareSpeed = 4;

constexpr std::uint64_t kGib = std::uint64_t{1} << 30;

std::string system_text(int error) {
  return std::generic_category().message(error);
}

/// "2,816".
std::string grouped(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, ",");
  return text;
}

std::uint64_t whole(double number) {
  return number > 0 ? static_cast<std::uint64_t>(std::min(number + 0.5, 1e18)) : 0;
}

std::string decimal_text(double number) {
  std::array<char, 32> text{};
  snprintf(text.data(), text.size(), number < 99.95 ? "%.1f" : "%.0f", std::min(number, 1e9));
  return text.data();
}

std::string seconds_words(double seconds) {
  return decimal_text(seconds) + " s";
}

/// "3.5 GB", "120 MB".
std::string bytes_text(double bytes) {
  constexpr std::array<const char*, 5> kUnits{"bytes", "KB", "MB", "GB", "TB"};
  std::size_t unit = 0;
  for (; bytes >= 999.5 && unit + 1 < kUnits.size(); bytes /= 1000) ++unit;
  return (unit == 0 ? std::to_string(whole(bytes)) : decimal_text(bytes)) + " " + kUnits[unit];
}

/// "12.5 hours", "9 minutes".
std::string hours_text(double hours) {
  if (hours < 1) return cue::counted(whole(hours * 60), "minute");
  return hours < 1000 ? decimal_text(hours) + " hours" : "over 1,000 hours";
}

/// "3 (0:0:2)".
std::string universe_text(std::uint16_t universe) {
  const auto address = net_address_text(universe);
  return std::to_string(universe + 1) + (address ? " (" + *address + ")" : "");
}

/// "1-4,7", counted from 1; "1-4,7,..." where there is more than fits.
std::string ranges_text(const std::vector<std::uint16_t>& universes) {
  constexpr std::size_t kMost = 20;
  std::string text;
  for (std::size_t first = 0; first < universes.size();) {
    std::size_t last = first;
    while (last + 1 < universes.size() && universes[last + 1] == universes[last] + 1) ++last;
    if (!text.empty()) text += ",";
    if (text.size() > kMost) return text + "...";
    text += std::to_string(universes[first] + 1);
    if (last > first) text += "-" + std::to_string(universes[last] + 1);
    first = last + 1;
  }
  return text;
}

std::string load_text(const Load& load) {
  if (load.heard) return "as heard";
  return "for " + cue::counted(load.universes, "full universe");
}

template <typename Number>
Figure optional_figure(const char* name, const std::optional<Number>& value) {
  if (!value) return {name, {}};
  return {name, static_cast<std::uint64_t>(*value)};
}

const char* state_text(ServiceClient::State state) {
  switch (state) {
    case ServiceClient::State::Armed:
      return "armed";
    case ServiceClient::State::Recording:
      return "recording";
    default:
      return "off";
  }
}

void judge_missing_service(const ServiceLook& look, Finding& finding) {
  finding.level = Level::Bad;
  if (!look.bus_error.empty()) {
    finding.text = "cannot ask the session bus";
    finding.advice = look.bus_error;
  } else if (look.can_be_started) {
    finding.text = "not running; the bus can start it";
    finding.advice = "start it, then look again: systemctl --user start kadrel, or any call to it";
  } else {
    finding.text = "not running, and this bus cannot start it";
    finding.advice = words_about_missing_service();
  }
}

constexpr const char* kRestart = "systemctl --user restart kadrel";

void judge_service(const ServiceLook& look, const std::string& version, Finding& finding) {
  const ServiceProcess& process = *look.process;
  finding.text = look.state ? state_text(*look.state) : "on the bus, but it does not answer";
  finding.text += process.version.empty() ? "; version not known" : "; version " + process.version;
  finding.text += ", process " + std::to_string(process.pid);
  if (!look.state) {
    finding.level = Level::Bad;
    finding.advice = look.call_error + "; " + kRestart;
  } else if (process.replaced) {
    finding.level = Level::Warning;
    finding.text += "; its program was replaced since";
    finding.advice = std::string("between two recordings: ") + kRestart;
  } else if (!process.version.empty() && process.version != version) {
    finding.level = Level::Warning;
    finding.advice = "kadrel-cue is " + version + "; upgrade both, then " + kRestart;
  }
}

std::string heard_text(const Heard& heard) {
  if (!heard.error.empty()) return "not listened: " + heard.error;
  std::string text = heard.universes.empty() ? "none" : std::to_string(heard.universes.size());
  text += " heard in " + seconds_words(heard.seconds);
  if (!heard.universes.empty())
    text += " (" + ranges_text(heard.universes) + "), " + grouped(whole(heard.datagrams_per_second)) + "/s";
  if (heard.sacn_universes > 0) text += ", " + std::to_string(heard.sacn_universes) + " of E1.31";
  if (heard.lost > 0) text += ", and " + grouped(heard.lost) + " datagrams came too quickly";
  return text;
}

const PortLook::Holder* holder_of(const PortLook& look) {
  // Whoever has it on all addresses first.
  const auto all = std::find_if(look.holders.begin(), look.holders.end(),
                                [](const PortLook::Holder& holder) { return holder.socket.any_address; });
  if (all != look.holders.end()) return &*all;
  return look.holders.empty() ? nullptr : &look.holders.front();
}

std::string owner_text(const PortLook::Holder& holder) {
  if (!holder.owner) return "another user's process";
  return holder.owner->name + " (process " + std::to_string(holder.owner->pid) + ")";
}

void judge_foreign_port(const PortLook& look, Finding& finding) {
  const PortLook::Holder* const holder = holder_of(look);
  const std::string port = std::to_string(look.port);
  if (!look.known) {
    finding.level = Level::Warning;
    finding.text = "the kernel does not tell who has " + port;
    finding.advice = "sudo mount -t proc proc /proc, then look again";
  } else if (holder != nullptr) {
    finding.level = Level::Bad;
    finding.text = port + " is held by " + owner_text(*holder);
    finding.advice = holder->owner ? "end it (kill " + std::to_string(holder->owner->pid) + ")"
                                   : "sudo ss -ulpn 'sport = " + port + "' shows whose it is; end it";
    finding.advice += look.service != 0 ? std::string(", then ") + kRestart : ", then start kadrel";
  } else if (look.service != 0) {
    finding.level = Level::Bad;
    finding.text = "kadrel has not got " + port + ", nor has anybody";
    finding.advice = std::string(kRestart) + "; journalctl -t kadrel says why";
  } else {
    finding.text = port + " is free";
  }
}

/// "16777216", the power of two from the packaged size on that is enough.
std::string wanted_buffer(double need) {
  std::uint64_t size = kPackagedBuffer;
  while (static_cast<double>(size) < need && size < kGib) size *= 2;
  return std::to_string(size);
}

std::string buffer_advice(const BufferLook& look, double need) {
  if (look.system_default && static_cast<double>(*look.system_default) >= need)
    return "the system gives " + grouped(*look.system_default) + " by now: " + kRestart;
  if (need <= static_cast<double>(kPackagedBuffer))
    return "sudo sysctl --system (50-kadrel.conf: " + grouped(kPackagedBuffer) + "), restart kadrel";
  return "sudo sysctl -w net.core.rmem_default=" + wanted_buffer(need) + ", restart kadrel";
}

/// What keeps files from being made in the folder. @return false when nothing does
bool judge_folder(const FolderLook& look, Finding& finding) {
  finding.level = Level::Bad;
  if (!look.answered) {
    finding.text = look.folder + ": the disk does not answer";
    finding.advice = "look at the disk (dmesg), or record elsewhere (--cues)";
  } else if (!look.files_left) {
    finding.text = look.folder + ": no room for the name of another file (inodes)";
    finding.advice = "remove files, or record elsewhere (--cues)";
  } else if (look.error != 0) {
    finding.text = look.folder + ": " + system_text(look.error);
    finding.advice = "name the folder of the recordings with --cues, or mend this one";
  } else {
    finding.level = Level::Ok;
    return false;
  }
  return true;
}

}  // namespace

Finding check_service(const ServiceLook& look, const std::string& version) {
  Finding finding{"service", Level::Ok, "", "", {}};
  if (look.process)
    judge_service(look, version, finding);
  else
    judge_missing_service(look, finding);
  finding.figures = {{"running", look.process.has_value()},
                     {"can_be_started", look.can_be_started},
                     {"state", {}},
                     {"version", {}},
                     {"replaced", look.process && look.process->replaced},
                     {"process", {}}};
  if (look.state) finding.figures[2].value = std::string(state_text(*look.state));
  if (!look.process) return finding;
  if (!look.process->version.empty()) finding.figures[3].value = look.process->version;
  finding.figures[5].value = static_cast<std::uint64_t>(look.process->pid);
  return finding;
}

const UdpSocketInfo* service_socket(const PortLook& look) {
  for (const PortLook::Holder& holder : look.holders)
    if (look.service != 0 && holder.owner && holder.owner->pid == look.service) return &holder.socket;
  return nullptr;
}

Finding check_port(const PortLook& look) {
  Finding finding{"port", Level::Ok, "", "", {}};
  if (service_socket(look) == nullptr) {
    judge_foreign_port(look, finding);
  } else {
    finding.text = "kadrel has UDP port " + std::to_string(look.port);
    if (look.port != kArtNetPort) {
      finding.level = Level::Warning;
      finding.advice = "consoles send to 6454: set KADREL_PORT=6454 in /etc/default/kadrel, restart kadrel";
    }
  }
  finding.figures = {{"port", static_cast<std::uint64_t>(look.port)},
                     {"held", !look.holders.empty()},
                     {"by_kadrel", service_socket(look) != nullptr},
                     {"holder", {}},
                     {"process", {}}};
  const PortLook::Holder* const holder = holder_of(look);
  if (holder == nullptr || !holder->owner) return finding;
  finding.figures[3].value = holder->owner->name;
  finding.figures[4].value = static_cast<std::uint64_t>(holder->owner->pid);
  return finding;
}

Finding check_network(const NetworkLook& look) {
  Finding finding{"network", Level::Bad, "", "", {}};
  if (!look.exists) {
    finding.text = "no interface eth0: consoles are told 0.0.0.0";
    finding.advice = "give the lighting network's interface the name eth0 (a .link file), restart kadrel";
  } else if (!look.up) {
    finding.text = "eth0 is down";
    finding.advice = "sudo ip link set eth0 up";
  } else if (!look.carrier) {
    finding.text = "eth0 has no link: the cable, or the switch";
    finding.advice = "plug it in; look at both ends";
  } else if (look.address.empty()) {
    finding.text = "eth0 has no IPv4 address: consoles are told 0.0.0.0";
    finding.advice = "sudo ip addr add 10.0.0.5/24 brd + dev eth0 (or DHCP), restart kadrel";
  } else if (look.broadcast.empty() || look.broadcast == look.address) {
    finding.level = Level::Warning;
    finding.text = "eth0 " + look.address + ", no broadcast address: no node is searched for";
    finding.advice = "give it a netmask with room for one (not /31, /32), brd +; restart kadrel";
  } else {
    finding.level = Level::Ok;
    finding.text = "eth0 " + look.address + ", broadcast " + look.broadcast;
  }
  finding.figures = {
      {"interface", std::string("eth0")}, {"exists", look.exists},   {"up", look.up},
      {"carrier", look.carrier},          {"address", look.address}, {"broadcast", look.broadcast}};
  return finding;
}

void take_figures(const cue::TrafficFigures& figures, double seconds, std::uint32_t own, Heard& heard) {
  heard.seconds = seconds;
  std::map<std::uint16_t, unsigned> universes;  // and how many get in each other's way there
  std::map<std::uint32_t, std::string> senders;
  std::vector<std::uint16_t> sacn;
  for (const cue::StreamFigures& stream : figures.streams) {
    if (stream.protocol != cue::Protocol::ArtNet) {
      if (sacn.empty() || sacn.back() != stream.universe) sacn.push_back(stream.universe);
      continue;
    }
    if (own != 0 && stream.sender == own) continue;
    // What this host sends itself is not recorded. One address may be two senders.
    const unsigned sources = stream.counting == cue::Counting::Two ? 2 : 1;
    universes[stream.universe] += stream.contested ? sources : 0;
    senders.emplace(stream.sender, stream.name);
    const double rate = seconds > 0 ? static_cast<double>(stream.datagrams) / seconds : 0;
    heard.datagrams_per_second += rate;
    heard.bytes_per_second += rate * static_cast<double>(kDelaySize + kDmxHeaderSize + stream.slots);
  }
  for (const auto& [universe, contested] : universes) {
    heard.universes.push_back(universe);
    if (contested > 1) heard.contested.push_back(universe);
  }
  for (const auto& [address, name] : senders) heard.senders.push_back({address, name});
  std::sort(sacn.begin(), sacn.end());
  heard.sacn_universes = static_cast<std::uint64_t>(std::unique(sacn.begin(), sacn.end()) - sacn.begin());
}

Finding check_universes(const Heard& heard, std::optional<int> announced) {
  Finding finding{"universes", Level::Ok, "", "", {}};
  const auto beyond = std::find_if(heard.universes.begin(), heard.universes.end(),
                                   [&](std::uint16_t one) { return announced && one >= *announced; });
  finding.text = heard_text(heard);
  if (announced) finding.text += "; " + std::to_string(*announced) + " announced";
  if (!heard.error.empty()) {
    finding.level = Level::Warning;
    finding.advice = heard.advice;
  } else if (heard.universes.empty()) {
    finding.level = Level::Warning;
    finding.advice = heard.sacn_universes > 0 ? "kadrel records Art-Net: let the console send it"
                                              : "is the console on, in this network, and set to Art-Net?";
  } else if (beyond != heard.universes.end()) {
    finding.level = Level::Warning;
    finding.text += ", not " + universe_text(*beyond);
    finding.advice =
        "KADREL_UNIVERSE_COUNT=" + std::to_string(std::min(heard.universes.back() + 1, kUniverseLimit)) +
        " in /etc/default/kadrel, restart kadrel";
  } else if (heard.lost > 0) {
    finding.level = Level::Warning;
    finding.advice = "the rates are higher than shown: end what takes the processor (top), look again";
  }
  finding.figures = {{"listened_seconds", heard.seconds},
                     {"heard", static_cast<std::uint64_t>(heard.universes.size())},
                     {"highest", {}},
                     optional_figure("announced", announced),
                     {"datagrams_per_second", heard.datagrams_per_second},
                     {"sacn_universes", heard.sacn_universes},
                     {"not_looked_at", heard.lost}};
  if (!heard.universes.empty())
    finding.figures[2].value = static_cast<std::uint64_t>(heard.universes.back() + 1);
  return finding;
}

Finding check_senders(const Heard& heard) {
  constexpr std::size_t kShown = 2;
  Finding finding{"senders", Level::Ok, heard.senders.empty() ? "nobody heard" : "", "", {}};
  if (!heard.error.empty()) finding.text = "not listened";
  for (std::size_t at = 0; at < std::min(kShown, heard.senders.size()); ++at) {
    const Heard::Sender& sender = heard.senders[at];
    finding.text += (at > 0 ? ", " : "") + ipv4_text(sender.address);
    if (!sender.name.empty()) finding.text += " (" + sender.name + ")";
  }
  if (heard.senders.size() > kShown)
    finding.text += " and " + std::to_string(heard.senders.size() - kShown) + " more";
  if (!heard.contested.empty()) {
    finding.level = Level::Warning;
    finding.text += heard.contested.size() == 1
                        ? "; two on universe " + universe_text(heard.contested.front())
                        : "; two each on universes " + ranges_text(heard.contested);
    finding.advice = "both are recorded, and the levels jump: silence one";
  }
  finding.figures = {{"senders", static_cast<std::uint64_t>(heard.senders.size())},
                     {"contested_universes", static_cast<std::uint64_t>(heard.contested.size())},
                     {"first_contested", {}}};
  if (!heard.contested.empty())
    finding.figures[2].value = static_cast<std::uint64_t>(heard.contested.front() + 1);
  return finding;
}

Load load_of(const Heard& heard, std::optional<int> announced) {
  Load load;
  load.heard = !heard.universes.empty();
  load.universes = heard.universes.size();
  load.datagrams_per_second = heard.datagrams_per_second;
  load.bytes_per_second = heard.bytes_per_second;
  if (load.heard) return load;
  load.universes = static_cast<std::uint64_t>(std::max(1, announced.value_or(1)));
  load.datagrams_per_second = static_cast<double>(load.universes) * kFullRate;
  load.bytes_per_second = load.datagrams_per_second * (kDelaySize + kDmxHeaderSize + kDmxSlots);
  return load;
}

Finding check_buffer(const BufferLook& look, const Load& load) {
  Finding finding{"buffer", Level::Ok, "", "", {}};
  const auto size = look.limit ? look.limit : look.system_default;
  const double need = load.datagrams_per_second * kBufferForDatagram * kStall;
  const double frame = static_cast<double>(load.universes) * kBufferForDatagram;
  double lasts = 0;
  if (!size) {
    finding.level = Level::Warning;
    finding.text = "the kernel does not tell the size of the receive buffer";
    finding.advice = "sysctl net.core.rmem_default shows it; " + grouped(whole(need)) + " are wanted";
  } else {
    lasts = static_cast<double>(*size) / (load.datagrams_per_second * kBufferForDatagram);
    finding.text = grouped(*size) + " bytes" + (look.limit ? "" : " at the next start") + ", " +
                   seconds_words(lasts) + " " + load_text(load);
    if (static_cast<double>(*size) < frame) {
      finding.level = Level::Bad;
      finding.text += "; one frame takes " + grouped(whole(frame));
    } else if (static_cast<double>(*size) < need) {
      finding.level = Level::Warning;
      finding.text += "; 2 s take " + grouped(whole(need));
    }
    if (finding.level != Level::Ok) finding.advice = buffer_advice(look, need);
  }
  finding.figures = {optional_figure("bytes", look.limit),
                     optional_figure("system_default_bytes", look.system_default),
                     {"needed_bytes", whole(need)},
                     {"lasts_seconds", {}}};
  if (size) finding.figures[3].value = lasts;
  return finding;
}

Finding check_drops(const DropsLook& look) {
  Finding finding{"drops", Level::Ok, "", "", {}};
  const auto amount = [](std::uint64_t count) { return count > 0 ? grouped(count) : std::string("none"); };
  finding.text = look.socket ? amount(*look.socket) + " at kadrel's socket" : "kadrel has no socket";
  if (look.socket_meanwhile > 0) finding.text += " (" + grouped(look.socket_meanwhile) + " just now)";
  if (look.system) finding.text += ", " + amount(*look.system) + " in the system";
  if (look.socket_meanwhile > 0) {
    finding.level = Level::Bad;
    finding.advice = "kadrel gets no processor: end what takes it (top); a larger buffer helps";
  } else if (look.socket.value_or(0) > 0) {
    finding.level = Level::Warning;
    finding.advice = "recordings since may miss some (kadrel-cue info); a larger buffer helps";
  }
  finding.figures = {optional_figure("socket", look.socket),
                     {"socket_meanwhile", look.socket_meanwhile},
                     optional_figure("system", look.system)};
  return finding;
}

Finding check_space(const FolderLook& look, const Load& load) {
  Finding finding{"space", Level::Ok, "", "", {}};
  const double hours = static_cast<double>(look.free_bytes) / load.bytes_per_second / 3600;
  const double file_hours = 4.0 * static_cast<double>(kGib) / load.bytes_per_second / 3600;
  if (!judge_folder(look, finding)) {
    finding.text = hours_text(hours) + " " + load_text(load) + ", " +
                   bytes_text(static_cast<double>(look.free_bytes)) + " free in " + look.folder;
    if (hours < kFewHours) {
      finding.level = hours < kFewestHours ? Level::Bad : Level::Warning;
      finding.advice = "remove or move files, or record elsewhere (--cues)";
    } else if (look.ends_at_4_gib && file_hours < kFewHours) {
      finding.level = Level::Warning;
      finding.text += "; a file on FAT ends at 4 GiB";
      finding.advice = "begin a new file every " + hours_text(file_hours) + ", or use another disk";
    }
  }
  finding.figures = {{"folder", look.folder},
                     {"free_bytes", {}},
                     {"hours", {}},
                     {"bytes_per_second", load.bytes_per_second},
                     {"by_rate_heard", load.heard}};
  if (!look.answered) return finding;
  finding.figures[1].value = look.free_bytes;
  finding.figures[2].value = hours;
  return finding;
}

Finding check_speed(const FolderLook& look, const Load& load) {
  Finding finding{"speed", Level::Ok, "", "", {}};
  const double speed = look.seconds > 0 ? static_cast<double>(look.written) / look.seconds : 0;
  const std::string needed = bytes_text(load.bytes_per_second) + "/s";
  if (!look.answered || look.error != 0) {
    finding.text = "not tested";
  } else if (look.stuck || look.write_error != 0) {
    finding.level = Level::Bad;
    finding.text = look.stuck ? "the disk stands still: a write did not come back"
                              : "writing failed: " + system_text(look.write_error);
    finding.advice = "look at the disk (dmesg), or record elsewhere (--cues)";
  } else if (!look.tested) {
    finding.text = !look.recording        ? "not tested, there is too little space"
                   : look.recording_known ? "not tested, for the sake of the running recording"
                                          : "not tested, kadrel may be recording";
  } else {
    finding.text = bytes_text(speed) + "/s written; a recording takes " + needed;
    if (speed < kSpareSpeed * load.bytes_per_second) {
      finding.level = speed < load.bytes_per_second ? Level::Bad : Level::Warning;
      finding.text += speed < load.bytes_per_second ? ", which is more" : ", which leaves little to spare";
      finding.advice = "end what writes to it, or record onto a quicker disk (--cues)";
    }
  }
  finding.figures = {{"tested", look.tested},
                     {"written_bytes", look.written},
                     {"bytes_per_second", {}},
                     {"needed_bytes_per_second", load.bytes_per_second},
                     {"stuck", look.stuck}};
  if (look.tested) finding.figures[2].value = speed;
  return finding;
}

Finding check_priority(const PriorityLook& look) {
  Finding finding{"priority", Level::Ok, "", "", {}};
  finding.text = look.real_time_error == 0 ? "playbacks get real time" : "no real time for playbacks";
  if (look.nice) finding.text += "; kadrel has nice " + std::to_string(*look.nice);
  if (look.weight) finding.text += ", weight " + std::to_string(*look.weight);
  if (look.service_in_real_time) {
    finding.level = Level::Warning;
    finding.text += ", real time";
    finding.advice = "a call on the bus can stop it there: end that (chrt -a -o -p 0 $(pidof kadrel))";
  } else if (look.real_time_error != 0) {
    finding.level = Level::Warning;
    finding.advice = kRightsAdvice;
  }
  finding.figures = {{"real_time", look.real_time_error == 0},
                     {"service_nice", {}},
                     {"service_weight", {}},
                     {"service_in_real_time", look.service_in_real_time}};
  if (look.nice) finding.figures[1].value = static_cast<std::int64_t>(*look.nice);
  if (look.weight) finding.figures[2].value = static_cast<std::uint64_t>(*look.weight);
  return finding;
}

Finding check_log(LogAnswer answer, std::optional<LogOutput> output) {
  Finding finding{"log", Level::Ok, "the system log takes lines", "", {}};
  const LogOutput to = output.value_or(LogOutput::System);
  if (to != LogOutput::System) {
    finding.text = to == LogOutput::Console ? "on kadrel's console (KADREL_LOG_OUTPUT)"
                                            : "kadrel writes none (KADREL_LOG_OUTPUT)";
  } else if (answer != LogAnswer::Takes) {
    finding.level = Level::Warning;
    finding.text = answer == LogAnswer::Stuck     ? "the system log hangs: it takes no lines"
                   : answer == LogAnswer::Missing ? "there is no system log (/dev/log)"
                                                  : "nobody takes lines of the system log (/dev/log)";
    finding.advice = "start systemd-journald or rsyslog; or KADREL_LOG_OUTPUT=console";
  }
  static constexpr std::array<const char*, 3> kOutputs{"syslog", "console", "none"};
  finding.figures = {{"output", {}}, {"system_log_takes_lines", answer == LogAnswer::Takes}};
  if (output) finding.figures[0].value = std::string(kOutputs[static_cast<std::size_t>(*output)]);
  return finding;
}

}  // namespace kadrel_cue
