#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/ReadyChecks.h"

/// What the system says about itself, without any privilege.
namespace kadrel_cue {

/// eth0.
NetworkLook look_at_network();

/// UdpRcvbufErrors in the text of /proc/net/snmp; nothing when it is not in there.
std::optional<std::uint64_t> receive_errors_in(const std::string& snmp);

/// UdpRcvbufErrors of this network namespace.
std::optional<std::uint64_t> receive_errors();

/// The receive buffer of a socket that is opened now (net.core.rmem_default); nothing where it is not told.
std::optional<std::uint64_t> default_receive_buffer();

/// @param service  its process; 0: it does not run
PriorityLook look_at_priority(pid_t service);

/// Whether the log at @p path takes a line now. None is written.
LogAnswer ask_log(const std::string& path);

}  // namespace kadrel_cue
