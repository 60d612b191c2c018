#pragma once

namespace unit {

/// Moves the calling process, which must still have a single thread, into a network namespace of its own in
/// which only the loopback interface is up. @return false when the system does not permit it.
bool enter_private_network();

/// As enter_private_network(), and gives the process a mount namespace of its own in which /opt is empty.
bool enter_private_network_and_opt();

/// Runs a shell command line. @return true when it succeeded.
bool shell(const char* command);

}  // namespace unit
