#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <filesystem>
#include <ostream>
#include <string>
#include <system_error>
#include <vector>

#include "artnet/ArtNet.h"
#include "cue/CueError.h"
#include "cue/Time.h"
#include "cue/live/LiveCapture.h"
#include "cue/live/Traffic.h"
#include "kesto/network_interface.h"
#include "kesto/wall_clock.h"
#include "tools/Arguments.h"
#include "tools/BusProbe.h"
#include "tools/Command.h"
#include "tools/Finding.h"
#include "tools/FolderTest.h"
#include "tools/HostLook.h"
#include "tools/Options.h"
#include "tools/ReadyChecks.h"
#include "tools/ServiceClient.h"
#include "tools/ServiceProcess.h"
#include "tools/Terminal.h"

namespace kadrel_cue {
namespace {

constexpr const char* kLightingInterface = "eth0";
constexpr std::int64_t kLongestListening = 3600 * cue::kSecond;

// A service that works answers within milliseconds.
constexpr double kServicePatience = 5;  // seconds
constexpr std::chrono::seconds kBusPatience(5);

ServiceLook look_at_bus() {
  ServiceLook look;
  try {
    ServiceClient client([](double seconds) {
      if (seconds > kServicePatience) throw cue::CueError("no answer within 5 s");
    });
    const auto process = client.process();
    if (!process) {
      look.can_be_started = client.can_be_started();
      return look;
    }
    look.process = look_at_service(*process);
    try {
      look.state = client.status();
    } catch (const cue::CueError& error) {
      look.call_error = error.what();
    }
  } catch (const cue::CueError& error) {
    look.bus_error = error.what();
  }
  return look;
}

/// The first look. It waits for a bus that hangs no longer than the patience.
ServiceLook try_bus() {
  if (session_bus_answers(kBusPatience)) return look_at_bus();
  ServiceLook look;
  look.bus_error = "it does not answer, it hangs: log in anew, or end it; kadrel ends with it";
  return look;
}

PortLook look_at_port(const std::optional<ServiceProcess>& service) {
  PortLook look;
  look.port = service && service->port != 0 ? service->port : kArtNetPort;
  look.service = service ? service->pid : 0;
  look.known = knows_udp_sockets();
  for (const UdpSocketInfo& socket : udp_sockets(look.port))
    look.holders.push_back({socket, owner_of_socket(socket.inode)});
  return look;
}

/// Address of the lighting interface, host order; 0: none.
std::uint32_t own_address() {
  const std::string hex = kesto::net::interface_ip_hex(kLightingInterface);
  std::uint32_t address = 0;
  std::from_chars(hex.data(), hex.data() + hex.size(), address, 16);
  return address;
}

/// Hands all that arrives within the time to @p traffic. @return seconds of listening
double follow(cue::LiveCapture& capture, cue::Traffic& traffic, std::int64_t time) {
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  const auto end = begin + std::chrono::nanoseconds(time);
  for (auto now = begin; now < end; now = Clock::now()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now).count();
    pollfd ready{capture.descriptor(), POLLIN, 0};
    poll(&ready, 1, static_cast<int>(std::min<std::int64_t>(left, INT_MAX)));
    capture.read([&](const cue::UdpDatagram& datagram, std::int64_t at) { traffic.add(datagram, at); });
  }
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

Heard listen(std::int64_t time) {
  Heard heard;
  try {
    cue::LiveCapture capture(kLightingInterface);
    cue::Traffic traffic;
    const double seconds = follow(capture, traffic, time);
    take_figures(traffic.figures(kesto::wall_time()), seconds, own_address(), heard);
    heard.lost = capture.lost();
  } catch (const cue::NoCaptureRight&) {
    heard.error = "no right to capture";
    heard.advice = std::string(kRightsAdvice) + "; for one group alone chgrp and chmod 750 it before";
  } catch (const cue::CueError& error) {
    heard.error = error.what();
    heard.advice = "mend the network first (see above), then look again";
  }
  return heard;
}

std::string current_folder() {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::current_path(error);
  return error ? "." : path.string();
}

class Ready : public Command {
public:
  CLI::App* add_to(CLI::App& app) override {
    CLI::App* const command =
        add_command(app, "ready", "Checks before a show whether everything is ready to record.",
                    "  kadrel-cue ready --cues /srv/cues\n"
                    "  kadrel-cue ready --json | jq -r '.checks[] | select(.level != \"ok\") | .advice'");
    add_parsed<std::int64_t>(
        *command, "--listen", parse_time, [this](std::int64_t time) { listening = time; }, kTimeWords,
        "How long to listen to the network (3 s)")
        ->option_text("TIME");
    command->add_option("--cues", folder, "The folder of the recordings (the current one)")
        ->option_text("DIR");
    command->add_flag("--json", json, "For programs: one JSON object");
    return command;
  }

  void check() const override {
    if (listening <= 0 || listening > kLongestListening)
      throw CLI::ValidationError("--listen takes more than 0 s and at most an hour");
  }

  int run(std::ostream& out, std::ostream& err) override {
    ServiceLook service = try_bus();
    const PortLook before = look_at_port(service.process);
    const bool on_terminal = isatty(STDERR_FILENO) == 1;
    if (on_terminal) err << "listening for " << cue::format_time(listening) << " ..." << std::flush;
    const Heard heard = listen(listening);
    // Meanwhile a recording may have begun, whose disk is to be left alone. Who hangs is not waited for
    // again.
    if (service.bus_error.empty() && service.call_error.empty()) service = look_at_bus();
    const std::vector<Finding> findings = judge(service, before, heard);
    if (on_terminal) err << kClearLine << std::flush;
    out << (json ? json_of(findings) : screen_of(findings));
    return is_ready(findings) ? 0 : 1;
  }

private:
  std::vector<Finding> judge(const ServiceLook& service, const PortLook& before, const Heard& heard) const {
    const auto& process = service.process;
    const PortLook port = look_at_port(process);
    const auto announced = process ? process->announced : std::nullopt;
    const Load load = load_of(heard, announced);
    const auto* const socket = service_socket(port);
    const auto* const socket_before = service_socket(before);
    DropsLook drops{std::nullopt, 0, receive_errors()};
    BufferLook buffer{std::nullopt, default_receive_buffer()};
    if (socket != nullptr) {
      drops.socket = socket->drops;
      if (socket_before != nullptr && socket_before->inode == socket->inode)
        drops.socket_meanwhile = socket->drops - std::min(socket->drops, socket_before->drops);
      buffer.limit = socket->buffer_limit;
    }
    const bool recording =
        process && service.state.value_or(ServiceClient::State::Recording) == ServiceClient::State::Recording;
    FolderLook disk = look_at_folder(folder.empty() ? current_folder() : folder, recording);
    disk.recording_known = service.state.has_value();
    return {check_service(service, KADREL_VERSION),
            check_port(port),
            check_network(look_at_network()),
            check_universes(heard, announced),
            check_senders(heard),
            check_buffer(buffer, load),
            check_drops(drops),
            check_space(disk, load),
            check_speed(disk, load),
            check_priority(look_at_priority(process ? process->pid : 0)),
            check_log(ask_log("/dev/log"), process ? process->log : std::nullopt)};
  }

  std::int64_t listening = 3 * cue::kSecond;
  std::string folder;
  bool json = false;
};

}  // namespace

std::unique_ptr<Command> make_ready() {
  return std::make_unique<Ready>();
}

}  // namespace kadrel_cue
