#include "kesto/device_info.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "kesto/network_interface.h"
#include "unit/support/child.h"
#include "unit/support/private_network.h"

namespace device = kesto::device;
namespace net = kesto::net;

namespace {

bool sockets_fail = false;

}  // namespace

// The linker sends the calls of the library under test here. The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);

int __wrap_socket(int domain, int type, int protocol) {
  if (!sockets_fail) return __real_socket(domain, type, protocol);
  errno = EMFILE;
  return -1;
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

/// Every value of the device as one text.
std::string values() {
  return device::short_name() + '/' + device::long_name() + '/' + device::manufacturer() + '/' +
         device::model() + '/' + std::to_string(device::oem_id()) + '/' +
         std::to_string(device::manufacturer_id()) + '/' + device::modules() + '/' + device::ip_address() +
         '/' + device::broadcast_ip() + '/' + device::mac_address();
}

const std::string kDefaults = "Recorder/Tolvek ArtNet Recorder/Tolvek/K-310/0/0/recorder///";

void install_brand(const std::string& json) {
  std::filesystem::create_directories("/opt/tolvek/data/cfg");
  std::ofstream("/opt/tolvek/data/cfg/brand.json") << json;
}

const char* const kMakeEth0 =
    "ip link add eth0 type veth peer name far && ip link set eth0 address b8:27:eb:12:34:56 up";

int open_descriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

/// Runs a scenario in namespaces of its own.
void expect_to_hold(const char* scenario) {
  const unit::Outcome child = unit::run_child(scenario);
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CHILD_SCENARIO(bare_appliance) {
  ASSERT_TRUE(unit::enter_private_network_and_opt());
  EXPECT_EQ(values(), kDefaults);
  const int before = open_descriptors();
  device::initialize();
  EXPECT_EQ(values(), kDefaults);
  EXPECT_EQ(open_descriptors(), before);
}

TEST(DeviceInfo, WithoutBrandFileAndInterfaceIsTheDefaults) {
  expect_to_hold("bare_appliance");
}

CHILD_SCENARIO(complete_appliance) {
  ASSERT_TRUE(unit::enter_private_network_and_opt());
  ASSERT_TRUE(unit::shell(kMakeEth0));
  ASSERT_TRUE(unit::shell("ip addr add 192.168.1.20/24 broadcast 192.168.1.255 dev eth0"));
  install_brand(R"({"short_name": "S", "long_name": "Lé", "manufacturer": "M", "model": "O", "oem_id": 8465,
                    "manufacturer_id": "28788", "modules": ["recorder", "player"]})");
  EXPECT_EQ(values(), kDefaults);
  device::initialize();
  const std::string expected = "S/Lé/M/O/8465/28788/recorder|player/c0a80114/192.168.1.255/b827eb123456";
  EXPECT_EQ(values(), expected);

  install_brand(R"({"short_name": "changed"})");
  ASSERT_TRUE(unit::shell("ip addr add 10.0.0.1/8 broadcast 10.255.255.255 dev eth0"));
  device::initialize();
  EXPECT_EQ(values(), expected);
}

TEST(DeviceInfo, IsFilledOnceFromBrandFileAndInterface) {
  expect_to_hold("complete_appliance");
}

CHILD_SCENARIO(interface_that_comes_late) {
  ASSERT_TRUE(unit::enter_private_network_and_opt());
  device::initialize();
  ASSERT_TRUE(unit::shell(kMakeEth0));
  ASSERT_TRUE(unit::shell("ip addr add 192.168.1.20/24 broadcast 192.168.1.255 dev eth0"));
  install_brand(R"({"short_name": "late"})");
  device::initialize();
  EXPECT_EQ(values(), kDefaults);
}

TEST(DeviceInfo, StaysAsItWasWhenTheInterfaceComesLate) {
  expect_to_hold("interface_that_comes_late");
}

CHILD_SCENARIO(unusable_brand_file) {
  ASSERT_TRUE(unit::enter_private_network_and_opt());
  ASSERT_TRUE(unit::shell(kMakeEth0));
  install_brand(R"([{"short_name": "S"}])");
  device::initialize();
  EXPECT_EQ(values(), kDefaults + "b827eb123456");
}

TEST(DeviceInfo, WithAnUnusableBrandFileStillTakesTheInterface) {
  expect_to_hold("unusable_brand_file");
}

CHILD_SCENARIO(interface_without_ipv4) {
  ASSERT_TRUE(unit::enter_private_network_and_opt());
  ASSERT_TRUE(unit::shell(kMakeEth0));
  ASSERT_TRUE(unit::shell("ip -6 addr add fd00::1/64 dev eth0 nodad"));
  EXPECT_EQ(net::interface_ip_hex("eth0"), "");
  EXPECT_EQ(net::interface_broadcast("eth0"), "");
  EXPECT_EQ(net::interface_mac_hex("eth0"), "b827eb123456");
}

TEST(NetworkInterface, WithoutIpv4AddressHasOnlyAHardwareAddress) {
  expect_to_hold("interface_without_ipv4");
}

CHILD_SCENARIO(interface_with_several_addresses) {
  ASSERT_TRUE(unit::enter_private_network_and_opt());
  ASSERT_TRUE(unit::shell(kMakeEth0));
  ASSERT_TRUE(
      unit::shell("ip addr add 10.0.0.1/8 broadcast 10.255.255.255 dev eth0 && "
                  "ip addr add 2.0.0.9/8 broadcast 2.255.255.255 dev eth0 && "
                  "ip -6 addr add fd00::1/64 dev eth0 nodad"));
  EXPECT_EQ(net::interface_ip_hex("eth0"), "0a000001");
  EXPECT_EQ(net::interface_broadcast("eth0"), "2.255.255.255");
}

TEST(NetworkInterface, BroadcastIsThatOfTheLastEntryThatHasOne) {
  expect_to_hold("interface_with_several_addresses");
}

TEST(NetworkInterface, LoopbackHasItsAddressAndNoHardwareAddress) {
  EXPECT_EQ(net::interface_ip_hex("lo"), "7f000001");
  EXPECT_EQ(net::interface_mac_hex("lo"), "000000000000");
}

TEST(NetworkInterface, ThatDoesNotExistHasNothing) {
  for (const char* const name : {"none0", "", "a name that is longer than fifteen characters"}) {
    EXPECT_EQ(net::interface_ip_hex(name), "") << name;
    EXPECT_EQ(net::interface_mac_hex(name), "") << name;
    EXPECT_EQ(net::interface_broadcast(name), "") << name;
  }
}

TEST(NetworkInterface, IsEmptyWhenNoSocketCanBeMade) {
  sockets_fail = true;
  EXPECT_EQ(net::interface_ip_hex("lo"), "");
  EXPECT_EQ(net::interface_mac_hex("lo"), "");
  sockets_fail = false;
}

TEST(NetworkInterface, RequestsLeaveNoDescriptorOpen) {
  const int before = open_descriptors();
  for (int i = 0; i < 10; ++i) {
    net::interface_ip_hex("lo");
    net::interface_mac_hex("none0");
  }
  EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
