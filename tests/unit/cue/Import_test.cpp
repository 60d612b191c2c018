#include "cue/Import.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include "cue/Gzip.h"
#include "cue/Time.h"
#include "unit/cue/captures.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/recordings.h"
#include "unit/cue/sacn.h"

using captures::byte;
using captures::ethernet;
using captures::frame;
using captures::high_first;
using captures::ip;
using captures::ipv4;
using captures::pcap_head;
using captures::text;
using captures::udp;
using cue::kSecond;
using packets::dmx;
using recordings::delay;
using unit::error_of;

namespace {

using Words = std::vector<std::string>;

/// As gzip writes it.
std::string gzip(const std::string& bytes) {
  std::string packed(bytes.size() + 1000, '\0');
  z_stream stream{};
  deflateInit2(&stream, 6, Z_DEFLATED, MAX_WBITS + 16, 8, Z_DEFAULT_STRATEGY);
  std::string input = bytes;
  stream.next_in = reinterpret_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  return packed;
}

class Import : public testing::Test {
protected:
  const unit::Directory directory;
  const std::string out = directory / "out.cue";
  cue::ImportOptions options;
  cue::Imported imported;

  /// The recording made of a file.
  std::string import(const std::string& content) {
    cue::Output output(out);
    output.replace = true;
    imported = cue::import_recording(directory.write("in", content), options, output);
    return directory.content("out.cue");
  }

  /// Why nothing is made of a file.
  std::string refusal(const std::string& content) {
    const std::string error = error_of([&] { import(content); });
    EXPECT_EQ(directory.names(), Words{"in"});
    const std::string name = directory / "in" + ": ";
    EXPECT_EQ(error.substr(0, name.size()), name);
    return error.substr(std::min(error.size(), name.size()));
  }

  static std::string sacn_frame(const sacn::Data& of, unsigned nanoseconds = 0) {
    return frame(ethernet(ip(sacn::data(of), 5568)), 0, nanoseconds);
  }
};

TEST_F(Import, TakesWhatTheRecorderWouldRecord) {
  const std::string recorded =
      import(pcap_head() + frame(ethernet(ip(dmx("a"))), 7, 5) +             // wanted
             frame(ethernet(ip(packets::poll())), 8, 5) +                    // no ArtDmx
             frame(ethernet(ip(dmx("b"), 5569)), 8, 6) +                     // another port
             frame(ethernet(ipv4(udp(dmx("c")).substr(8), 0x2000)), 8, 7) +  // a lone fragment
             frame(ethernet(ip(dmx("d"))).substr(0, 50), 8, 8, 61) +         // cut off
             frame(ethernet(ip(dmx("d") + std::string(8191, 'x'))), 8, 8) +  // too long
             frame("short", 8, 8) + frame(ethernet("x"), 8, 9) +             // broken
             frame(ethernet(ip(dmx("e")), text("\x81\0\0\5", 4)), 8, 5) +    // a VLAN
             frame(ethernet(ipv4(udp(dmx("f")), 0x4000, 0, 1, "opts")) + "padding", 8, 6));  // options
  EXPECT_EQ(recorded, dmx("a") + delay(kSecond) + dmx("e") + delay(1) + dmx("f"));
  EXPECT_STREQ(imported.format, "pcap");
  EXPECT_EQ(imported.datagrams, 3U);
  EXPECT_EQ(imported.duration, kSecond + 1);
  const Words losses = {
      "1 datagram without a whole ArtDmx left out", "1 datagram longer than a recording can hold left out",
      "1 datagram left out of which fragments are missing", "1 datagram cut off by the capture left out"};
  EXPECT_EQ(imported.losses, losses);
  EXPECT_EQ(imported.breaks_off, "");
}

TEST_F(Import, LeavesBytesOutThatReadLikeDamage) {
  const std::string odd = dmx("a") + "tail" + dmx("b") + std::string(600, '\0');
  const std::string show = import(pcap_head() + frame(ethernet(ip(odd))) + frame(ethernet(ip(dmx("c"))), 1));
  EXPECT_EQ(show, dmx("a") + dmx("b") + delay(kSecond) + dmx("c"));
  EXPECT_EQ(imported.losses, Words{"1 datagram without the bytes that belong to no packet"});
  EXPECT_FALSE(recordings::read(show).damage);
}

TEST_F(Import, TakesAFrameThatLiesBeforeItsPredecessorForSimultaneous) {
  EXPECT_EQ(import(pcap_head() + frame(ethernet(ip(dmx("a"))), 7) + frame(ethernet(ip(dmx("b"))), 5) +
                   frame(ethernet(ip(dmx("c"))), 8)),
            dmx("a") + delay(0) + dmx("b") + delay(kSecond) + dmx("c"));
  EXPECT_EQ(imported.losses, Words{"1 datagram with a time before the one before: taken as simultaneous"});
}

TEST_F(Import, SaysThatDatagramsWereCapturedTwice) {
  constexpr unsigned kMoment = 1'000'000;  // ns
  const auto at = [](const char* slots, unsigned time, unsigned sender = captures::kSender) {
    return frame(ethernet(ip(dmx(slots), 6454, sender)), 0, time);
  };
  import(pcap_head() + at("a", 0) + at("b", 10) + at("a", 20) + at("b", 30 + kMoment) +
         at("a", 40, 0x0A000002));
  EXPECT_EQ(imported.datagrams, 5U);
  EXPECT_EQ(imported.losses.front(),
            "1 datagram with the same bytes as one less than 1 ms before (captured at several "
            "interfaces?) taken too");
  import(pcap_head() + at("a", 0) + at("a", 1 + kMoment) + at("a", 2 + kMoment, 0x0A000002));
  EXPECT_EQ(imported.losses, Words{});
}

TEST_F(Import, ShortensAPauseThatNoRecordingCanHold) {
  EXPECT_EQ(
      import(pcap_head() + frame(ethernet(ip(dmx("a"))), 1) + frame(ethernet(ip(dmx("b"))), 2'000'000'000)),
      dmx("a") + delay(kLongestPause) + dmx("b"));
  EXPECT_EQ(imported.duration, kLongestPause);
  EXPECT_EQ(imported.losses, Words{"1 pause of more than 366 days shortened to that"});
}

TEST_F(Import, TakesOnlyTheWantedSenders) {
  const std::string capture = pcap_head() + frame(ethernet(ip(dmx("a"), 6454, 0x0A000001))) +
                              frame(ethernet(ip(dmx("b"), 6454, 0x0A000002)), 1) +
                              frame(ethernet(ip(dmx("c"), 6454, 0x0A000003)), 2);
  options.capture.senders = {0x0A000002};
  EXPECT_EQ(import(capture), dmx("b"));
  EXPECT_EQ(imported.losses, Words{"2 datagrams of other senders left out"});
  options.capture.senders = {0x0A000003, 0x0A000001};
  EXPECT_EQ(import(capture), dmx("a") + delay(2 * kSecond) + dmx("c"));
}

TEST_F(Import, PutsFragmentsTogether) {
  const std::string whole = udp(dmx(std::string(512, 'x'), 1) + dmx(std::string(512, 'y'), 2));
  EXPECT_EQ(
      import(pcap_head() + frame(ethernet(ipv4(whole.substr(800), 100, 9)), 1) +
             frame(ethernet(ipv4(whole.substr(0, 800), 0x2000, 9)), 2) + frame(ethernet(ip(dmx("z"))), 3)),
      whole.substr(8) + delay(kSecond) + dmx("z"));
  EXPECT_EQ(imported.losses, Words{});
}

TEST_F(Import, ReadsSeveralInterfacesAndLinkTypes) {
  for (const bool big_endian : {false, true}) {
    const captures::Pcapng ng{big_endian};
    EXPECT_EQ(import(ng.section() + ng.interface(1) + ng.interface(105) + ng.nano_interface(113) +
                     ng.enhanced(ethernet(ip(dmx("a"))), 0, 1000) + ng.enhanced("wireless", 1, 1000) +
                     ng.enhanced(std::string(14, '\0') + high_first(0x0800) + ip(dmx("b")), 2, 3'000'000)),
              dmx("a") + delay(2'000'000) + dmx("b"));
    EXPECT_STREQ(imported.format, "pcapng");
  }
}

TEST_F(Import, TakesATimeThatCannotBeForSimultaneous) {
  const captures::Pcapng ng;
  // In seconds: the last one is beyond 64 bits of nanoseconds.
  EXPECT_EQ(import(ng.section() + ng.interface(1, ng.option(9, byte(0))) +
                   ng.enhanced(ethernet(ip(dmx("a"))), 0, 5) + ng.enhanced(ethernet(ip(dmx("b"))), 0, 6) +
                   ng.enhanced(ethernet(ip(dmx("c"))), 0, 7, 0xFFFFFFFF) +
                   ng.enhanced(ethernet(ip(dmx("d"))), 0, 8)),
            dmx("a") + delay(kSecond) + dmx("b") + delay(0) + dmx("c") + delay(2 * kSecond) + dmx("d"));
  EXPECT_EQ(imported.losses,
            Words{"1 datagram without a usable time: taken as simultaneous with the one before"});
  // Both times can be, but not what lies between them.
  const auto since = [&](unsigned high, unsigned low) {
    return ng.interface(
        1, ng.option(9, byte(0)) + ng.option(14, captures::low_first_32(low) + captures::low_first_32(high)));
  };
  EXPECT_EQ(import(ng.section() + since(0xFFFFFFFD, 0xE0000000) + since(2, 0x10000000) +
                   ng.enhanced(ethernet(ip(dmx("a"))), 0) + ng.enhanced(ethernet(ip(dmx("b"))), 1)),
            dmx("a") + delay(0) + dmx("b"));
}

TEST_F(Import, ReadsBlocksWithoutATime) {
  const captures::Pcapng ng;
  EXPECT_EQ(import(ng.section() + ng.interface() + ng.simple(ethernet(ip(dmx("a")))) +
                   ng.obsolete(ethernet(ip(dmx("b"))), 0, 7) + ng.obsolete(ethernet(ip(dmx("c"))), 0, 8)),
            dmx("a") + delay(0) + dmx("b") + delay(1000) + dmx("c"));
}

TEST_F(Import, ReadsWhatGzipWrote) {
  const std::string first = pcap_head() + frame(ethernet(ip(dmx("a"))));
  const std::string second = frame(ethernet(ip(dmx("b"))), 1);
  const std::string both = dmx("a") + delay(kSecond) + dmx("b");
  EXPECT_EQ(import(gzip(first + second)), both);
  EXPECT_EQ(import(gzip(first) + gzip(second) + std::string(700, '\0')), both);
  EXPECT_EQ(imported.breaks_off, "");
  EXPECT_EQ(import(gzip(first) + gzip(second).substr(0, 15)), dmx("a"));
  EXPECT_EQ(imported.breaks_off, "the compressed data is cut off");
  EXPECT_EQ(import(gzip(first) + "rubbish"), dmx("a"));
  EXPECT_EQ(imported.breaks_off, "the compressed data is damaged");
}

TEST_F(Import, KeepsWhatIsGoodOfACaptureThatBreaksOff) {
  EXPECT_EQ(import(pcap_head() + frame(ethernet(ip(dmx("a")))) + "abc"), dmx("a"));
  EXPECT_NE(imported.breaks_off, "");
  const captures::Pcapng ng;
  EXPECT_EQ(import(ng.section() + ng.interface() + ng.enhanced(ethernet(ip(dmx("a")))) + "abcd"), dmx("a"));
  EXPECT_EQ(imported.breaks_off, "byte 144: cut off within a block");
}

TEST_F(Import, MakesArtDmxOfE131) {
  EXPECT_EQ(
      import(pcap_head() + sacn_frame({"abc", 1, 254}) + sacn_frame({std::string(512, 'x'), 32768, 9}, 3) +
             sacn_frame({"d", 1, 255}, 5) + sacn_frame({"e", 1, 0}, 9)),
      dmx("abc", 0, 254) + delay(3) + dmx(std::string(512, 'x'), 32767, 9) + delay(2) + dmx("d", 0, 255) +
          delay(4) + dmx("e", 0, 1));
  EXPECT_EQ(imported.losses, Words{});
}

TEST_F(Import, CountsWhatIsLeftOutOfE131) {
  const auto other = [](const std::string& payload) { return frame(ethernet(ip(payload, 5568))); };
  EXPECT_EQ(import(pcap_head() + sacn_frame({"a", 1, 1}) + sacn_frame({"b", 1, 1, 100, 0, 0xDD}) +
                   sacn_frame({"c", 1, 1, 100, 0x80}) + sacn_frame({"d", 1, 1, 100, 0x40}) +
                   sacn_frame({"d", 1, 1, 100, 0x40}) + other(sacn::sync()) + other(sacn::discovery()) +
                   other(sacn::root(5, "")) + other("what is this")),
            dmx("a", 0, 1));
  const Words losses = {"1 E1.31 packet with another start code than 0 left out",
                        "1 E1.31 packet for previews left out",
                        "2 E1.31 packets at the end of a stream left out",
                        "1 E1.31 synchronisation packet left out",
                        "1 E1.31 discovery packet left out",
                        "1 ACN packet of another kind left out",
                        "1 broken E1.31 packet left out"};
  EXPECT_EQ(imported.losses, losses);
}

TEST_F(Import, CountsEachSourceOfAUniverseForItself) {
  const std::string other(16, 'O');
  EXPECT_EQ(import(pcap_head() + sacn_frame({"a", 1, 7}) + sacn_frame({"b", 1, 90, 120, 0, 0, 0, other}) +
                   sacn_frame({"c", 1, 8}) + sacn_frame({"d", 1, 91, 120, 0, 0, 0, other}) +
                   sacn_frame({"e", 2, 91, 120, 0, 0, 0, other})),
            dmx("a", 0, 7) + delay(0) + dmx("b", 0, 90) + delay(0) + dmx("c", 0, 8) + delay(0) +
                dmx("d", 0, 91) + delay(0) + dmx("e", 1, 91));
  const Words losses = {"universe 1: several sources, all of them taken (see --sender)",
                        "universe 1: several priorities, which a recording does not tell"};
  EXPECT_EQ(imported.losses, losses);
}

TEST_F(Import, NamesTheFirstOfManyUniverses) {
  std::string capture = pcap_head();
  for (unsigned universe = 1; universe <= 10; ++universe)
    capture += sacn_frame({"a", universe, 1, 100}) + sacn_frame({"a", universe, 1, 101});
  import(capture);
  EXPECT_EQ(imported.losses, Words{"universes 1, 2, 3, 4, 5, 6, 7, 8 and 2 more: several priorities, which a "
                                   "recording does not tell"});
}

TEST_F(Import, SurvivesMoreSourcesThanItRemembers) {
  std::string capture = pcap_head();
  for (unsigned i = 0; i < 65540; ++i) {
    std::string cid(16, 'C');
    cid.replace(0, 4, captures::high_first_32(i));
    capture += sacn_frame({"a", 1, 7, 100, 0, 0, 0, cid});
  }
  import(capture);
  EXPECT_EQ(imported.datagrams, 65540U);
}

TEST_F(Import, WantsToKnowWhichOfTwoProtocols) {
  const std::string capture = pcap_head() + frame(ethernet(ip(dmx("a"))), 0) + sacn_frame({"b", 1, 1}, 1) +
                              sacn_frame({"c", 1, 2}, 2);
  EXPECT_EQ(refusal(capture),
            "holds both Art-Net (1 datagram) and E1.31 (2 packets); choose one with --protocol");
  options.capture.protocol = cue::Protocol::ArtNet;
  EXPECT_EQ(import(capture), dmx("a"));
  options.capture.protocol = cue::Protocol::Sacn;
  EXPECT_EQ(import(capture), dmx("b", 0, 1) + delay(1) + dmx("c", 0, 2));
}

TEST_F(Import, TakesEitherProtocolFromAPortOfOnesOwn) {
  options.capture.port = 7000;
  EXPECT_EQ(import(pcap_head() + frame(ethernet(ip(dmx("a"), 7000))) + frame(ethernet(ip(dmx("b"))))),
            dmx("a"));
  EXPECT_EQ(import(pcap_head() + frame(ethernet(ip(sacn::data({"a", 1, 5}), 7000)))), dmx("a", 0, 5));
}

TEST_F(Import, SaysWhatACaptureWithoutLevelsHolds) {
  EXPECT_EQ(refusal(pcap_head()), "holds no Art-Net or E1.31 levels to import, but no frames at all");
  EXPECT_EQ(
      refusal(pcap_head(105) + frame("wireless") + frame("wireless")),
      "holds no Art-Net or E1.31 levels to import, but 2 frames of link type 105, which is not understood");
  EXPECT_EQ(refusal(pcap_head() + frame(ethernet(ip(packets::poll()))) + frame(ethernet(ip(dmx("a"), 6455))) +
                    frame(ethernet(ip("dns", 53))) + frame(ethernet(captures::ipv6(dmx("a")), "", 0x86DD)) +
                    frame(ethernet(ipv4(udp(dmx("c")), 0x2000))) +
                    frame(ethernet(ipv4(udp(dmx("c")), 0x2000)).substr(0, 50), 0, 0, 61) +
                    frame(ethernet(ip(dmx("d"))).substr(0, 50), 0, 0, 61) + frame("short") +
                    frame(ethernet(ipv4("ping", 0, 0, 1, "", 1)))),
            "holds no Art-Net or E1.31 levels to import, but 1 datagram without a whole ArtDmx left out, "
            "1 datagram left out of which fragments are missing, 1 datagram cut off by the capture left out, "
            "1 fragment cut off by the capture left out, "
            "1 datagram of Art-Net or E1.31 at port 6455 (see --port), 1 UDP datagram over IPv6, "
            "1 UDP datagram of something else, 1 frame that the capture cut off or that is broken, "
            "1 frame without UDP");
  options.capture.protocol = cue::Protocol::ArtNet;
  EXPECT_EQ(refusal(pcap_head() + sacn_frame({"a"})),
            "holds no Art-Net levels to import, but 1 UDP datagram of something else");
  options.capture.protocol = cue::Protocol::Sacn;
  EXPECT_EQ(refusal(pcap_head() + "abc").substr(0, 62),
            "holds no E1.31 levels to import, but no frames at all; truncat");
}

TEST_F(Import, RefusesContentThatItDoesNotRecognise) {
  EXPECT_EQ(refusal("no capture at all, but long enough"),
            "not a file that can be imported (pcap, pcapng, FSEQ, OLA show)");
  EXPECT_EQ(refusal(""), "empty");
  EXPECT_EQ(refusal(gzip("nor this")), "not a file that can be imported (pcap, pcapng, FSEQ, OLA show)");
}

TEST_F(Import, TakesNoChoiceOfSendersForFilesThatHaveNone) {
  options.capture.senders = {captures::kSender};
  EXPECT_EQ(refusal("OLA Show\n1 7\n"), "not a capture; a protocol, port or sender cannot be chosen");
  options.capture.senders.clear();
  options.capture.port = 6454;
  EXPECT_EQ(refusal("PSEQ"), "not a capture; a protocol, port or sender cannot be chosen");
  options.capture.port.reset();
  EXPECT_EQ(import("OLA Show\n1 7\n"), dmx("\7", 0, 1));
}

TEST_F(Import, LeavesTheOutputAloneWhenThereIsNothingToImport) {
  directory.write("out.cue", "an older show");
  EXPECT_NE(error_of([&] { import(pcap_head()); }), "no error");
  EXPECT_EQ(directory.content("out.cue"), "an older show");
}

TEST_F(Import, SurvivesAnyFrame) {
  recordings::Chance chance(5);
  const std::string whole = ethernet(ipv4(udp(dmx("a")), 0, 0, 1, "opts"), text("\x81\0\0\5", 4));
  std::string capture = pcap_head();
  for (int i = 0; i < 5000; ++i) {
    std::string bytes = whole;
    for (unsigned n = chance.below(4); n > 0; --n)
      bytes[chance.below(46)] = static_cast<char>(chance.below(256));
    bytes.resize(chance.below(static_cast<unsigned>(bytes.size()) + 1));
    capture += frame(bytes);
  }
  const auto reading = recordings::read(import(capture));
  EXPECT_FALSE(reading.damage);
}

/// Cut off at every byte, and with every byte changed, a capture gives a recording or an error in words.
TEST_F(Import, SurvivesDamageAtEveryByte) {
  const captures::Pcapng ng;
  const std::string frames = frame(ethernet(ip(dmx("a")))) + sacn_frame({"b", 1, 1});
  for (const std::string& whole :
       {pcap_head() + frames, gzip(pcap_head() + frames),
        ng.section() + ng.nano_interface() + ng.enhanced(ethernet(ip(dmx("a")))) +
            ng.simple(ethernet(ip(dmx("b")))) + ng.obsolete(ethernet(ip(dmx("c"))))}) {
    const auto survive = [&](const std::string& content) {
      // Without named files: thousands of them would take their time on the disk.
      cue::Input input("in");
      input.keep(recordings::source_of(content));
      std::vector<recordings::Datagram> datagrams;
      error_of([&] {
        const cue::ForeignFile file = cue::open_foreign(input, options);
        cue::ForeignDatagram datagram;
        std::int64_t last = 0;
        while (file.reader->next(datagram)) {
          ASSERT_GE(datagram.time, last);
          datagrams.emplace_back(std::string(reinterpret_cast<const char*>(datagram.data), datagram.size),
                                 std::min(datagram.time - last, kLongestPause));
          last = datagram.time;
        }
      });
      ASSERT_FALSE(recordings::read(recordings::file_of(datagrams)).damage);
    };
    options.capture.protocol = cue::Protocol::ArtNet;
    for (std::size_t size = 0; size < whole.size(); ++size) survive(whole.substr(0, size));
    for (std::size_t at = 0; at < whole.size(); ++at) {
      for (const unsigned change : {0x01U, 0x80U, 0xFFU}) {
        std::string content = whole;
        content[at] = static_cast<char>(static_cast<unsigned>(content[at]) ^ change);
        survive(content);
      }
    }
  }
}

}  // namespace
