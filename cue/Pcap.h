#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "cue/AtomicFile.h"
#include "cue/Exported.h"
#include "cue/Frames.h"
#include "cue/GoodRecords.h"
#include "cue/Input.h"

namespace cue {

/// Writes a recording as a capture of Ethernet frames (pcap, times in ns), one for each datagram. A recording
/// knows no addresses, so every frame goes from 2.0.0.1 to 2.255.255.255, port 6454; the first has the time
/// 0. The import gives the recording again, byte for byte.
/// @throws CueError when the recording is damaged and no damage is passed over, it is longer than a capture
/// can express (136 years), or a file cannot be read or written
Exported export_pcap(const Input& file, const Output& output, const OnDamage& on_damage = {});

/// The same as E1.31 packets, one for each ArtDmx: from 2.0.0.1 to the multicast group of the universe, port
/// 5568. Universe n is universe n (port-address n-1). Sequence numbers keep their steps: what was missing,
/// repeated or out of order is so in the capture; the import gives the same numbers again. Packets of senders
/// that do not count are counted.
/// @throws CueError as export_pcap()
Exported export_pcap_sacn(const Input& file, const Output& output, const OnDamage& on_damage = {});

/// Whether a file that begins with these bytes is a pcap capture.
bool begins_pcap(const std::uint8_t* head, std::size_t size);

/// Reads a pcap capture with libpcap.
/// @param source  from the front of the file on
/// @param name    of the file in messages
/// @throws CueError when libpcap does not understand the file
std::unique_ptr<FrameSource> open_pcap(ByteSource source, const std::string& name);

}  // namespace cue
