#include "src/RelayRequest.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

constexpr std::uint16_t kManufacturer = 0x7074;

/// A datagram: manufacturer id, address field cut or filled to 16 bytes, port and payload.
std::string datagram(std::uint32_t manufacturer, std::string address, std::int32_t port,
                     const std::string& payload) {
  address.resize(16, '\0');
  return std::string(reinterpret_cast<const char*>(&manufacturer), 4) + address +
         std::string(reinterpret_cast<const char*>(&port), 4) + payload;
}

/// What is made of a datagram, as one text.
std::string read(const std::string& bytes, std::uint16_t manufacturer = kManufacturer) {
  const auto request = read_relay_request(bytes.data(), bytes.size(), manufacturer);
  if (!request) return "nothing";
  return request->address + '|' + std::to_string(request->port) + '|' +
         std::string(request->payload, request->size);
}

TEST(RelayRequest, HoldsAddressPortAndPayload) {
  EXPECT_EQ(read(datagram(kManufacturer, "10.0.0.21", 6454, "payload")), "10.0.0.21|6454|payload");
  EXPECT_EQ(read(datagram(kManufacturer, "255.255.255.255", 6454, "payload")),
            "255.255.255.255|6454|payload");
}

TEST(RelayRequest, NeedsAtLeastOneByteOfPayload) {
  const std::string whole = datagram(kManufacturer, "10.0.0.21", 6454, "p");
  ASSERT_EQ(whole.size(), 25U);
  EXPECT_EQ(read(whole), "10.0.0.21|6454|p");
  for (std::size_t size = 0; size < 25; ++size) EXPECT_EQ(read(whole.substr(0, size)), "nothing") << size;
}

TEST(RelayRequest, NeedsTheManufacturerInAll32Bits) {
  EXPECT_EQ(read(datagram(0x7073, "10.0.0.21", 6454, "p")), "nothing");
  EXPECT_EQ(read(datagram(0x17074, "10.0.0.21", 6454, "p")), "nothing");
  EXPECT_EQ(read(datagram(0x70740000, "10.0.0.21", 6454, "p")), "nothing");
  EXPECT_EQ(read(datagram(0, "10.0.0.21", 6454, "p"), 0), "10.0.0.21|6454|p");
  EXPECT_EQ(read(datagram(0xFFFF, "10.0.0.21", 6454, "p"), 0xFFFF), "10.0.0.21|6454|p");
}

TEST(RelayRequest, AddressEndsAtItsZeroByteOrAfter15Characters) {
  EXPECT_EQ(read(datagram(kManufacturer, std::string("ab\0cd", 5), 1, "p")), "ab|1|p");
  EXPECT_EQ(read(datagram(kManufacturer, "0123456789abcdef", 1, "p")), "0123456789abcde|1|p");
  EXPECT_EQ(read(datagram(kManufacturer, "", 1, "p")), "|1|p");
}

TEST(RelayRequest, PortIsA32BitNumber) {
  EXPECT_EQ(read(datagram(kManufacturer, "a", std::numeric_limits<std::int32_t>::max(), "p")),
            "a|2147483647|p");
  EXPECT_EQ(read(datagram(kManufacturer, "a", std::numeric_limits<std::int32_t>::min(), "p")),
            "a|-2147483648|p");
}

TEST(RelayRequest, PayloadMayHoldAnyBytes) {
  const std::string payload = std::string("Art-Net\0\x00\x20%n", 12) + std::string(8167 - 12, '\xFF');
  EXPECT_EQ(read(datagram(kManufacturer, "a", 1, payload)), "a|1|" + payload);
}

TEST(AllowedDestination, IsNeitherNowhereNorTheServiceItself) {
  EXPECT_TRUE(is_allowed_destination("10.0.0.21", 6454));
  EXPECT_TRUE(is_allowed_destination("255.255.255.255", 6454));
  EXPECT_TRUE(is_allowed_destination("127.0.0.2", 6454));
  EXPECT_FALSE(is_allowed_destination("", 6454));
  EXPECT_FALSE(is_allowed_destination("127.0.0.1", 6454));
}

TEST(AllowedDestination, HasAPortFrom1024To65535) {
  using Limits = std::numeric_limits<std::int32_t>;
  for (const std::int32_t port : {1024, 1025, 6454, 65534, 65535}) {
    EXPECT_TRUE(is_allowed_destination("10.0.0.21", port)) << port;
  }
  for (const std::int32_t port : {Limits::min(), -1, 0, 1, 1023, 65536, 71990, Limits::max()}) {
    EXPECT_FALSE(is_allowed_destination("10.0.0.21", port)) << port;
  }
}

}  // namespace
