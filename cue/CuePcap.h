#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

namespace cue {

/// Writes a recording as a capture of Ethernet frames with nanoseconds (pcap). A recording knows no
/// addresses, so every frame goes from 2.0.0.1 to 2.255.255.255, port 6454; the first has the time 0.
/// @throws CueError when the recording is damaged or longer than a capture can tell, or a file cannot be read
/// or written
void export_pcap(const std::string& file, const std::string& output, std::ostream& out);

/// Writes the Art-Net of a capture (pcap or pcapng) as a recording: the UDP datagrams to @p port that the
/// recorder would write. @return exit code: 1 when the capture breaks off; what is good of it is written then
/// @throws CueError
int run_import(const std::string& capture, int port, const std::string& output, std::ostream& out,
               std::ostream& err);

}  // namespace cue
