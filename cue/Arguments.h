#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The words of the command line, and numbers for people.
namespace cue {

constexpr std::int64_t kSecond = 1'000'000'000;

/// "90", "1.5", "1m30.5", "2h3m" or "1.5s" in nanoseconds; nothing when it is no such time.
std::optional<std::int64_t> parse_time(const std::string& text);

/// "2.977 s", "1m30.500s", "2h03m04.000s"; nanoseconds are rounded to milliseconds.
std::string format_time(std::int64_t nanoseconds);

/// @p a + @p b, both not negative. @throws CueError when no time can be so long
std::int64_t add_times(std::int64_t a, std::int64_t b);

/// Universes of the command line, 1-based as consoles show them, kept by port-address.
class UniverseSet {
public:
  UniverseSet() : members(kPortAddresses, false) {}

  void insert(std::uint16_t port_address) { members[port_address] = true; }
  bool holds(std::uint16_t port_address) const { return members[port_address]; }

  /// Port-addresses of 16 bits: a packet may set the bit that Art-Net leaves zero.
  static constexpr std::size_t kPortAddresses = 65536;

private:
  std::vector<bool> members;
};

/// "1,3,5-8"; nothing when it is no such list of numbers from 1 to 65536.
std::optional<UniverseSet> parse_universes(const std::string& text);

/// "1=5" as two port-addresses; nothing when it is no such pair. @return {from, to}
std::optional<std::pair<std::uint16_t, std::uint16_t>> parse_universe_change(const std::string& text);

/// "ADDRESS" or "ADDRESS:PORT" of IPv4.
struct Destination {
  std::string address;
  int port = 0;
};

/// @param default_port  when the text names none
/// @return nothing when it is no such text, or its port not in 1..65535
std::optional<Destination> parse_destination(const std::string& text, int default_port);

/// "net/sub-net/universe" of a port-address, each counted from 0.
std::string port_address_text(std::uint16_t port_address);

/// @p text as a JSON string, quotes included. Bytes that are no UTF-8 become U+FFFD.
std::string json_string(const std::string& text);

}  // namespace cue
