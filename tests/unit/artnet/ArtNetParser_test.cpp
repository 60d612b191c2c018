#include "artnet/ArtNetParser.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <istream>
#include <new>
#include <random>
#include <sstream>
#include <streambuf>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "support/DatagramModel.h"
#include "unit/artnet/packets.h"
#include "unit/support/temporary_file.h"

namespace {

std::atomic<unsigned> allocations{0};

}  // namespace

// Every allocation of the program is counted.
void* operator new(std::size_t size) {
  ++allocations;
  void* const memory = std::malloc(size > 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace {

// Amount of tries where trying everything takes long: 1 in slow builds, 5 in others.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(__OPTIMIZE__)
constexpr std::size_t kEffort = 1;
#else
constexpr std::size_t kEffort = 5;
#endif

const errc::artnet_parser_error_category& category() {
  return errc::artnet_parser_error_category::instance();
}

/// What a parse did: its callbacks in order, as texts, and how it ended.
struct ParseRecord {
  std::vector<std::string> events;  // kind and bytes of the record
  int code = 0;                     // of the error, 0: none
  unsigned packet_count = 0;
  bool running = false;

  friend bool operator==(const ParseRecord& a, const ParseRecord& b) {
    return a.events == b.events && a.code == b.code && a.packet_count == b.packet_count &&
           a.running == b.running;
  }
  friend std::ostream& operator<<(std::ostream& out, const ParseRecord& record) {
    out << "code " << record.code << ", " << record.packet_count << " packets"
        << (record.running ? ", running" : "");
    for (const std::string& each : record.events) out << "\n  " << testing::PrintToString(each);
    return out;
  }
};

/// Which callbacks are set, and after which callback (counted from 1) the parse is stopped.
struct ParseOptions {
  bool poll = true;
  bool poll_reply = true;
  bool others = true;
  std::size_t stop_after = 0;  // 0: never
};

/// An event as ParseRecord holds it.
std::string event(const char* kind, const std::string& bytes) {
  return kind + (' ' + bytes);
}

/// The model, whose results are texts as well.
class ParserModel {
public:
  ParseRecord parse(const std::string& stream, const ParseOptions& options = {}) {
    model.takes_poll = options.poll;
    model.takes_poll_reply = options.poll_reply;
    model.takes_others = options.others;
    const DatagramModel::Result result = model.parse(reinterpret_cast<const std::uint8_t*>(stream.data()),
                                                     stream.size(), static_cast<int>(options.stop_after) - 1);
    ParseRecord record{{}, result.error, result.packet_count, result.left_running};
    for (const DatagramModel::Event& each : result.events) {
      static constexpr std::array<const char*, 7> kNames{"poll",   "reply",   "dmx",    "oem",
                                                         "oem_ns", "trigger", "unknown"};
      const std::vector<std::uint8_t> bytes = each.record();
      record.events.push_back(each.kind == DatagramModel::Oversized
                                  ? "error 4"
                                  : event(kNames.at(each.kind), {bytes.begin(), bytes.end()}));
    }
    return record;
  }

private:
  DatagramModel model;
};

/// A parser whose callbacks note what they are given.
class Recorder {
public:
  explicit Recorder(const ParseOptions& wanted = {}) { set(wanted); }

  void set(const ParseOptions& new_options) {
    options = new_options;
    parser.on_poll = nullptr;
    parser.on_poll_reply = nullptr;
    parser.on_dmx = nullptr;
    parser.on_oem_vfps = nullptr;
    parser.on_oem_vfps_ns = nullptr;
    parser.on_trigger = nullptr;
    parser.on_unknown = nullptr;
    parser.on_error = nullptr;
    if (options.poll) parser.on_poll = [this](ArtPoll& poll) { note("poll", poll); };
    if (options.poll_reply) parser.on_poll_reply = [this](ArtPollReply& reply) { note("reply", reply); };
    if (!options.others) return;
    parser.on_dmx = [this](ArtDmx& dmx) { note("dmx", dmx); };
    parser.on_oem_vfps = [this](ArtOemVfps& oem) { note("oem", oem); };
    parser.on_oem_vfps_ns = [this](ArtOemVfpsNs& oem) { note("oem_ns", oem); };
    parser.on_trigger = [this](ArtTrigger& trigger) { note("trigger", trigger); };
    parser.on_unknown = [this](ArtHeader& header) { note("unknown", header); };
    parser.on_error = [this](const std::error_code error) {
      EXPECT_EQ(&error.category(), &category());
      note_text("error " + std::to_string(error.value()));
    };
  }

  /// Parses the bytes as the service parses a datagram.
  ParseRecord parse(const std::string& bytes) {
    std::error_code ec;
    record = ParseRecord();
    parser.parse_datagram(bytes, ec);
    return finish(ec);
  }

  ParseRecord parse_as_stream(const std::string& bytes) {
    PacketStream buffer(bytes.data(), bytes.size());
    std::istream stream(&buffer);
    return parse(stream);
  }

  ParseRecord parse(std::istream& stream) {
    std::error_code ec;
    record = ParseRecord();
    parser.parse(stream, ec);
    return finish(ec);
  }

  ParseRecord parse_file(const std::string& path) {
    std::error_code ec;
    record = ParseRecord();
    parser.parse(path.c_str(), ec);
    return finish(ec);
  }

  ArtNetParser parser;

private:
  template <typename Record>
  void note(const char* kind, const Record& packet) {
    note_text(event(kind, packets::bytes_of(packet)));
  }

  void note_text(const std::string& text) {
    record.events.push_back(text);
    if (record.events.size() == options.stop_after) parser.stop();
  }

  ParseRecord finish(const std::error_code& ec) {
    if (ec) {
      EXPECT_EQ(&ec.category(), &category());
    }
    record.code = ec.value();
    record.packet_count = parser.packet_count;
    record.running = parser.running;
    return record;
  }

  ParseOptions options;
  ParseRecord record;
};

ParseRecord parse_once(const std::string& bytes, const ParseOptions& options = {}) {
  return Recorder(options).parse(bytes);
}

/// A parse of @p events, of which each is a packet, that ends with @p code.
ParseRecord outcome(std::vector<std::string> events, int code = 0) {
  ParseRecord record;
  record.packet_count = static_cast<unsigned>(events.size());
  record.events = std::move(events);
  record.code = code;
  return record;
}

// Events of the packets of packets.h, as the records of the service hold them.

std::string filled(std::string bytes, std::size_t size) {
  bytes.resize(size, '\0');
  return bytes;
}

std::string poll_event(unsigned flags = 0x02, unsigned priority = 0x10) {
  return event("poll", packets::poll(flags, priority));
}

std::string dmx_event(const std::string& slots, unsigned port_address = 0, unsigned sequence = 0) {
  const std::string fields = packets::high_first(14) + packets::byte(sequence) + packets::byte(0) +
                             packets::low_first(port_address) +
                             packets::low_first(static_cast<unsigned>(slots.size()));
  return event("dmx", filled(packets::header(0x5000) + fields + slots, 530));
}

std::string trigger_event(unsigned key, unsigned sub_key, unsigned oem_code = 0xFFFF) {
  return event("trigger",
               filled(packets::header(0x9900) + packets::low_first(14) + packets::low_first(0) +
                          packets::low_first(oem_code) + packets::byte(key) + packets::byte(sub_key),
                      530));
}

std::string reply_event(const std::string& wire) {
  const std::string raw = filled(wire, 239);
  std::string bytes = raw;
  for (const std::size_t field : {16U, 20U, 172U}) {
    bytes.at(field) = raw.at(field + 1);
    bytes.at(field + 1) = raw.at(field);
  }
  for (const std::size_t end_of_text : {43U, 107U, 171U}) bytes.at(end_of_text) = '\0';
  return event("reply", bytes);
}

std::string unknown_event(unsigned opcode = 0x6000) {
  return event("unknown", packets::header(opcode));
}
std::string oem_event(unsigned first = 0x80) {
  return event("oem", packets::oem_vfps(first));
}
std::string oem_ns_event(unsigned first = 0x80) {
  return event("oem_ns", packets::oem_vfps_ns(first));
}

struct Kind {
  const char* name;
  std::string wire;
  std::string expected;
};

/// One packet of every kind.
std::vector<Kind> kinds() {
  return {
      {"ArtPoll", packets::poll(), poll_event()},
      {"ArtPollReply", packets::poll_reply(), reply_event(packets::poll_reply())},
      {"ArtDmx", packets::dmx(packets::counting(20), 0x0205, 7), dmx_event(packets::counting(20), 0x0205, 7)},
      {"ArtOemVfps", packets::oem_vfps(), oem_event()},
      {"ArtOemVfpsNs", packets::oem_vfps_ns(), oem_ns_event()},
      {"ArtTrigger", packets::trigger(1, 2), trigger_event(1, 2)},
      {"unknown", packets::unknown(), unknown_event()}};
}

// ---- one packet
// -----------------------------------------------------------------------------------------------------

TEST(ArtNetParser, StartsWithoutCallbacksAndWithZeroCounters) {
  const ArtNetParser parser;
  EXPECT_FALSE(parser.on_poll);
  EXPECT_FALSE(parser.on_poll_reply);
  EXPECT_FALSE(parser.on_dmx);
  EXPECT_FALSE(parser.on_oem_vfps);
  EXPECT_FALSE(parser.on_oem_vfps_ns);
  EXPECT_FALSE(parser.on_trigger);
  EXPECT_FALSE(parser.on_unknown);
  EXPECT_FALSE(parser.on_error);
  EXPECT_EQ(parser.packet_count, 0U);
  EXPECT_FALSE(parser.running);
}

TEST(ArtNetParser, CallsBackOncePerPacketOfEveryKind) {
  for (const Kind& kind : kinds()) EXPECT_EQ(parse_once(kind.wire), outcome({kind.expected})) << kind.name;
}

TEST(ArtNetParser, TakesADatagramWithAnArtPoll) {
  EXPECT_EQ(parse_once(packets::text("Art-Net\0\x00\x20\x00\x0E\x02\x10", 14)),
            outcome({poll_event(0x02, 0x10)}));
}

TEST(ArtNetParser, ConvertsTheFieldsOfAnArtPollReply) {
  ArtNetParser parser;
  ArtPollReply seen{};
  parser.on_poll_reply = [&](ArtPollReply& reply) { seen = reply; };
  std::string wire = packets::poll_reply();
  wire.replace(14, 4, packets::text("\x36\x19\x01\x02", 4));  // port, vers_info
  wire.replace(20, 2, packets::text("\x21\x11", 2));          // oem
  wire.replace(24, 2, packets::text("\x74\x70", 2));          // esta_man
  wire.replace(172, 2, packets::text("\x00\x04", 2));         // num_ports
  for (const std::size_t text : {26U, 44U, 108U}) wire.at(text) = 'n';
  std::istringstream stream(wire);
  std::error_code ec;
  parser.parse(stream, ec);
  EXPECT_FALSE(ec);
  EXPECT_EQ(seen.port, 6454);
  EXPECT_EQ(seen.vers_info, 0x0102);
  EXPECT_EQ(seen.oem, 0x2111);
  EXPECT_EQ(seen.esta_man, 0x7074);
  EXPECT_EQ(seen.num_ports, 4);
  EXPECT_EQ(seen.short_name[17], '\0');
  EXPECT_EQ(seen.long_name[63], '\0');
  EXPECT_EQ(seen.node_report[63], '\0');
  EXPECT_EQ(std::string(seen.short_name), wire.substr(26, 17));
  EXPECT_EQ(std::string(seen.long_name), wire.substr(44, 63));
  EXPECT_EQ(std::string(seen.node_report), wire.substr(108, 63));
}

TEST(ArtNetParser, ConvertsTheLengthOfAnArtDmx) {
  ArtNetParser parser;
  ArtDmx seen{};
  parser.on_dmx = [&](ArtDmx& dmx) { seen = dmx; };
  std::istringstream stream(packets::header(0x5000) + packets::text("\x00\x0E\x00\x00\x05\x02\x00\x80", 8) +
                            packets::counting(128));
  std::error_code ec;
  parser.parse(stream, ec);
  EXPECT_FALSE(ec);
  EXPECT_EQ(seen.universe, 0x0205);
  EXPECT_EQ(seen.length, 128);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(seen.data), 128), packets::counting(128));
}

TEST(ArtNetParser, ConvertsTheFieldsOfAnArtTrigger) {
  ArtNetParser parser;
  ArtTrigger seen{};
  parser.on_trigger = [&](ArtTrigger& trigger) { seen = trigger; };
  std::istringstream stream(packets::header(0x9900) + packets::text("\x00\x0E\x01\x02\x21\x11\x05\x06", 8) +
                            packets::counting(512));
  std::error_code ec;
  parser.parse(stream, ec);
  EXPECT_FALSE(ec);
  EXPECT_EQ(seen.prot_ver, 14);
  EXPECT_EQ(seen.filler, 0x0201);
  EXPECT_EQ(seen.oem_code, 0x2111);
  EXPECT_EQ(seen.key, 5);
  EXPECT_EQ(seen.sub_key, 6);
}

TEST(ArtNetParser, TakesEveryNumberOfSlots) {
  for (unsigned length = 0; length <= 512; ++length) {
    const std::string slots = packets::counting(length);
    ASSERT_EQ(parse_once(packets::dmx(slots)), outcome({dmx_event(slots)})) << length;
  }
}

TEST(ArtNetParser, IgnoresWhatFollowsTheAnnouncedSlots) {
  const std::string wire = packets::dmx_announcing(4, packets::counting(512));
  EXPECT_EQ(parse_once(wire), outcome({dmx_event(packets::counting(4))}));
}

TEST(ArtNetParser, ReportsAnOversizedArtDmxAndGoesOn) {
  for (const unsigned length : {513U, 514U, 1024U, 0x8000U, 65535U}) {
    EXPECT_EQ(parse_once(packets::dmx_announcing(length, packets::counting(100))), outcome({"error 4"}))
        << length;
    EXPECT_EQ(parse_once(packets::dmx_announcing(length, "") + packets::poll()),
              outcome({"error 4", poll_event()}))
        << length;
  }
}

TEST(ArtNetParser, OversizedArtDmxWithoutErrorCallbackIsCountedOnly) {
  Recorder recorder;
  recorder.parser.on_error = nullptr;
  ParseRecord expected = outcome({poll_event()});
  expected.packet_count = 2;
  EXPECT_EQ(recorder.parse(packets::dmx_announcing(513, "") + packets::poll()), expected);
}

TEST(ArtNetParser, ReportsAnArtDmxThatCarriesFewerSlotsThanAnnounced) {
  ParseRecord expected = outcome({}, 2);
  expected.packet_count = 1;
  EXPECT_EQ(parse_once(packets::dmx_announcing(100, packets::counting(50))), expected);
  EXPECT_EQ(parse_once(packets::dmx_announcing(512, packets::counting(511))), expected);
  EXPECT_EQ(parse_once(packets::dmx_announcing(1, "")), expected);
}

TEST(ArtNetParser, UnknownOpCodeIsHandedOnAndItsBodySearched) {
  EXPECT_EQ(parse_once(packets::unknown(0x6000) + packets::counting(20)), outcome({unknown_event(0x6000)}));
  EXPECT_EQ(parse_once(packets::unknown(0x6000) + packets::counting(20) + packets::poll()),
            outcome({unknown_event(0x6000), poll_event()}));
  for (const unsigned opcode :
       {0x0000U, 0x0020U, 0x2001U, 0x2101U, 0x5001U, 0x5100U, 0x0099U, 0x00FDU, 0xFF00U, 0xFFFFU}) {
    EXPECT_EQ(parse_once(packets::unknown(opcode)), outcome({unknown_event(opcode)})) << opcode;
  }
}

// ---- poll replies
// ---------------------------------------------------------------------------------------------------

TEST(ArtNetParser, ShortArtPollReplyIsTakenAsFarAsItGoes) {
  for (std::size_t size = 10; size <= 239; ++size) {
    ASSERT_EQ(parse_once(packets::poll_reply(size)), outcome({reply_event(packets::poll_reply(size))}))
        << size;
  }
}

TEST(ArtNetParser, LongArtPollReplyIsCutTo239Bytes) {
  const std::string wire = packets::poll_reply() + packets::counting(200);
  EXPECT_EQ(parse_once(wire), outcome({reply_event(packets::poll_reply())}));
  EXPECT_EQ(parse_once(packets::poll_reply() + packets::poll()),
            outcome({reply_event(packets::poll_reply()), poll_event()}));
}

TEST(ArtNetParser, LengthOfAnArtPollReplyIsTakenFromItsRefill) {
  // 20 bytes before it and 100 of it: 110 bytes are wanted after the header, 90 are there.
  ParseRecord truncated = outcome({}, 2);
  truncated.packet_count = 1;
  EXPECT_EQ(parse_once(packets::padding(20) + packets::poll_reply(100)), truncated);
  // With 230 bytes before it the refill holds more than 239, so 229 are wanted.
  EXPECT_EQ(parse_once(packets::padding(230) + packets::poll_reply(200)), truncated);
  EXPECT_EQ(parse_once(packets::padding(230) + packets::poll_reply(239)),
            outcome({reply_event(packets::poll_reply())}));
}

TEST(ArtNetParser, ArtPollReplyBehindAnotherPacketTakesMoreThanItsOwnBytes) {
  // A reply of 50 bytes after a poll of 14: 54 bytes are wanted after its header, 40 are there.
  ParseRecord truncated = outcome({poll_event()}, 2);
  truncated.packet_count = 2;
  EXPECT_EQ(parse_once(packets::poll() + packets::poll_reply(50)), truncated);
}

TEST(ArtNetParser, ArtPollReplyInARefillOfFewerBytesThanAHeaderIsTruncated) {
  for (std::size_t rest = 1; rest < 10; ++rest) {
    // The header ends in the second refill, which holds `rest` bytes.
    for (std::size_t of_header = rest; of_header >= 1; --of_header) {
      const std::string wire = packets::padding(512 - 10 + of_header) + packets::poll_reply(10) +
                               packets::counting(rest - of_header);
      ParseRecord expected = outcome({}, 2);
      // A split OpCode is still read; a header that is cut before its OpCode cannot occur here.
      expected.packet_count = 1;
      EXPECT_EQ(parse_once(wire), expected) << rest << ' ' << of_header;
    }
  }
}

TEST(ArtNetParser, ArtPollReplyInARefillOfTenBytesTakesNothingMore) {
  const std::string wire = packets::padding(502 + 5) + packets::poll_reply(10) + packets::counting(5);
  EXPECT_EQ(parse_once(wire), outcome({reply_event(packets::poll_reply(10))}));
}

// ---- callbacks that are not set
// -------------------------------------------------------------------------------------

TEST(ArtNetParser, UnsetCallbacksAreSkipped) {
  ParseOptions none;
  none.poll = none.poll_reply = none.others = false;
  for (const Kind& kind : kinds()) {
    ParseRecord expected;
    expected.packet_count = 1;
    EXPECT_EQ(parse_once(kind.wire, none), expected) << kind.name;
  }
  ParseRecord expected;
  expected.packet_count = 1;
  EXPECT_EQ(parse_once(packets::dmx_announcing(513, ""), none), expected);
}

TEST(ArtNetParser, TruncatedPollsAreNoErrorWithoutTheirCallback) {
  ParseOptions none;
  none.poll = none.poll_reply = none.others = false;
  ParseRecord expected;
  expected.packet_count = 1;
  for (std::size_t size = 10; size < 14; ++size) {
    EXPECT_EQ(parse_once(packets::poll().substr(0, size), none), expected) << size;
  }
  for (std::size_t size = 10; size < 239; ++size) {
    EXPECT_EQ(parse_once(packets::poll_reply(size), none), expected) << size;
  }
}

TEST(ArtNetParser, WithoutItsCallbackTheBodyOfAPollIsSearched) {
  ParseOptions no_polls;
  no_polls.poll = no_polls.poll_reply = false;
  ParseRecord expected = outcome({unknown_event()});
  expected.packet_count = 2;
  EXPECT_EQ(parse_once(packets::header(0x2000) + packets::unknown(), no_polls), expected);
  EXPECT_EQ(parse_once(packets::header(0x2100) + packets::unknown(), no_polls), expected);
}

TEST(ArtNetParser, OtherTruncatedPacketsAreAnErrorEvenWithoutTheirCallback) {
  ParseOptions none;
  none.poll = none.poll_reply = none.others = false;
  ParseRecord expected = outcome({}, 2);
  expected.packet_count = 1;
  for (const std::string& wire : {packets::dmx(packets::counting(20)), packets::oem_vfps(),
                                  packets::oem_vfps_ns(), packets::trigger(1, 2)}) {
    for (std::size_t size = 10; size < wire.size(); ++size) {
      EXPECT_EQ(parse_once(wire.substr(0, size), none), expected) << size;
    }
  }
}

// ---- searching
// ------------------------------------------------------------------------------------------------------

TEST(ArtNetParser, EmptyInputEndsUnexpectedly) {
  EXPECT_EQ(parse_once(""), outcome({}, 2));
}

TEST(ArtNetParser, InputWithoutIdentifierHasNoHeader) {
  for (const std::size_t size : {1U, 7U, 8U, 100U, 511U, 512U, 513U, 1024U, 5000U}) {
    EXPECT_EQ(parse_once(packets::padding(size)), outcome({}, 3)) << size;
    EXPECT_EQ(parse_once(std::string(size, '\0')), outcome({}, 3)) << size;
    EXPECT_EQ(parse_once(std::string(size, 'A')), outcome({}, 3)) << size;
  }
  EXPECT_EQ(parse_once("Art-Net"), outcome({unknown_event(0)}));  // the zero byte is that of the empty buffer
  EXPECT_EQ(parse_once("Art-NetX"), outcome({}, 3));
  EXPECT_EQ(parse_once("art-net" + packets::text("\0", 1)), outcome({}, 3));
}

TEST(ArtNetParser, LeadingGarbageIsSkippedWhateverItsLength) {
  for (std::size_t offset = 0; offset <= 498; ++offset) {
    ASSERT_EQ(parse_once(packets::padding(offset) + packets::poll()), outcome({poll_event()})) << offset;
  }
}

TEST(ArtNetParser, MatcherDoesNotBackOff) {
  EXPECT_EQ(parse_once("A" + packets::poll()), outcome({}, 3));
  EXPECT_EQ(parse_once("Ar" + packets::poll()), outcome({}, 3));
  EXPECT_EQ(parse_once("Art-Ne" + packets::poll()), outcome({}, 3));
  EXPECT_EQ(parse_once("Art-Net" + packets::poll()), outcome({}, 3));
  EXPECT_EQ(parse_once("AA" + packets::poll()),
            outcome({poll_event()}));  // the second A took the first one's match
  EXPECT_EQ(parse_once("AU" + packets::poll()), outcome({poll_event()}));
  EXPECT_EQ(parse_once("A" + packets::poll() + packets::poll(3)), outcome({poll_event(3)}));
}

TEST(ArtNetParser, PacketsAreTakenInStreamOrder) {
  EXPECT_EQ(parse_once(packets::poll(1) + packets::poll(2)), outcome({poll_event(1), poll_event(2)}));
  std::string wire;
  std::vector<std::string> events;
  for (const Kind& kind : kinds()) {
    if (kind.wire.size() == 239) continue;  // takes its length from the whole refill
    wire += kind.wire + packets::padding(3);
    events.push_back(kind.expected);
  }
  EXPECT_EQ(parse_once(wire), outcome(events));
}

TEST(ArtNetParser, IdentifierInsideAnotherPacketIsPartOfIt) {
  const std::string slots = packets::poll() + packets::poll();
  EXPECT_EQ(parse_once(packets::dmx(slots)), outcome({dmx_event(slots)}));
}

// ---- several refills
// ------------------------------------------------------------------------------------------------

TEST(ArtNetParser, FindsAPacketSplitAcrossARefillBoundaryOfAFile) {
  for (const std::size_t boundary : {512U, 1024U, 5120U}) {
    for (std::size_t split = 0; split <= 14; ++split) {
      const unit::TemporaryFile file(packets::padding(boundary - split) + packets::poll());
      Recorder recorder;
      EXPECT_EQ(recorder.parse_file(file.path()), outcome({poll_event()})) << boundary << ' ' << split;
    }
  }
}

TEST(ArtNetParser, FindsASplitDelayRecordBetweenDatagrams) {
  const std::string first = packets::counting(488);
  const std::string second = packets::counting(200, 3);
  const unit::TemporaryFile file(packets::dmx(first) + packets::oem_vfps_ns() + packets::dmx(second, 1));
  Recorder recorder;
  EXPECT_EQ(recorder.parse_file(file.path()),
            outcome({dmx_event(first), oem_ns_event(), dmx_event(second, 1)}));
}

TEST(ArtNetParser, RecordingOfLargeDatagramsIsReadWhole) {
  std::string recording;
  std::vector<std::string> events;
  for (unsigned i = 0; i < 100; ++i) {
    if (i > 0) {
      recording += packets::oem_vfps_ns(i);
      events.push_back(oem_ns_event(i));
    }
    recording += packets::dmx(packets::counting(512, i), i, i);
    events.push_back(dmx_event(packets::counting(512, i), i, i));
  }
  const unit::TemporaryFile file(recording);
  Recorder recorder;
  const ParseRecord record = recorder.parse_file(file.path());
  ParserModel model;
  EXPECT_EQ(record, model.parse(recording));
  ASSERT_GE(record.events.size(), events.size());
  for (std::size_t i = 0; i < events.size(); ++i) ASSERT_EQ(record.events[i], events[i]) << i;
  EXPECT_EQ(record.code, 0);
}

TEST(ArtNetParser, FortyTriggersInOneStreamGiveTheseCallbacks) {
  // 720 bytes. The second refill holds 208; after them the search meets stale bytes of the first one: the
  // triggers 12 to 27, and of trigger 28 the identifier at the very end, whose OpCode would lie beyond the
  // buffer.
  std::string stream;
  std::vector<std::string> events;
  for (unsigned i = 0; i < 40; ++i) {
    stream += packets::trigger(i, 2 * i);
    events.push_back(trigger_event(i, 2 * i));
  }
  for (unsigned i = 12; i < 28; ++i) events.push_back(trigger_event(i, 2 * i));
  EXPECT_EQ(parse_once(stream), outcome(events));
}

TEST(ArtNetParser, LargeArtDmxBehindGarbageIsSeenOnce) {
  // The second refill is 18 bytes longer than the garbage, and so covers the identifier.
  const std::string slots = packets::counting(512);
  for (std::size_t garbage = 0; garbage < 494; ++garbage) {
    ASSERT_EQ(parse_once(packets::padding(garbage) + packets::dmx(slots)), outcome({dmx_event(slots)}))
        << garbage;
  }
}

TEST(ArtNetParser, TwoPacketsOverTwoRefillsLeaveTheFirstToBeSeenAgain) {
  // A poll at 100 and a dmx of 18 + 400 bytes after it: 532 bytes. The second refill holds 20, so the poll
  // is found once more, and the dmx header with it; its data would leave the buffer, which ends the parse
  // without a word.
  const std::string slots = packets::counting(400);
  EXPECT_EQ(parse_once(packets::padding(100) + packets::poll(5) + packets::dmx(slots)),
            outcome({poll_event(5), dmx_event(slots), poll_event(5)}));
}

// ---- bytes that earlier parses left

/// For each callback of a parse of @p bytes by @p parser: whether its packet was found in old bytes.
std::string old_packets(ArtNetParser& parser, const std::string& bytes) {
  std::string seen;
  const auto note = [&](const auto& /*packet*/) { seen += parser.from_stale_bytes() ? 'o' : 'n'; };
  parser.on_poll = note;
  parser.on_poll_reply = note;
  parser.on_dmx = note;
  parser.on_oem_vfps = note;
  parser.on_oem_vfps_ns = note;
  parser.on_trigger = note;
  parser.on_unknown = note;
  parser.on_error = note;
  std::istringstream stream(bytes);
  std::error_code ec;
  parser.parse(stream, ec);
  return seen;
}

TEST(ArtNetParser, TellsInACallbackWhetherItsPacketIsOld) {
  std::string triggers;
  for (unsigned i = 0; i < 40; ++i) triggers += packets::trigger(i, 0);
  ArtNetParser parser;
  EXPECT_EQ(old_packets(parser, triggers), std::string(40, 'n') + std::string(16, 'o'));
  for (const Kind& kind : kinds()) {
    ArtNetParser another;
    EXPECT_EQ(old_packets(another, kind.wire), "n") << kind.name;
    EXPECT_EQ(old_packets(another, kind.wire + packets::poll()), "nn") << kind.name;
    // The poll is still there after a datagram that covers the packet.
    EXPECT_EQ(old_packets(another, packets::padding(kind.wire.size())), "o") << kind.name;
  }
}

TEST(ArtNetParser, PacketThatBeginsInNewBytesAndEndsInOldOnesIsOld) {
  for (std::size_t size = 0; size < 14; ++size) {
    ArtNetParser parser;
    EXPECT_EQ(old_packets(parser, packets::poll()), "n");
    const std::string begin = packets::poll().substr(0, size);
    // After a whole identifier the rest is missing, not old.
    const char* const expected = size == 0 || size >= 8 ? "" : "o";
    EXPECT_EQ(old_packets(parser, begin), expected) << size;
  }
}
// ---------------------------------------------------------------------------------

TEST(ArtNetParser, ShorterDatagramLetsTheRestOfTheLongerOneBeSeenAgain) {
  Recorder recorder;
  EXPECT_EQ(recorder.parse(packets::poll(1) + packets::poll(2) + packets::poll(3)),
            outcome({poll_event(1), poll_event(2), poll_event(3)}));
  EXPECT_EQ(recorder.parse(packets::poll(4)), outcome({poll_event(4), poll_event(2), poll_event(3)}));
  EXPECT_EQ(recorder.parse("x"), outcome({poll_event(2), poll_event(3)}));
}

TEST(ArtNetParser, DatagramOfTheSameShapeOverwritesTheFormerOne) {
  Recorder recorder;
  for (unsigned i = 0; i < 5; ++i) {
    const std::string slots = packets::counting(64, i);
    EXPECT_EQ(recorder.parse(packets::dmx(slots, i)), outcome({dmx_event(slots, i)}));
  }
}

TEST(ArtNetParser, HalfAnIdentifierIsCompletedByBytesThatAnEarlierParseLeft) {
  Recorder recorder;
  EXPECT_EQ(recorder.parse(packets::poll(7)), outcome({poll_event(7)}));
  EXPECT_EQ(recorder.parse("Art-N"), outcome({poll_event(7)}));
}

TEST(ArtNetParser, NoPartOfAnIdentifierIsCarriedIntoTheNextParse) {
  Recorder recorder;
  EXPECT_EQ(recorder.parse(packets::padding(512 - 4) + "Art-"), outcome({}, 3));
  EXPECT_EQ(recorder.parse("Net" + packets::text("\0\x00\x20\x00\x0E\x02\x10", 7) + packets::padding(502)),
            outcome({}, 3));
}

TEST(ArtNetParser, EmptyDatagramLeavesWhatIsThereAlone) {
  Recorder recorder;
  EXPECT_EQ(recorder.parse(packets::poll(1)), outcome({poll_event(1)}));
  EXPECT_EQ(recorder.parse(""), outcome({}, 2));
}

/// What a one-byte datagram makes of the old packet @p wire at @p offset of a full buffer.
ParseRecord parse_stale(const std::string& wire, std::size_t offset) {
  Recorder recorder;
  recorder.parse(packets::padding(offset) + wire.substr(0, 512 - offset) +
                 packets::padding(offset + wire.size() < 512 ? 512 - offset - wire.size() : 0));
  return recorder.parse("x");
}

TEST(ArtNetParser, OldPacketThatEndsWithTheBufferIsSeenAndOneByteFurtherEndsTheParseQuietly) {
  for (const Kind& kind : kinds()) {
    if (kind.wire.size() == 239) continue;
    for (std::size_t offset = 512 - kind.wire.size() - 5; offset <= 504; ++offset) {
      const bool fits = offset + kind.wire.size() <= 512;
      EXPECT_EQ(parse_stale(kind.wire, offset),
                outcome(fits ? std::vector<std::string>{kind.expected} : std::vector<std::string>{}))
          << kind.name << ' ' << offset;
    }
    for (std::size_t offset = 505; offset < 512; ++offset) {  // not even the identifier is whole
      EXPECT_EQ(parse_stale(kind.wire, offset), outcome({}, 3)) << kind.name << ' ' << offset;
    }
  }
}

TEST(ArtNetParser, OldArtDmxMayUseTheBufferToItsEndOnly) {
  for (const unsigned length : {494U, 495U, 511U, 512U}) {
    Recorder recorder;
    // At offset 1, so that the one byte of the next datagram leaves it whole.
    recorder.parse("U" + packets::dmx_announcing(length, packets::counting(493)));
    EXPECT_EQ(recorder.parse("x"), outcome({})) << length;
  }
  Recorder recorder;
  recorder.parse("U" + packets::dmx(packets::counting(493)));
  EXPECT_EQ(recorder.parse("x"), outcome({dmx_event(packets::counting(493))}));
}

TEST(ArtNetParser, OldOversizedArtDmxIsReportedAgain) {
  Recorder recorder;
  EXPECT_EQ(recorder.parse("U" + packets::dmx_announcing(513, "")), outcome({"error 4"}));
  EXPECT_EQ(recorder.parse("x"), outcome({"error 4"}));
}

TEST(ArtNetParser, OldArtPollReplyTakesItsLengthFromTheNewDatagram) {
  Recorder recorder;
  recorder.parse(packets::padding(60) + packets::poll_reply(239));
  EXPECT_EQ(recorder.parse("x"), outcome({}));
  EXPECT_EQ(recorder.parse(packets::padding(9)), outcome({}));
  EXPECT_EQ(recorder.parse(packets::padding(10)), outcome({reply_event(packets::poll_reply(10))}));
  EXPECT_EQ(recorder.parse(packets::padding(50)), outcome({reply_event(packets::poll_reply(50))}));
}

TEST(ArtNetParser, WhatCameBeforeAnOldArtPollReplyCounts) {
  Recorder recorder;
  recorder.parse(packets::padding(530) + packets::poll() + packets::poll_reply(239));
  EXPECT_EQ(recorder.parse("x"), outcome({poll_event()}));
}

TEST(ArtNetParser, OldArtPollReplyAtTheEndOfTheBufferEndsTheParseQuietly) {
  Recorder recorder;
  ParserModel model;
  const std::string first = packets::padding(502 - 39) + packets::poll_reply(49);
  EXPECT_EQ(recorder.parse(first), model.parse(first));
  EXPECT_EQ(recorder.parse(packets::padding(49)), outcome({reply_event(packets::poll_reply(49))}));
  EXPECT_EQ(recorder.parse(packets::padding(50)), outcome({}));
}

TEST(ArtNetParser, WhatCameBeforeAQuietEndCounts) {
  Recorder recorder;
  recorder.parse(packets::padding(504) + packets::identifier());
  EXPECT_EQ(recorder.parse(packets::poll(9)), outcome({poll_event(9)}));
  EXPECT_EQ(recorder.parse(packets::poll(8)), outcome({poll_event(8)}));
}

// ---- truncation, everywhere
// -----------------------------------------------------------------------------------------

/// Result for a packet of which the first @p size bytes are parsed, after @p padding_size other bytes.
int expected_code(const Kind& kind, std::size_t padding_size, std::size_t size) {
  if (padding_size + size == 0) return 2;
  if (size < 8) return 3;
  if (size < 10) return 2;
  return size < kind.wire.size() ? 2 : 0;
}

TEST(ArtNetParser, EveryTruncationOfEveryKindAtEveryPositionEndsAsItShould) {
  for (const Kind& kind : kinds()) {
    if (kind.wire.size() == 239) continue;
    for (std::size_t before = 0; before <= 1040; before += before >= 460 && before <= 520 ? 1 : 6 - kEffort) {
      for (std::size_t size = 0; size <= kind.wire.size(); ++size) {
        const std::string bytes = packets::padding(before) + kind.wire.substr(0, size);
        const ParseRecord record = parse_once(bytes);
        ParserModel model;
        ASSERT_EQ(record, model.parse(bytes)) << kind.name << ' ' << before << ' ' << size;
        if (size == 7 && before + size < 512) continue;  // the empty buffer after it completes the identifier
        ASSERT_EQ(record.code, expected_code(kind, before, size))
            << kind.name << ' ' << before << ' ' << size;
        if (record.code != 0) {
          ASSERT_EQ(record.events, std::vector<std::string>{}) << kind.name << ' ' << before << ' ' << size;
        } else {
          ASSERT_EQ(record.events.at(0), kind.expected) << kind.name << ' ' << before << ' ' << size;
        }
      }
    }
  }
}

TEST(ArtNetParser, EveryTruncationOfAPollReplyAndAFullDmxAgreesWithTheModel) {
  const std::array<std::string, 2> wires{packets::poll_reply(), packets::dmx(packets::counting(512))};
  for (const std::string& wire : wires) {
    for (std::size_t before = 0; before <= 530;
         before += before >= 490 && before <= 515 ? 1 : 31 - 4 * kEffort) {
      for (std::size_t size = 0; size <= wire.size(); size += size > 30 && size < 225 ? 7 - kEffort : 1) {
        const std::string bytes = packets::padding(before) + wire.substr(0, size);
        Recorder recorder;
        ParserModel model;
        ASSERT_EQ(recorder.parse(bytes), model.parse(bytes)) << before << ' ' << size;
        ASSERT_EQ(recorder.parse("x"), model.parse("x")) << before << ' ' << size;
      }
    }
  }
}

// ---- many streams against the model
// ---------------------------------------------------------------------------------

class Generator {
public:
  explicit Generator(std::uint64_t seed) : random(seed) {}

  std::size_t below(std::size_t limit) { return static_cast<std::size_t>(random() % limit); }
  bool one_in(std::size_t n) { return below(n) == 0; }

  /// A stream of packets, parts of packets and garbage.
  std::string stream() {
    static constexpr std::array<std::size_t, 6> kLimits{20, 60, 300, 600, 1100, 2100};
    const std::size_t limit = kLimits.at(below(kLimits.size()));
    std::string bytes;
    while (bytes.size() < limit) bytes += piece();
    if (one_in(2)) bytes.resize(below(bytes.size() + 1));
    return bytes;
  }

  ParseOptions options() {
    ParseOptions result;
    result.poll = !one_in(8);
    result.poll_reply = !one_in(8);
    result.others = !one_in(16);
    if (one_in(8)) result.stop_after = 1 + below(4);
    return result;
  }

private:
  std::string piece() {
    std::string bytes = packet();
    if (one_in(10)) bytes.resize(below(bytes.size() + 1));
    if (!bytes.empty() && one_in(20)) {
      char& byte = bytes.at(below(bytes.size()));
      byte = static_cast<char>(byte ^ 1);
    }
    return bytes;
  }

  std::string packet() {
    const auto any = static_cast<unsigned>(below(256));
    switch (below(14)) {
      case 0:
        return packets::poll(any);
      case 1:
        return packets::poll_reply(one_in(2) ? 239 : 10 + below(230), any);
      case 2:
        return packets::dmx(packets::counting(below(40), any), any, any);
      case 3:
        return packets::dmx(packets::counting(one_in(2) ? 512 : below(513), any), any, any);
      case 4:
        return packets::dmx_announcing(static_cast<unsigned>(below(700)), packets::counting(below(100)), any);
      case 5:
        return packets::oem_vfps(any);
      case 6:
        return packets::oem_vfps_ns(any);
      case 7:
      case 8:
        return packets::trigger(any, any);
      case 9:
        return packets::unknown(static_cast<unsigned>(below(65536)));
      case 10:
        return packets::padding(below(30));
      case 11:
        return packets::padding(below(520));
      case 12:
        return packets::identifier().substr(0, below(9));
      default:
        return std::string(below(20), '\0');
    }
  }

  std::mt19937_64 random;
};

class RandomStreams : public testing::TestWithParam<std::uint64_t> {};

TEST_P(RandomStreams, GiveWhatTheModelGives) {
  constexpr std::size_t kObjects = 3000 * kEffort;
  constexpr std::size_t kParses = 5;  // with one object, so that each meets what the former ones left
  std::cout << "seed " << GetParam() << ", " << kObjects * kParses << " streams\n";
  Generator generator(GetParam());
  std::size_t events = 0;
  for (std::size_t i = 0; i < kObjects; ++i) {
    Recorder recorder;
    ParserModel model;
    for (std::size_t j = 0; j < kParses; ++j) {
      const ParseOptions options = generator.options();
      const std::string bytes = generator.stream();
      recorder.set(options);
      const ParseRecord seen = recorder.parse(bytes);
      ASSERT_EQ(seen, model.parse(bytes, options)) << "object " << i << ", parse " << j;
      events += seen.events.size();
    }
  }
  EXPECT_GT(events, kObjects * kParses);
}

INSTANTIATE_TEST_SUITE_P(ArtNetParser, RandomStreams,
                         testing::Values(20240607U, 20240608U, 20240609U, 20240610U));

// ---- stopping, streams and files
// ------------------------------------------------------------------------------------

TEST(ArtNetParser, StopInACallbackEndsTheParseAfterThatPacket) {
  for (const Kind& kind : kinds()) {
    if (kind.wire.size() == 239) continue;
    ParseOptions stop;
    stop.stop_after = 1;
    EXPECT_EQ(parse_once(kind.wire + packets::poll() + packets::padding(1000) + packets::poll(), stop),
              outcome({kind.expected}))
        << kind.name;
  }
  ParseOptions stop;
  stop.stop_after = 2;
  EXPECT_EQ(parse_once(packets::poll(1) + packets::poll(2) + packets::poll(3), stop),
            outcome({poll_event(1), poll_event(2)}));
  stop.stop_after = 1;
  EXPECT_EQ(parse_once(packets::poll_reply() + packets::poll(), stop),
            outcome({reply_event(packets::poll_reply())}));
  EXPECT_EQ(parse_once(packets::dmx_announcing(600, "") + packets::poll(), stop), outcome({"error 4"}));
}

TEST(ArtNetParser, ParsesAnewAfterAStop) {
  ParseOptions options;
  options.stop_after = 1;
  Recorder recorder(options);
  EXPECT_EQ(recorder.parse(packets::poll(1) + packets::poll(2)), outcome({poll_event(1)}));
  options.stop_after = 0;
  recorder.set(options);
  EXPECT_EQ(recorder.parse(packets::poll(3) + packets::poll(4)), outcome({poll_event(3), poll_event(4)}));
}

TEST(ArtNetParser, IsRunningDuringAParseAndCountsThePacketsBefore) {
  ArtNetParser parser;
  std::vector<unsigned> counts;
  parser.on_poll = [&](ArtPoll& /*poll*/) {
    EXPECT_TRUE(parser.running);
    counts.push_back(parser.packet_count);
  };
  std::istringstream stream(packets::poll() + packets::poll() + packets::poll());
  std::error_code ec;
  parser.parse(stream, ec);
  EXPECT_EQ(counts, (std::vector<unsigned>{0, 1, 2}));
  EXPECT_EQ(parser.packet_count, 3U);
  EXPECT_FALSE(parser.running);
  std::istringstream empty;
  parser.parse(empty, ec);
  EXPECT_EQ(parser.packet_count, 0U);
}

TEST(ArtNetParser, StaysRunningWhenAnOpCodeIsCutOff) {
  ParseRecord expected = outcome({}, 2);
  expected.running = true;
  EXPECT_EQ(parse_once(packets::identifier()), expected);
  EXPECT_EQ(parse_once(packets::identifier() + packets::byte(0)), expected);
}

TEST(ArtNetParser, FailedStreamEndsUnexpectedly) {
  for (const std::ios::iostate state : {std::ios::badbit, std::ios::failbit, std::ios::eofbit}) {
    Recorder recorder;
    std::istringstream stream(packets::poll());
    stream.setstate(state);
    EXPECT_EQ(recorder.parse(stream), outcome({}, 2)) << state;
  }
}

/// Delivers its bytes in pieces of @p size bytes.
class PiecewiseBuffer : public std::streambuf {
public:
  PiecewiseBuffer(std::string all, std::size_t size) : bytes(std::move(all)), piece(size) {}

protected:
  int_type underflow() override {
    if (next >= bytes.size()) return traits_type::eof();
    const std::size_t size = std::min(piece, bytes.size() - next);
    setg(&bytes[next], &bytes[next], &bytes[next] + size);
    next += size;
    return traits_type::to_int_type(*gptr());
  }

private:
  std::string bytes;
  std::size_t piece;
  std::size_t next = 0;
};

TEST(ArtNetParser, DoesNotMindHowTheStreamDeliversItsBytes) {
  const std::string bytes = packets::padding(400) + packets::dmx(packets::counting(512)) + packets::poll();
  const ParseRecord expected = ParserModel().parse(bytes);
  for (const std::size_t size : {1U, 2U, 7U, 511U, 513U}) {
    PiecewiseBuffer buffer(bytes, size);
    std::istream stream(&buffer);
    Recorder recorder;
    EXPECT_EQ(recorder.parse(stream), expected) << size;
  }
}

TEST(ArtNetParser, FileThatCannotBeOpenedIsNotFound) {
  Recorder recorder;
  EXPECT_EQ(recorder.parse_file("/nonexistent/file"), outcome({}, 1));
  EXPECT_EQ(recorder.parse_file(""), outcome({}, 1));
}

TEST(ArtNetParser, FileThatIsEmptyOrCannotBeReadEndsUnexpectedly) {
  Recorder recorder;
  const unit::TemporaryFile empty("");
  EXPECT_EQ(recorder.parse_file(empty.path()), outcome({}, 2));
  EXPECT_EQ(recorder.parse_file("/"), outcome({}, 2));
}

TEST(ArtNetParser, FileIsReadAsBinary) {
  const std::string slots = packets::text("\r\n\x1A\n\r\0", 6);
  const unit::TemporaryFile file(packets::dmx(slots));
  Recorder recorder;
  EXPECT_EQ(recorder.parse_file(file.path()), outcome({dmx_event(slots)}));
}

TEST(ArtNetParser, AllocatesNothingWhileParsing) {
  ArtNetParser parser;
  unsigned seen = 0;
  parser.on_poll = [&](ArtPoll& /*poll*/) { ++seen; };
  parser.on_poll_reply = [&](ArtPollReply& /*reply*/) { ++seen; };
  parser.on_dmx = [&](ArtDmx& /*dmx*/) { ++seen; };
  parser.on_oem_vfps = [&](ArtOemVfps& /*oem*/) { ++seen; };
  parser.on_oem_vfps_ns = [&](ArtOemVfpsNs& /*oem*/) { ++seen; };
  parser.on_trigger = [&](ArtTrigger& /*trigger*/) { ++seen; };
  parser.on_unknown = [&](ArtHeader& /*header*/) { ++seen; };
  parser.on_error = [&](const std::error_code /*error*/) { ++seen; };
  std::string bytes;
  for (int i = 0; i < 100; ++i) {
    for (const Kind& kind : kinds()) bytes += kind.wire;
    bytes += packets::dmx_announcing(513, "");
  }
  PacketStream buffer(bytes.data(), bytes.size());
  std::istream stream(&buffer);
  std::error_code ec;
  const unsigned before = allocations;
  parser.parse(stream, ec);
  parser.parse_datagram(bytes, ec);
  EXPECT_EQ(allocations, before);
  EXPECT_GE(seen, 1600U);
}

TEST(ArtNetParser, ConvertToRawPutsTheLengthBackIntoWireOrder) {
  ArtDmx dmx{};
  dmx.universe = 0x0205;
  dmx.length = 0x0180;
  ArtDmx expected = dmx;
  expected.length = 0x8001;
  ArtNetParser::convert_to_raw(dmx);
  EXPECT_EQ(packets::bytes_of(dmx), packets::bytes_of(expected));
}

TEST(ArtNetParser, ReceivedArtDmxCanBeWrittenOutAgain) {
  const std::string wire = packets::dmx(packets::counting(300), 0x7FFF, 200);
  ArtNetParser parser;
  std::string written;
  parser.on_dmx = [&](ArtDmx& dmx) {
    const std::size_t size = 18U + dmx.length;
    ArtNetParser::convert_to_raw(dmx);
    written = packets::bytes_of(dmx).substr(0, size);
  };
  std::istringstream stream(wire);
  std::error_code ec;
  parser.parse(stream, ec);
  EXPECT_EQ(written, wire);
}

TEST(ArtNetParser, TakesADatagramInMemoryAsItTakesAStreamOfIt) {
  constexpr unsigned kSeed = 20;
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  const std::vector<Kind> all = kinds();
  std::mt19937 random(kSeed);
  const auto below = [&random](std::size_t bound) { return static_cast<std::size_t>(random() % bound); };
  Recorder in_memory;
  Recorder as_stream;
  std::size_t packets_seen = 0;
  for (int i = 0; i < 5000; ++i) {
    std::string datagram;
    for (std::size_t parts = below(4); parts > 0; --parts) {
      const std::string& wire = all[below(all.size())].wire;
      datagram += packets::padding(below(3) == 0 ? below(600) : 0) + wire;
    }
    if (below(2) == 0) datagram.resize(below(datagram.size() + 1));
    const ParseRecord expected = as_stream.parse_as_stream(datagram);
    ASSERT_EQ(in_memory.parse(datagram), expected) << "datagram " << i;
    packets_seen += in_memory.parser.packet_count;
  }
  EXPECT_GT(packets_seen, 5000U);
}

TEST(ArtNetParser, TakesAStreamAfterADatagramInMemory) {
  Recorder recorder;
  const std::string first = packets::dmx(packets::counting(512), 1);
  const std::string second = packets::dmx(packets::counting(512, 9), 2);
  EXPECT_EQ(recorder.parse(first), outcome({dmx_event(packets::counting(512), 1)}));
  EXPECT_EQ(recorder.parse_as_stream(second), outcome({dmx_event(packets::counting(512, 9), 2)}));
  EXPECT_EQ(recorder.parse(first), outcome({dmx_event(packets::counting(512), 1)}));
}

// ---- the protected steps
// --------------------------------------------------------------------------------------------

/// A subclass that knows one OpCode more, and whose steps can be called one by one.
class ExtendedParser : public ArtNetParser {
public:
  using ArtNetParser::copy_with_populate;
  using ArtNetParser::fill_buffer_without_check;
  using ArtNetParser::populate_buffer;
  using ArtNetParser::search;

  std::vector<std::string> bodies;

protected:
  void parse_unknown(ArtHeader& header, std::istream& in, std::error_code& ec) override {
    EXPECT_EQ(std::string(header.id, 8), packets::identifier());
    std::string body(3, '\0');
    copy_with_populate(body.data(), 3, in, ec);
    if (ec) return;
    bodies.push_back(packets::low_first(header.opcode) + body);
    if (body == "end") stop();
  }
};

TEST(ArtNetParser, SubclassCanHandleUnknownOpCodes) {
  ExtendedParser parser;
  parser.on_unknown = [](ArtHeader& /*header*/) { ADD_FAILURE() << "the subclass handles it"; };
  std::istringstream stream(packets::unknown(0x4241) + "abc" + packets::unknown(0x4443) + "end" +
                            packets::unknown(0x4645) + "ghi");
  std::error_code ec;
  parser.parse(stream, ec);
  EXPECT_FALSE(ec);
  EXPECT_EQ(parser.bodies, (std::vector<std::string>{"ABabc", "CDend"}));
  EXPECT_EQ(parser.packet_count, 2U);

  std::istringstream cut(packets::unknown(0x4241) + "ab");
  parser.parse(cut, ec);
  EXPECT_EQ(ec, std::error_code(2, category()));
}

TEST(ArtNetParser, StepsWorkOneByOne) {
  ExtendedParser parser;
  std::error_code ec;
  std::istringstream stream(packets::padding(508) + "Art-" + "Net" + packets::text("\0", 1) + "abcdef");
  parser.populate_buffer(stream, ec);
  EXPECT_FALSE(ec);
  EXPECT_FALSE(parser.search());
  parser.fill_buffer_without_check(stream);
  EXPECT_TRUE(parser.search());
  std::string body(4, '\0');
  parser.copy_with_populate(body.data(), 4, stream, ec);
  EXPECT_FALSE(ec);
  EXPECT_EQ(body, "abcd");
  parser.copy_with_populate(body.data(), 0, stream, ec);
  EXPECT_FALSE(ec);
  parser.copy_with_populate(body.data(), 3, stream, ec);
  EXPECT_EQ(ec, std::error_code(2, category()));
  ec.clear();
  parser.populate_buffer(stream, ec);
  EXPECT_EQ(ec, std::error_code(2, category()));
}

// ---- errors and the stream over a datagram
// --------------------------------------------------------------------------

TEST(ArtNetParserErrors, HaveTheirCategoryAndMessages) {
  EXPECT_STREQ(category().name(), "ArtNet Parser: ");
  EXPECT_EQ(&errc::artnet_parser_error_category::instance(), &category());
  EXPECT_EQ(category().message(0), "No error");
  EXPECT_EQ(category().message(1), "Input file not found");
  EXPECT_EQ(category().message(2), "Unexpected end of input buffer");
  EXPECT_EQ(category().message(3), "ArtNet header not found");
  EXPECT_EQ(category().message(4), "ArtNet data buffer oversized");
  EXPECT_EQ(std::error_code(2, category()).message(), "Unexpected end of input buffer");
  EXPECT_NE(std::error_code(2, category()), std::error_code(2, std::generic_category()));
}

TEST(ArtNetParserErrors, UnknownCodesHaveAMessageToo) {
  EXPECT_EQ(category().message(5), "Unknown error");
  EXPECT_EQ(category().message(-1), "Unknown error");
}

static_assert(!std::is_copy_constructible_v<PacketStream> && !std::is_copy_assignable_v<PacketStream>);
static_assert(!std::is_move_constructible_v<PacketStream> && !std::is_move_assignable_v<PacketStream>);

TEST(PacketStream, DeliversACopyOfTheDatagramOnce) {
  for (const std::size_t size : {0U, 1U, 18U, 512U, 8191U}) {
    std::string datagram = packets::counting(size);
    const std::string expected = datagram;
    PacketStream buffer(datagram.data(), datagram.size());
    datagram.assign(size, 'x');
    EXPECT_EQ(buffer.in_avail(), size > 0 ? static_cast<std::streamsize>(size) : 0) << size;
    std::istream stream(&buffer);
    std::string delivered(size + 10, '\0');
    stream.read(delivered.data(), static_cast<std::streamsize>(delivered.size()));
    EXPECT_EQ(stream.gcount(), static_cast<std::streamsize>(size)) << size;
    delivered.resize(size);
    EXPECT_EQ(delivered, expected);
    EXPECT_TRUE(stream.eof());
    stream.clear();
    EXPECT_EQ(stream.get(), std::istream::traits_type::eof());
  }
}

}  // namespace
