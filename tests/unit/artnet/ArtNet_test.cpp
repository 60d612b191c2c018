#include "artnet/ArtNet.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>

#include "unit/artnet/packets.h"

namespace {

using Switches = std::tuple<unsigned, unsigned, unsigned>;

Switches switches_of(std::uint16_t universe) {
  std::uint8_t uni = 0;
  std::uint8_t subnet = 0;
  std::uint8_t net = 0;
  universe_to_addr(universe, uni, subnet, net);
  return {uni, subnet, net};
}

TEST(ArtNet, IdentifierIsArtNetAndAZeroByte) {
  EXPECT_EQ(std::string(kArtNetId, kArtNetIdSize), packets::text("\x41\x72\x74\x2D\x4E\x65\x74\x00", 8));
  EXPECT_EQ(kArtNetPort, 0x1936);
}

TEST(ArtNet, OpCodesHaveTheirNumbers) {
  EXPECT_EQ(OpPoll, 0x2000);
  EXPECT_EQ(OpPollReply, 0x2100);
  EXPECT_EQ(OpDmx, 0x5000);
  EXPECT_EQ(OpTrigger, 0x9900);
  EXPECT_EQ(OpOemVfps, 0x00FF);
  EXPECT_EQ(OpOemVfpsNs, 0x00FE);
}

TEST(ArtNetRecords, AreCopiedByteForByte) {
  EXPECT_TRUE(std::is_trivially_copyable_v<ArtHeader>);
  EXPECT_TRUE(std::is_trivially_copyable_v<ArtPoll>);
  EXPECT_TRUE(std::is_trivially_copyable_v<ArtPollReply>);
  EXPECT_TRUE(std::is_trivially_copyable_v<ArtDmx>);
  EXPECT_TRUE(std::is_trivially_copyable_v<ArtTrigger>);
  EXPECT_TRUE(std::is_trivially_copyable_v<ArtOemVfps>);
  EXPECT_TRUE(std::is_trivially_copyable_v<ArtOemVfpsNs>);
}

#define EXPECT_FIELD(RECORD, FIELD, OFFSET, SIZE)     \
  EXPECT_EQ(offsetof(RECORD, FIELD), size_t{OFFSET}); \
  EXPECT_EQ(sizeof(RECORD::FIELD), size_t{SIZE})

TEST(ArtNetRecords, HeaderHasTheLayoutOfTheWire) {
  EXPECT_EQ(sizeof(ArtHeader), 10U);
  EXPECT_FIELD(ArtHeader, id, 0, 8);
  EXPECT_FIELD(ArtHeader, opcode, 8, 2);
}

TEST(ArtNetRecords, PollHasTheLayoutOfTheWire) {
  EXPECT_EQ(sizeof(ArtPoll), 14U);
  EXPECT_FIELD(ArtPoll, prot_ver_hi, 10, 1);
  EXPECT_FIELD(ArtPoll, prot_ver_lo, 11, 1);
  EXPECT_FIELD(ArtPoll, flags, 12, 1);
  EXPECT_FIELD(ArtPoll, diag_priority, 13, 1);
}

TEST(ArtNetRecords, PollReplyHasTheLayoutOfTheWire) {
  EXPECT_EQ(sizeof(ArtPollReply), 239U);
  EXPECT_FIELD(ArtPollReply, ip, 10, 4);
  EXPECT_FIELD(ArtPollReply, port, 14, 2);
  EXPECT_FIELD(ArtPollReply, vers_info, 16, 2);
  EXPECT_FIELD(ArtPollReply, net_switch, 18, 1);
  EXPECT_FIELD(ArtPollReply, sub_switch, 19, 1);
  EXPECT_FIELD(ArtPollReply, oem, 20, 2);
  EXPECT_FIELD(ArtPollReply, ubea_version, 22, 1);
  EXPECT_FIELD(ArtPollReply, status1, 23, 1);
  EXPECT_FIELD(ArtPollReply, esta_man, 24, 2);
  EXPECT_FIELD(ArtPollReply, short_name, 26, 18);
  EXPECT_FIELD(ArtPollReply, long_name, 44, 64);
  EXPECT_FIELD(ArtPollReply, node_report, 108, 64);
  EXPECT_FIELD(ArtPollReply, num_ports, 172, 2);
  EXPECT_FIELD(ArtPollReply, port_types, 174, 4);
  EXPECT_FIELD(ArtPollReply, good_input, 178, 4);
  EXPECT_FIELD(ArtPollReply, good_output, 182, 4);
  EXPECT_FIELD(ArtPollReply, sw_in, 186, 4);
  EXPECT_FIELD(ArtPollReply, sw_out, 190, 4);
  EXPECT_FIELD(ArtPollReply, sw_video, 194, 1);
  EXPECT_FIELD(ArtPollReply, sw_macro, 195, 1);
  EXPECT_FIELD(ArtPollReply, sw_remote, 196, 1);
  EXPECT_FIELD(ArtPollReply, spare, 197, 3);
  EXPECT_FIELD(ArtPollReply, style, 200, 1);
  EXPECT_FIELD(ArtPollReply, mac, 201, 6);
  EXPECT_FIELD(ArtPollReply, bind_ip, 207, 4);
  EXPECT_FIELD(ArtPollReply, bind_index, 211, 1);
  EXPECT_FIELD(ArtPollReply, status2, 212, 1);
  EXPECT_FIELD(ArtPollReply, filler, 213, 26);
}

TEST(ArtNetRecords, DmxHasTheLayoutOfTheWire) {
  EXPECT_EQ(sizeof(ArtDmx), 530U);
  EXPECT_FIELD(ArtDmx, prot_ver_hi, 10, 1);
  EXPECT_FIELD(ArtDmx, prot_ver_lo, 11, 1);
  EXPECT_FIELD(ArtDmx, sequence, 12, 1);
  EXPECT_FIELD(ArtDmx, physical, 13, 1);
  EXPECT_FIELD(ArtDmx, universe, 14, 2);
  EXPECT_FIELD(ArtDmx, length, 16, 2);
  EXPECT_FIELD(ArtDmx, data, 18, 512);
}

TEST(ArtNetRecords, TriggerHasTheLayoutOfTheWire) {
  EXPECT_EQ(sizeof(ArtTrigger), 530U);
  EXPECT_FIELD(ArtTrigger, prot_ver, 10, 2);
  EXPECT_FIELD(ArtTrigger, filler, 12, 2);
  EXPECT_FIELD(ArtTrigger, oem_code, 14, 2);
  EXPECT_FIELD(ArtTrigger, key, 16, 1);
  EXPECT_FIELD(ArtTrigger, sub_key, 17, 1);
  EXPECT_FIELD(ArtTrigger, data, 18, 512);
}

TEST(ArtNetRecords, OemPacketsHaveTheLayoutOfTheWire) {
  EXPECT_EQ(sizeof(ArtOemVfps), 14U);
  EXPECT_FIELD(ArtOemVfps, payload, 10, 4);
  EXPECT_EQ(sizeof(ArtOemVfpsNs), 18U);
  EXPECT_FIELD(ArtOemVfpsNs, payload, 10, 8);
}

TEST(SwapWord, ExchangesTheTwoBytes) {
  EXPECT_EQ(swap_word(0x1234), 0x3412);
  EXPECT_EQ(swap_word(0x0002), 512);  // wire bytes 02 00
  for (unsigned high = 0; high < 256; ++high) {
    for (unsigned low = 0; low < 256; ++low) {
      ASSERT_EQ(swap_word(static_cast<std::uint16_t>(high * 256 + low)), low * 256 + high);
    }
  }
}

TEST(UniverseToAddr, GivesTheSwitchesInProgramForm) {
  EXPECT_EQ(switches_of(1), Switches(0x80, 0x80, 0x80));
  EXPECT_EQ(switches_of(17), Switches(0x80, 0x81, 0x80));
  EXPECT_EQ(switches_of(0x0124), Switches(0x83, 0x82, 0x81));
  EXPECT_EQ(switches_of(32768), Switches(0x8F, 0x8F, 0xFF));
}

TEST(UniverseToAddr, WrapsUniverseZeroToTheLastPortAddress) {
  EXPECT_EQ(switches_of(0), Switches(0x8F, 0x8F, 0xFF));
}

TEST(UniverseToAddr, CountsEveryPortAddress) {
  unsigned universe = 0;
  for (unsigned turn = 0; turn < 2; ++turn) {  // universes beyond 32768 start anew
    for (unsigned net = 0; net < 128; ++net) {
      for (unsigned subnet = 0; subnet < 16; ++subnet) {
        for (unsigned uni = 0; uni < 16; ++uni) {
          ++universe;
          ASSERT_EQ(switches_of(static_cast<std::uint16_t>(universe)),
                    Switches(128 + uni, 128 + subnet, 128 + net))
              << universe;
        }
      }
    }
  }
  EXPECT_EQ(universe, 65536U);
}

TEST(AddrToUniverse, CountsEveryPortAddressFromOne) {
  EXPECT_EQ(addr_to_universe(0, 0, 0), 1);
  EXPECT_EQ(addr_to_universe(15, 15, 127), 32768);
  unsigned universe = 0;
  for (unsigned net = 0; net < 128; ++net) {
    for (unsigned subnet = 0; subnet < 16; ++subnet) {
      for (unsigned uni = 0; uni < 16; ++uni) {
        ++universe;
        ASSERT_EQ(addr_to_universe(static_cast<std::uint8_t>(uni), static_cast<std::uint8_t>(subnet),
                                   static_cast<std::uint8_t>(net)),
                  universe);
      }
    }
  }
}

TEST(AddrToUniverse, DoesNotStripBitSeven) {
  EXPECT_EQ(addr_to_universe(0x80, 0x00, 0x00), 0x0081);
  EXPECT_EQ(addr_to_universe(0x00, 0x80, 0x00), 0x0801);
  EXPECT_EQ(addr_to_universe(0x00, 0x00, 0x80), 0x0001);
  EXPECT_EQ(addr_to_universe(0x80, 0x80, 0x80), 0x0881);
  EXPECT_EQ(addr_to_universe(0xFF, 0xFF, 0xFF), 0x8000);
}

TEST(AddrToUniverse, CombinesOverlappingBitsOfAnyInput) {
  for (unsigned net = 0; net < 256; net += 5) {
    for (unsigned subnet = 0; subnet < 256; subnet += 3) {
      for (unsigned uni = 0; uni < 256; ++uni) {
        ASSERT_EQ(addr_to_universe(static_cast<std::uint8_t>(uni), static_cast<std::uint8_t>(subnet),
                                   static_cast<std::uint8_t>(net)),
                  ((uni | (subnet * 16) | (net * 256)) % 32768) + 1);
      }
    }
  }
}

TEST(ArtDmxRecord, ReadsItsPortAddressLowByteFirst) {
  ArtDmx dmx{};
  const std::string wire = packets::header(0x5000) + packets::text("\x00\x0E\x00\x00\x05\x02\x00\x80", 8);
  wire.copy(reinterpret_cast<char*>(&dmx), wire.size());
  EXPECT_EQ(dmx.universe, 0x0205);
  EXPECT_EQ(swap_word(dmx.length), 128);
}

}  // namespace
