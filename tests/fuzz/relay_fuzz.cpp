#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "src/RelayRequest.h"
#include "tests/fuzz/script.h"

// A datagram that a local process wants relayed. Input: the manufacturer id (16 bits), then the datagram.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  const std::uint16_t manufacturer = script.word();
  const std::vector<char> datagram = script.bytes(size);
  const auto request = read_relay_request(datagram.data(), datagram.size(), manufacturer);

  const auto at = [&datagram](std::size_t offset) { return static_cast<std::uint8_t>(datagram[offset]); };
  const auto number_at = [&at](std::size_t offset) {
    return at(offset) + 256U * (at(offset + 1) + 256U * (at(offset + 2) + 256U * at(offset + 3)));
  };
  const bool expected = datagram.size() >= 25 && number_at(0) == manufacturer;
  REQUIRE(request.has_value() == expected);
  if (!request) return 0;

  std::string address;
  for (std::size_t i = 4; i < 19 && datagram[i] != 0; ++i) address += datagram[i];
  REQUIRE(request->address == address);
  REQUIRE(static_cast<std::uint32_t>(request->port) == number_at(20));
  REQUIRE(request->payload == datagram.data() + 24);
  REQUIRE(request->size == datagram.size() - 24);
  REQUIRE(is_allowed_destination(request->address, request->port) ==
          (!address.empty() && address != "127.0.0.1" && request->port > 1023 && request->port < 65536));
  return 0;
}
