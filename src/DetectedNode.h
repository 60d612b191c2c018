#pragma once

#include <QtGlobal>
#include <vector>

#include "artnet/ArtNet.h"
#include "src/ArtnetNode.h"

/// One port of an ArtPollReply: its ArtnetNode (id -1) as plain bytes.
///
/// memcmp() orders the bytes as operator< orders ArtnetNodes: numbers have the high byte first, texts are
/// padded with zero bytes. So the look-up of a reply among thousands of nodes needs no allocation.
class DetectedNode {
public:
  /// Port @p index (0..3) of a received reply.
  DetectedNode(const ArtPollReply& reply, int index);

  /// The next port of the same reply.
  void set_port(const ArtPollReply& reply, int index);

  qint32 universe() const { return universe_bytes[0] << 8 | universe_bytes[1]; }
  const char* ip() const { return ip_text; }  // dotted decimal, at most 15 characters
  qint32 port() const { return port_bytes[0] << 8 | port_bytes[1]; }
  ArtnetNode record() const;

  friend bool operator<(const DetectedNode& a, const DetectedNode& b);
  friend bool operator==(const DetectedNode& a, const DetectedNode& b);

private:
  quint8 universe_bytes[2];
  char ip_text[16] = {};
  quint8 port_bytes[2];
  char short_name[sizeof ArtPollReply::short_name] = {};  // Latin-1, zero-terminated, like the long name
  char long_name[sizeof ArtPollReply::long_name] = {};
};

using DetectedNodes = std::vector<DetectedNode>;

/// Whether port @p index (0..3) of a reply outputs DMX512 or Art-Net data from the network.
bool is_accepted_port(const ArtPollReply& reply, int index);
